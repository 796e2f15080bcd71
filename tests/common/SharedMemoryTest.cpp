#include "common/SharedMemory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "common/OVRAException.h"
#include "tests/support/Child.h"
#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ProcessState.h"
#include "tests/support/Sandbox.h"

namespace {

using vidapp::test::openDescriptors;
using vidapp::test::shmObjects;

// "<code> <text>" of the shared memory exception that call throws, or "none".
template <typename Call> std::string failureOf(Call&& call) {
    return vidapp::test::failureOf<SharedMemoryException>(std::forward<Call>(call));
}
template <typename Exception, typename Call> std::string failureOf(Call&& call) {
    return vidapp::test::failureOf<Exception>(std::forward<Call>(call));
}

constexpr const char* BASE = "TEST_FRAME";
constexpr std::uint64_t SIZE = 4096;

// Descriptors of this process that refer to /dev/shm/<name>.
std::set<int> descriptorsOf(const std::string& name) {
    std::set<int> fds;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(dir)) {
            char target[256] = {};
            const std::string link = std::string("/proc/self/fd/") + entry->d_name;
            if (::readlink(link.c_str(), target, sizeof(target) - 1) > 0 && target == "/dev/shm/" + name) {
                fds.insert(std::atoi(entry->d_name));
            }
        }
        ::closedir(dir);
    }
    return fds;
}

// The permissions column of /proc/self/maps for the mapping that holds address.
std::string mappingPermissions(const void* address) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    const auto where = reinterpret_cast<std::uintptr_t>(address);
    while (std::getline(maps, line)) {
        std::uintptr_t start = 0;
        std::uintptr_t end = 0;
        char permissions[8] = {};
        if (std::sscanf(line.c_str(), "%lx-%lx %7s", &start, &end, permissions) == 3 && where >= start && where < end) {
            return permissions;
        }
    }
    return "";
}

class SharedMemoryTest : public ::testing::Test {
protected:
    void SetUp() override { VIDAPP_REQUIRE_SANDBOX(); }

    vidapp::test::LogCapture log;
};

TEST_F(SharedMemoryTest, ForkedChildAttachesReadOnlyAndSeesTheCreatorsBytes) {
    SharedMemory creator(BASE, false);
    creator.create(SIZE, 3, false);
    for (std::uint64_t i = 0; i < 3; ++i) {
        std::memset(creator.getAddress(i), static_cast<int>(0x41 + i), SIZE);
    }

    const auto result = vidapp::test::runInChild([] {
        SharedMemory reader(BASE, true);
        reader.attach(SIZE, 3, false);
        for (std::uint64_t i = 0; i < 3; ++i) {
            const auto* bytes = static_cast<const unsigned char*>(reader.getAddress(i));
            for (std::uint64_t b = 0; b < SIZE; ++b) {
                if (bytes[b] != 0x41 + i) {
                    return 1;
                }
            }
            if (mappingPermissions(bytes) != "r--s") {
                return 2;
            }
        }
        reader.detach();
        return 0;
    });

    ASSERT_TRUE(result.exited) << result.describe();
    EXPECT_EQ(result.exitCode, 0) << result.describe();
    EXPECT_EQ(mappingPermissions(creator.getAddress(0)), "rw-s");
}

TEST_F(SharedMemoryTest, ObjectsAreNamedFromOneAndHaveMode0640WhateverTheUmask) {
    for (const mode_t mask : {mode_t{0}, mode_t{077}}) {
        const mode_t saved = ::umask(mask);
        SharedMemory memory(BASE, false);
        memory.create(SIZE, 2, false);
        ::umask(saved);

        EXPECT_EQ(shmObjects(), (std::set<std::string>{"TEST_FRAME1", "TEST_FRAME2"}));
        for (const char* name : {"/dev/shm/TEST_FRAME1", "/dev/shm/TEST_FRAME2"}) {
            struct stat status = {};
            ASSERT_EQ(::stat(name, &status), 0);
            EXPECT_EQ(status.st_mode & 07777, 0640U) << name << " with umask " << mask;
            EXPECT_EQ(status.st_size, static_cast<off_t>(SIZE));
        }
    }
}

