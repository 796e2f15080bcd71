#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "log/JlogClient.h"
#include "log/OVRALogMessage.h"

// The process's single log sink. The process entry creates it once, before any other thread; the
// log front end finds it through getInstance(). sendLogMessage serialises the hand-over of records
// to the system log and may be called from any thread. Tests derive from it to capture records.
class LogMessageClient {
public:
    // Every record of this release carries build number 7, whatever the caller passes.
    static constexpr std::uint32_t FORCED_BUILD_NUMBER = 7;

    LogMessageClient(const std::string& appGUID, const OVRAAppVersion_t& appVersion);
    virtual ~LogMessageClient();
    LogMessageClient(const LogMessageClient&) = delete;
    LogMessageClient& operator=(const LogMessageClient&) = delete;

    virtual void sendLogMessage(const OVRALogMessage_t* record);

    // The live client, or null; never creates one.
    static LogMessageClient* getInstance();

    const std::string& getAppGUID() const { return appGUID; }
    OVRAAppVersion_t getAppVersion() const { return appVersion; }

private:
    static std::atomic<LogMessageClient*> mInstance;

    std::mutex mutex; // serialises sendToJlog
    std::string appGUID;
    OVRAAppVersion_t appVersion;
    JlogClient jlogClient;
};
