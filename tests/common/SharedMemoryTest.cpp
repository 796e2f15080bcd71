#include "common/SharedMemory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/MappingFaultGuard.h"
#include "common/OVRAException.h"
#include "tests/support/Child.h"
#include "tests/support/DescriptorLimit.h"
#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"
#include "tests/support/ProcessState.h"
#include "tests/support/Sandbox.h"

using vidapp::test::openDescriptors;
using vidapp::test::shmObjects;
using Names = std::set<std::string>;

constexpr std::uint64_t SIZE = 4096;

template <typename Call> std::string failureOf(Call&& call) {
    return vidapp::test::failureOf<SharedMemoryException>(call);
}

// A mapping of an object that was opened read-only cannot be made writable.
static bool readOnly(void* address) {
    return ::mprotect(address, SIZE, PROT_READ | PROT_WRITE) == -1 && errno == EACCES;
}

class SharedMemoryTest : public ::testing::Test {
protected:
    void SetUp() override { VIDAPP_REQUIRE_SANDBOX(); }
    vidapp::test::LogCapture log;
    SharedMemory memory{"TEST_FRAME", false};
};

TEST_F(SharedMemoryTest, ForkedChildAttachesReadOnlyToObjectsOfMode0640) {
    const mode_t savedMask = ::umask(077);
    memory.create(SIZE, 2, false);
    ::umask(savedMask);
    struct stat status = {};
    ASSERT_EQ(::stat("/dev/shm/TEST_FRAME2", &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U) << "whatever the umask";
    EXPECT_EQ(status.st_size, static_cast<off_t>(SIZE));
    std::memset(memory.getAddress(1), 'B', SIZE);
    const auto child = vidapp::test::runInChild([] {
        SharedMemory reader("TEST_FRAME", true);
        reader.attach(SIZE, 2, false);
        const auto* second = static_cast<char*>(reader.getAddress(1));
        return std::count(second, second + SIZE, 'B') == SIZE && readOnly(reader.getAddress(1)) ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0) << child.describe();
}

// A create that fails half way, for whatever reason, leaves nothing behind: no object it opened, no
// descriptor, no mapping.
TEST_F(SharedMemoryTest, ACreateThatFailsHalfWayRemovesWhatItMade) {
    const std::size_t descriptorsBefore = openDescriptors();
    {
        SharedMemory eleven("TEST_FRAME", false);
        EXPECT_THROW(eleven.create(SIZE, 11, false), std::out_of_range);
        EXPECT_EQ(failureOf([&] { eleven.getAddress(0); }).substr(0, 4), "1023") << "the created bit stays clear";
    }
    EXPECT_TRUE(shmObjects().empty());
    ASSERT_EQ(::mkdir("/dev/shm/TEST_FRAME3", 0700), 0);
    EXPECT_EQ(failureOf([&] { memory.create(SIZE, 4, true); }).substr(0, 46),
              "1100 SharedMemory::create(): shm_open() failed");
    ASSERT_EQ(::rmdir("/dev/shm/TEST_FRAME3"), 0);
    ASSERT_EQ(::mkfifo("/dev/shm/TEST_FRAME3", 0600), 0); // its open must not wait for a writer
    EXPECT_EQ(failureOf([&] { memory.create(SIZE, 4, true); }),
              "1100 SharedMemory::create(): TEST_FRAME3 is not a shared memory object: refused");
    ASSERT_EQ(::unlink("/dev/shm/TEST_FRAME3"), 0);
    {
        const int lowestFree = ::dup(0);
        ::close(lowestFree);
        vidapp::test::DescriptorLimit limit(static_cast<rlim_t>(lowestFree) + 2); // two objects open
        ASSERT_TRUE(limit.applied());
        EXPECT_EQ(failureOf([&] { memory.create(SIZE, 4, true); }),
                  "1100 SharedMemory::create(): shm_open() failed with error:[Too many open files]");
    }
    EXPECT_TRUE(shmObjects().empty());
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    // Objects left by a killed run make a create without reuse fail (and are not this call's to remove);
    // with reuse they are taken over and resized.
    SharedMemory("TEST_FRAME", true).create(SIZE, 2, false);
    EXPECT_EQ(failureOf([&] { memory.create(SIZE, 2, false); }),
              "1100 SharedMemory::create(): shm_open() failed with error:[File exists]");
    EXPECT_EQ(shmObjects(), (Names{"TEST_FRAME1", "TEST_FRAME2"}));
    memory.create(2 * SIZE, 2, true);
    struct stat status = {};
    ASSERT_EQ(::stat("/dev/shm/TEST_FRAME2", &status), 0);
    EXPECT_EQ(status.st_size, static_cast<off_t>(2 * SIZE));
}

// The pages are reserved at the start, so a full /dev/shm is a start-up failure, and an object of
// another user is refused; a store that meets the end of an object shrunk from outside is caught.
TEST_F(SharedMemoryTest, SpaceIsReservedForeignObjectsRefusedAndAShrunkObjectCaught) {
    ASSERT_EQ(::mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=64k"), 0);
    EXPECT_EQ(failureOf([&] { memory.create(32 * 1024, 3, true); }),
              "1101 SharedMemory::create(): posix_fallocate() failed with error:[No space left on device]");
    EXPECT_TRUE(shmObjects().empty());
    const int foreign = ::shm_open("TEST_FRAME2", O_RDWR | O_CREAT, 0666);
    ASSERT_EQ(::fchown(foreign, 12345, 12345), 0);
    ::close(foreign);
    EXPECT_EQ(failureOf([&] { memory.create(SIZE, 2, true); }),
              "1100 SharedMemory::create(): TEST_FRAME2 is owned by user 12345, not by this process's user 0: refused");
    EXPECT_EQ(shmObjects(), (Names{"TEST_FRAME2"})) << "another's object is not removed";
    ASSERT_EQ(::shm_unlink("TEST_FRAME2"), 0);

    memory.create(4 * SIZE, 1, true);
    auto* bytes = static_cast<volatile char*>(memory.getAddress(0));
    {
        const OVRA::MappingFaultGuard guard(memory.getAddress(0), 4 * SIZE);
        bytes[3 * SIZE] = 'x';
        EXPECT_FALSE(guard.faulted());
        ASSERT_EQ(::truncate("/dev/shm/TEST_FRAME1", 0), 0);
        bytes[3 * SIZE] = 'y'; // SIGBUS without the guard
        EXPECT_TRUE(guard.faulted());
    }
    EXPECT_EQ(bytes[3 * SIZE], 'y') << "the store went on, into a private page";
}

TEST_F(SharedMemoryTest, LongNamesAreCutAttachChecksTheSizeAndOnlyKeptObjectsSurvive) {
    const std::string whole(25, 'R');
    {
        // Over 25 characters a name is cut and logged with 1108; 25 are kept whole.
        SharedMemory kept(std::string(30, 'K').c_str(), true);
        kept.create(SIZE, 2, false);
        SharedMemory removed(whole.c_str(), false);
        removed.create(SIZE, 3, false);
        SharedMemory reader(whole.c_str(), false);
        EXPECT_EQ(failureOf([&] { reader.attach(SIZE + 1, 3, false); }),
                  "1104 SharedMemory::attach(): invalid buffer size: 4097. Must be less than 4096.");
        EXPECT_EQ(log.countErrors(1104), 1U);
        reader.attach(SIZE, 3, true);
        static_cast<char*>(reader.getAddress(2))[0] = 'w';
        EXPECT_EQ(static_cast<char*>(removed.getAddress(2))[0], 'w');
    }
    EXPECT_EQ(log.countErrors(1108), 1U);
    EXPECT_EQ(shmObjects(), (Names{std::string(25, 'K') + "1", std::string(25, 'K') + "2"}));
}

TEST_F(SharedMemoryTest, GetAddressNeedsACreatedOrAttachedSetAndAnIndexInIt) {
    EXPECT_EQ(failureOf([&] { memory.getAddress(0); }),
              "1023 SharedMemory::getAddress() error: shared memory must be created or attached before accessing it.");
    memory.create(SIZE, 0, false);
    EXPECT_TRUE(shmObjects().empty());
    EXPECT_EQ(failureOf([&] { memory.getAddress(0); }),
              "1107 SharedMemory::getAddress(): invalid buffer index:[0]. Must be in [0,0)");
    memory.destroy();
    memory.create(SIZE, 2, false);
    memory.attach(SIZE, 2, false);
    EXPECT_EQ(failureOf([&] { memory.create(SIZE, 1, true); }), "1023 SharedMemory::create(): already created");
    EXPECT_EQ(failureOf([&] { memory.attach(SIZE, 1, false); }), "1023 SharedMemory::attach(): already attached");
    // Both sets are in effect: getAddress gives the later call's, the read-only one.
    EXPECT_TRUE(readOnly(memory.getAddress(1)));
    EXPECT_EQ(log.count("vidapp: SharedMemory::getAddress(): invalid buffer index. snprintf() failed"), 1U);
}

TEST_F(SharedMemoryTest, SystemCallFailuresThrowTheirCodes) {
    EXPECT_EQ(failureOf([&] { memory.attach(SIZE, 1, false); }),
              "1100 SharedMemory::attach(): shm_open failed with error:[No such file or directory]");
    EXPECT_EQ(log.countErrors(1100), 0U) << "attach's shm_open failure is not logged";
    EXPECT_EQ(failureOf([&] { memory.create(std::uint64_t{1} << 63, 1, false); }),
              "1101 SharedMemory::create(): ftruncate() failed with error:[Invalid argument]");
    EXPECT_EQ(failureOf([&] { memory.create(0, 1, true); }),
              "1102 SharedMemory::create(): mmap() failed with error:[Invalid argument]");
    SharedMemory("TEST_FRAME", true).create(SIZE, 1, false); // the failed create left nothing to attach to
    EXPECT_EQ(failureOf([&] { memory.attach(0, 1, false); }),
              "1102 SharedMemory::attach(): mmap() failed with error:[Invalid argument]");
    EXPECT_EQ(log.countErrors(1101) + log.countErrors(1102), 3U);
    memory.create(SIZE, 2, true);
    ASSERT_EQ(::shm_unlink("TEST_FRAME1"), 0);
    EXPECT_EQ(failureOf([&] { memory.destroy(); }),
              "1105 SharedMemory::destroy(): shm_unlink() failed with error:[No such file or directory]");
    EXPECT_EQ(log.countErrors(1105), 1U);
    EXPECT_TRUE(shmObjects().empty()) << "a failed removal does not keep the later names";
}

TEST_F(SharedMemoryTest, DetachGoesOnPastCloseFailuresAndThrowsTheLast1103) {
    SharedMemory("TEST_FRAME", true).create(SIZE, 2, false);
    memory.attach(SIZE, 2, false);
    // Close its descriptors behind its back, so that its own close() fails.
    int closed = 0;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (std::filesystem::read_symlink(fd.path(), ignored).string().rfind("/dev/shm/TEST_FRAME", 0) == 0) {
            closed += ::close(std::stoi(fd.path().filename().string())) == 0 ? 1 : 0;
        }
    }
    ASSERT_EQ(closed, 2);
    EXPECT_EQ(failureOf([&] { memory.detach(); }), "1103 SharedMemory::detach(): close() failed with error:[9]");
    EXPECT_EQ(log.countErrors(1103), 2U) << log.dump();
    EXPECT_EQ(failureOf([&] { memory.getAddress(0); }).substr(0, 4), "1023") << "detach always ends detached";
}