TEST_F(SharedMemoryTest, CreateWithoutReuseFailsOnLeftoversWith1100AndReuseResizesThem) {
    {
        SharedMemory earlierRun(BASE, true);
        earlierRun.create(SIZE, 2, false);
        std::memset(earlierRun.getAddress(1), 0x5a, SIZE);
    }
    SharedMemory memory(BASE, false);

    EXPECT_EQ(failureOf([&] { memory.create(SIZE, 2, false); }),
              "1100 SharedMemory::create(): shm_open() failed with error:[File exists]");
    EXPECT_EQ(log.countErrors(1100), 1U) << log.dump();
    EXPECT_EQ(failureOf([&] { memory.getAddress(0); }).substr(0, 4), "1023") << "the created bit stays clear";

    memory.create(2 * SIZE, 2, true);
    const auto* reused = static_cast<const unsigned char*>(memory.getAddress(1));
    EXPECT_EQ(reused[SIZE - 1], 0x5a);
    EXPECT_EQ(reused[2 * SIZE - 1], 0);
}

TEST_F(SharedMemoryTest, ElevenBuffersCreateTenObjectsThenThrowOutOfRange) {
    const std::size_t descriptorsBefore = openDescriptors();
    {
        SharedMemory memory(BASE, false);
        EXPECT_THROW(memory.create(SIZE, 11, false), std::out_of_range);
        EXPECT_EQ(failureOf([&] { memory.getAddress(0); }).substr(0, 4), "1023");
    }
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    // A failed create leaves its objects for the next run.
    const auto objects = shmObjects();
    EXPECT_EQ(objects.size(), 10U);
    EXPECT_EQ(objects.count("TEST_FRAME10"), 1U);
}

