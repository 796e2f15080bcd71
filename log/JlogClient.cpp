#include "log/JlogClient.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <syslog.h>

#include "common/IniFileParser.h"
#include "common/OVRAException.h"
#include "log/LogLevel.h"
#include "log/SyslogClient.h"

JlogClient::JlogClient(const std::string& name) : appName(name) {
    initJlog();
}

void JlogClient::initJlog() {}

int JlogClient::priorityForLevel(std::uint8_t logLevel) {
    switch (logLevel) {
    case OVRA::LOG_LEVEL_ERROR:
        return LOG_ERR;
    case OVRA::LOG_LEVEL_WARNING:
        return LOG_WARNING;
    case OVRA::LOG_LEVEL_INFO:
        return LOG_INFO;
    case OVRA::LOG_LEVEL_DEBUG:
    case OVRA::LOG_LEVEL_VERBOSE:
        return LOG_DEBUG;
    default:
        return LOG_INFO;
    }
}

void JlogClient::sendToJlog(const OVRALogMessage_t* record) const {
    char line[1024];
    (void)std::snprintf(line, sizeof line, "%u.%u.%u-%u %s", record->appVersion.major, record->appVersion.minor,
                        record->appVersion.patch, record->appVersion.build, record->text);
    line[sizeof line - 1] = '\0';
    (void)OVRA::syslogSend(priorityForLevel(record->logLevel), line);
}

int JlogClient::getNumPagesOrDefault(const std::string& key, int value, int defaultValue) const {
    if (value >= MIN_NUM_PAGES && value <= MAX_NUM_PAGES) {
        return value;
    }
    std::cerr << "JlogClient(): App: " << appName << ": " << key << " has invalid value: " << value
              << ". Must be between " << MIN_NUM_PAGES << " and " << MAX_NUM_PAGES << " inclusive" << std::endl;
    return defaultValue;
}

int JlogClient::getVerbosityLevelOrDefault(const std::string& key, int value, int defaultValue) const {
    if (value == 0) {
        return value;
    }
    if (std::find(JLOG_LEVELS.begin(), JLOG_LEVELS.end(), value) != JLOG_LEVELS.end()) {
        return value;
    }
    std::cerr << "JlogClient(): App: " << appName << ": " << key << " has invalid jlog value: " << value << std::endl;
    return defaultValue;
}

void JlogClient::readSetting(const IniFileParser& parser, const std::string& section, const std::string& key,
                             bool reportMissing, int& setting, Validator validate) const {
    std::int32_t value = 0;
    const int result = parser.getInteger32(section, key, value);
    if (result == 0) {
        setting = (this->*validate)(key, value, setting);
    } else if (result == -1) {
        if (reportMissing) {
            std::cerr << "JlogClient::loadJlogClientProperties(): App: " << appName << ". Entry Not Found: " << key
                      << ". Default to: " << setting << std::endl;
        }
    } else {
        std::cerr << "JlogClient::loadJlogClientProperties(): App: " << appName << ". " << key
                  << " is not a 32-bit integer. Default to: " << setting << std::endl;
    }
}

void JlogClient::loadJlogClientProperties(const std::string& fileName) {
    IniFileParser parser;
    try {
        parser.parseFile(fileName);
    } catch (const IniFileParserException& e) {
        std::cerr << "JlogClient::loadJlogClientProperties(): App: " << appName << ". " << e.what() << " (line "
                  << e.lineNumber << "). Using defaults." << std::endl;
        return;
    } catch (const std::exception& e) {
        std::cerr << "JlogClient::loadJlogClientProperties(): App: " << appName << ". " << e.what()
                  << ". Using defaults." << std::endl;
        return;
    }

    readSetting(parser, "JlogClientConfigDefault", "NUM_PAGES", true, numPages, &JlogClient::getNumPagesOrDefault);
    readSetting(parser, "JlogClientConfigDefault", "VERBOSITY_LEVEL", true, verbosityLevel,
                &JlogClient::getVerbosityLevelOrDefault);
    readSetting(parser, appName, "CUSTOM_NUM_PAGES", false, numPages, &JlogClient::getNumPagesOrDefault);
    readSetting(parser, appName, "CUSTOM_VERBOSITY_LEVEL", false, verbosityLevel,
                &JlogClient::getVerbosityLevelOrDefault);
}
