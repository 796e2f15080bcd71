#include "log/LogMessageClient.h"

std::atomic<LogMessageClient*> LogMessageClient::mInstance{nullptr};

LogMessageClient::LogMessageClient(const std::string& guid, const OVRAAppVersion_t& version)
    : appGUID(guid), appVersion(version), jlogClient(guid) {
    mInstance.store(this, std::memory_order_release);
    appVersion.build = FORCED_BUILD_NUMBER;
}

LogMessageClient::~LogMessageClient() {
    LogMessageClient* self = this;
    mInstance.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
}

LogMessageClient* LogMessageClient::getInstance() { return mInstance.load(std::memory_order_acquire); }

void LogMessageClient::sendLogMessage(const OVRALogMessage_t* record) {
    std::lock_guard<std::mutex> lock(mutex);
    jlogClient.sendToJlog(record);
}
