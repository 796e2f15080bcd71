#include "tests/support/VidappProcess.h"

#include <sys/stat.h>

#include <sys/mount.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <thread>

#include "log/OVRALogImplementPrintf.h"
#include "tests/support/Sandbox.h"

namespace vidapp::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

FlagWord::FlagWord() {
    id = shmget(DLOG_SHARED_MEMORY_KEY, sizeof(std::uint64_t), IPC_CREAT | DLOG_SHARED_MEMORY_MODE);
    if (id != -1) {
        word = static_cast<std::uint64_t*>(shmat(id, nullptr, 0));
    }
}

FlagWord::~FlagWord() {
    if (attached()) {
        shmdt(word);
    }
    if (id != -1) {
        shmctl(id, IPC_RMID, nullptr);
    }
}

bool FlagWord::attached() const {
    return id != -1 && word != nullptr && word != reinterpret_cast<std::uint64_t*>(-1);
}

void FlagWord::set(std::uint64_t bits) {
    std::atomic_ref<std::uint64_t>(*word).fetch_or(bits);
}

std::uint64_t FlagWord::value() const {
    return std::atomic_ref<std::uint64_t>(*word).load();
}

std::vector<std::string> frameObjects() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator("/dev/shm")) {
        if (entry.path().filename().string().rfind("IMAGE_FRAME", 0) == 0) {
            names.push_back(entry.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

OVRA::PDUMessage_t toMessage(const std::vector<std::uint8_t>& bytes) {
    OVRA::PDUMessage_t message{};
    std::memcpy(&message, bytes.data(), std::min(bytes.size(), sizeof message));
    return message;
}

std::vector<std::uint8_t> routerMessage(std::uint32_t id, std::uint16_t count,
                                        const std::vector<std::uint8_t>& payload) {
    auto message = std::make_unique<OVRA::PDUMessage_t>();
    std::memset(message.get(), 0, sizeof(OVRA::PDUMessage_t));
    message->messageId = id;
    message->length = static_cast<std::uint32_t>(OVRA::PDU_LENGTH_FIELD_HEADER_BYTES + payload.size());
    message->count = count;
    message->timestamp = ovraSystemTimestamp_us();
    if (!payload.empty()) {
        std::memcpy(message->payload, payload.data(), payload.size());
    }
    message->crc = DataValidity::computeMessageCRC(message.get());
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(message.get());
    return {bytes, bytes + OVRA::PDU_HEADER_SIZE + payload.size()};
}

bool waitUntil(const std::function<bool()>& ready, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!ready()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

bool waitUntilStopped(pid_t pid, std::chrono::milliseconds timeout) {
    const fs::path tasks = "/proc/" + std::to_string(pid) + "/task";
    return waitUntil(
        [&] {
            std::error_code error;
            for (const auto& task : fs::directory_iterator(tasks, error)) {
                std::string stat;
                std::getline(std::ifstream(task.path() / "stat"), stat);
                if (stat.empty()) {
                    continue; // the thread has ended
                }
                const std::size_t close = stat.rfind(')');
                if (close == std::string::npos || close + 2 >= stat.size() ||
                    (stat[close + 2] != 'T' && stat[close + 2] != 't')) {
                    return false;
                }
            }
            return !error;
        },
        timeout);
}

void VidappProcess::SetUp() {
    VIDAPP_REQUIRE_SANDBOX();
    VIDAPP_REQUIRE_NFS();
    char pattern[] = "/tmp/vidapp-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    workingDirectory = pattern;
    frameDirectory = workingDirectory + "/frames";
    fs::create_directory(frameDirectory);
    ASSERT_TRUE(flags.attached());
}

void VidappProcess::TearDown() {
    if (vidapp && vidapp->running()) {
        vidapp->signal(SIGCONT);
        vidapp->signal(SIGINT);
        vidapp->wait(5s);
    }
    vidapp.reset();
    if (!workingDirectory.empty()) {
        fs::remove_all(workingDirectory);
    }
}

void VidappProcess::launchVidapp(const std::vector<std::string>& environment) {
    ChildOptions options;
    options.unsetEnvironment = {"VIDAPP_CAMERA_PIPELINE", "VIDAPP_FRAME_DIR", "CLOCK_DIVISOR"};
    options.setEnvironment = environment;
    options.workingDirectory = workingDirectory;
    vidapp = std::make_unique<Child>(std::vector<std::string>{VIDAPP_PATH}, options);
}

void VidappProcess::startVidapp(const std::vector<std::string>& environment) {
    launchVidapp(environment);
    const auto ready = launcher.receive(MESSAGE_TIMEOUT);
    ASSERT_TRUE(ready.has_value()) << "no READY report\n" << vidapp->wait(1s).describe();
    readyReport = *ready;
}

SyslogCapture VidappProcess::withOwnSystemLog(const std::function<void(FlagWord&)>& act) {
    return captureSyslog([&act] {
        ::mkdir("/dev/shm", 01777);
        if (::mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") != 0) {
            return;
        }
        FlagWord privateFlags;
        act(privateFlags);
    });
}

void VidappProcess::stopVidapp() {
    ASSERT_TRUE(vidapp);
    const auto sentAt = std::chrono::steady_clock::now();
    vidapp->signal(SIGINT);
    const ChildResult result = vidapp->wait(10s);
    const auto took = std::chrono::steady_clock::now() - sentAt;
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
    EXPECT_LT(took, 2s) << result.describe();
    EXPECT_TRUE(frameObjects().empty()) << "the frame segment is removed at exit";
}

} // namespace vidapp::test
