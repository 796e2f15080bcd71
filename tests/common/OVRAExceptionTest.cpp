#include "common/OVRAException.h"

#include <gtest/gtest.h>

#include <thread>

TEST(OVRAExceptionTest, MessagesAreFormattedIntoTheFixed1024ByteBuffer) {
    const std::string longest(1023, 'x');
    EXPECT_EQ(std::string(OVRAException(1, longest.c_str()).what()), longest);
    EXPECT_EQ(std::string(OVRAException(1, (longest + "yz").c_str()).what()), longest);
    EXPECT_EQ(std::string(formatExceptionText("%s%s", longest.c_str(), "yz").text), longest);
    EXPECT_STREQ(OVRAException(7, "").what(), "");
    EXPECT_STREQ(OVRAException(7, nullptr).what(), "");
    EXPECT_STREQ(OVRA::InvalidMessageIDException(1058, "Bad", 255).what(), "Bad. Invalid messageId: 0xff");
    EXPECT_STREQ(OVRA::InvalidMessageIDException(1059, std::string("X")).what(), "Invalid messageIdString: X");
    EXPECT_STREQ(OVRA::InvalidIPCChannelNameException(1700, 19U).what(), "Invalid IPCChannelName: 19");
}

TEST(OVRAExceptionTest, ErrnoIsPerThread) {
    OVRA::setErrno(5);
    int otherThreadValue = -1;
    std::thread([&] {
        OVRA::setErrno(9);
        otherThreadValue = OVRA::getErrno();
    }).join();
    EXPECT_EQ(OVRA::getErrno(), 5);
    EXPECT_EQ(otherThreadValue, 9);
}
