#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "log/OVRALogMessage.h"

class IniFileParser;

// Last stage of the log path: turns one record into one system log line (identity and facility
// are those opened by initDLogInterface). Also holds the per-application log settings, which
// loadJlogClientProperties reads from "JlogClientConfiguration.ini"; the constructor keeps the
// built-in defaults. sendToJlog is called under the LogMessageClient's mutex only.
class JlogClient {
public:
    static constexpr std::array<std::uint8_t, 8> JLOG_LEVELS = {0, 1, 2, 3, 4, 5, 6, 7};
    static constexpr const char* JLOG_CLIENT_CONFIGURATION_FILE = "JlogClientConfiguration.ini";
    static constexpr int DEFAULT_NUM_PAGES = 2;
    static constexpr int MIN_NUM_PAGES = 1;
    static constexpr int MAX_NUM_PAGES = 8;
    static constexpr int DEFAULT_VERBOSITY_LEVEL = 6;

    explicit JlogClient(const std::string& appName);

    // Empty in this release: the built-in defaults stay in force.
    void initJlog();

    // Writes "%u.%u.%u-%u %s" (version, text) with the syslog priority of the record's level.
    void sendToJlog(const OVRALogMessage_t* record) const;

    // Reads NUM_PAGES and VERBOSITY_LEVEL from [JlogClientConfigDefault] and their CUSTOM_
    // overrides from the application's own section. Never throws: bad values keep the current one.
    void loadJlogClientProperties(const std::string& fileName);

    int getNumPagesOrDefault(const std::string& key, int value, int defaultValue) const;
    int getVerbosityLevelOrDefault(const std::string& key, int value, int defaultValue) const;

    // The syslog priority for a record's level.
    static int priorityForLevel(std::uint8_t logLevel);

    int getNumPages() const { return numPages; }
    int getVerbosityLevel() const { return verbosityLevel; }
    const std::string& getAppName() const { return appName; }

private:
    using Validator = int (JlogClient::*)(const std::string&, int, int) const;
    void readSetting(const IniFileParser& parser, const std::string& section, const std::string& key,
                     bool reportMissing, int& setting, Validator validate) const;

    std::uint64_t handle = 0; // reserved
    int numPages = DEFAULT_NUM_PAGES;
    int verbosityLevel = DEFAULT_VERBOSITY_LEVEL;
    std::string appName;
};