TEST_F(SharedMemoryTest, AttachOneByteLargerThanTheObjectThrows1104AndAnEqualSizeWorks) {
    SharedMemory creator(BASE, false);
    creator.create(SIZE, 2, false);
    const std::size_t descriptorsBefore = openDescriptors();
    {
        SharedMemory reader(BASE, true);
        EXPECT_EQ(failureOf([&] { reader.attach(SIZE + 1, 2, false); }),
                  "1104 SharedMemory::attach(): invalid buffer size: 4097. Must be less than 4096.");
        EXPECT_EQ(log.countErrors(1104), 1U);

        reader.attach(SIZE, 2, true);
        EXPECT_EQ(mappingPermissions(reader.getAddress(1)), "rw-s");
    }
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

TEST_F(SharedMemoryTest, KeepObjectSurvivesDestructionAndOtherObjectsLeaveNothing) {
    const std::size_t descriptorsBefore = openDescriptors();
    {
        SharedMemory kept("KEPT", true);
        kept.create(SIZE, 2, false);
        SharedMemory removed(BASE, false);
        removed.create(SIZE, 3, false);
        SharedMemory reader(BASE, false);
        reader.attach(SIZE, 3, false);
    }
    EXPECT_EQ(shmObjects(), (std::set<std::string>{"KEPT1", "KEPT2"}));
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
}

TEST_F(SharedMemoryTest, ZeroBuffersMakeAnEmptySetWithoutAnyObject) {
    SharedMemory memory(BASE, false);
    memory.create(SIZE, 0, false);
    EXPECT_TRUE(shmObjects().empty());
    EXPECT_EQ(failureOf([&] { memory.getAddress(0); }),
              "1107 SharedMemory::getAddress(): invalid buffer index:[0]. Must be in [0,0)");

    memory.destroy();
    EXPECT_EQ(failureOf([&] { memory.getAddress(0); }),
              "1023 SharedMemory::getAddress() error: shared memory must be created or attached before accessing it.");
}

TEST_F(SharedMemoryTest, BadIndexLogsTheFixedTextAndThrows1107) {
    SharedMemory memory(BASE, false);
    memory.create(SIZE, 3, false);

    EXPECT_EQ(failureOf([&] { memory.getAddress(3); }),
              "1107 SharedMemory::getAddress(): invalid buffer index:[3]. Must be in [0,3)");
    EXPECT_EQ(log.countErrors(1107), 1U);
    EXPECT_TRUE(log.contains("vidapp: SharedMemory::getAddress(): invalid buffer index. snprintf() failed"));
}

TEST_F(SharedMemoryTest, NameLongerThan25IsCutAndLoggedWith1108) {
    SharedMemory memory(std::string(30, 'N').c_str(), false);
    SharedMemory fits(std::string(25, 'L').c_str(), false);
    EXPECT_EQ(log.countErrors(1108), 1U);
    EXPECT_EQ(std::string(fits.getName()), std::string(25, 'L'));

    memory.create(SIZE, 1, false);
    EXPECT_EQ(shmObjects(), (std::set<std::string>{std::string(25, 'N') + "1"}));
}

TEST_F(SharedMemoryTest, SecondCreateOrAttachThrows1023) {
    SharedMemory memory(BASE, false);
    memory.create(SIZE, 1, false);
    memory.attach(SIZE, 1, false);
    EXPECT_EQ(failureOf([&] { memory.create(SIZE, 1, true); }), "1023 SharedMemory::create(): already created");
    EXPECT_EQ(failureOf([&] { memory.attach(SIZE, 1, false); }), "1023 SharedMemory::attach(): already attached");
}

TEST_F(SharedMemoryTest, AddressesComeFromTheLaterCallStillInEffect) {
    SharedMemory memory(BASE, false);
    memory.create(SIZE, 2, false);
    void* created = memory.getAddress(1);
    memory.attach(SIZE, 1, false);
    EXPECT_EQ(mappingPermissions(memory.getAddress(0)), "r--s");
    EXPECT_EQ(failureOf([&] { memory.getAddress(1); }).substr(0, 4), "1107") << "the attached set has one buffer";

    memory.detach();
    EXPECT_EQ(memory.getAddress(1), created);
}

TEST_F(SharedMemoryTest, SystemCallFailuresThrowTheirCodes) {
    SharedMemory memory(BASE, false);
    EXPECT_EQ(failureOf([&] { memory.attach(SIZE, 1, false); }),
              "1100 SharedMemory::attach(): shm_open failed with error:[No such file or directory]");
    EXPECT_EQ(log.countErrors(1100), 0U) << "attach's shm_open failure is not logged";

    EXPECT_EQ(failureOf([&] { memory.create(std::uint64_t{1} << 63, 1, false); }),
              "1101 SharedMemory::create(): ftruncate() failed with error:[Invalid argument]");
    EXPECT_EQ(failureOf([&] { memory.create(0, 1, true); }),
              "1102 SharedMemory::create(): mmap() failed with error:[Invalid argument]");
    EXPECT_EQ(failureOf([&] { memory.attach(0, 1, false); }),
              "1102 SharedMemory::attach(): mmap() failed with error:[Invalid argument]");
    EXPECT_EQ(log.countErrors(1101), 1U);
    EXPECT_EQ(log.countErrors(1102), 2U);
}

TEST_F(SharedMemoryTest, DestroyOfRemovedObjectsThrows1105AndStaysCreated) {
    SharedMemory memory(BASE, false);
    memory.create(SIZE, 2, false);
    ASSERT_EQ(::shm_unlink("TEST_FRAME1"), 0);

    EXPECT_EQ(failureOf([&] { memory.destroy(); }),
              "1105 SharedMemory::destroy(): shm_unlink() failed with error:[No such file or directory]");
    EXPECT_EQ(log.countErrors(1105), 1U);
    EXPECT_EQ(shmObjects(), (std::set<std::string>{"TEST_FRAME2"})) << "later names are left";
    EXPECT_NE(memory.getAddress(1), nullptr);
}

TEST_F(SharedMemoryTest, DetachGoesOnPastCloseFailuresAndThrowsTheLast1103) {
    {
        SharedMemory creator(BASE, true);
        creator.create(SIZE, 2, false);
    }
    SharedMemory reader(BASE, false);
    reader.attach(SIZE, 2, false);
    // Close the reader's descriptors behind its back, so that its own close() fails.
    for (const char* name : {"TEST_FRAME1", "TEST_FRAME2"}) {
        const auto fds = descriptorsOf(name);
        ASSERT_EQ(fds.size(), 1U) << name;
        ::close(*fds.begin());
    }

    EXPECT_EQ(failureOf([&] { reader.detach(); }), "1103 SharedMemory::detach(): close() failed with error:[9]");
    EXPECT_EQ(log.countErrors(1103), 2U) << log.dump();
    EXPECT_EQ(failureOf([&] { reader.getAddress(0); }).substr(0, 4), "1023") << "detach always ends detached";
}

TEST_F(SharedMemoryTest, GetAddressIsSafeWhileAnotherThreadAttachesAndDetaches) {
    SharedMemory memory(BASE, false);
    memory.create(SIZE, 2, false);
    std::thread attacher([&] {
        for (int i = 0; i < 200; ++i) {
            memory.attach(SIZE, 2, false);
            memory.detach();
        }
    });
    bool allMapped = true;
    for (int i = 0; i < 200; ++i) {
        allMapped = allMapped && memory.getAddress(1) != nullptr;
    }
    attacher.join();
    EXPECT_TRUE(allMapped);
}

} // namespace
