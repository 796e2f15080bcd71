#include "common/OVRAException.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

namespace {

TEST(OVRAExceptionTest, KeepsCodeAndMessage) {
    const SharedMemoryException error(1100, "shm_open failed");
    EXPECT_EQ(error.getCode(), 1100U);
    EXPECT_STREQ(error.what(), "shm_open failed");
}

TEST(OVRAExceptionTest, MessageOf1023CharactersIsKeptWhole) {
    const std::string text(1023, 'x');
    const OVRAException error(1, text.c_str());
    EXPECT_EQ(std::string(error.what()), text);
}

TEST(OVRAExceptionTest, LongerMessageIsCutTo1023Characters) {
    const std::string text = std::string(1023, 'a') + "bcdef";
    const OVRAException error(1, text.c_str());
    EXPECT_EQ(std::string(error.what()), std::string(1023, 'a'));
}

TEST(OVRAExceptionTest, EmptyAndNullMessagesGiveEmptyText) {
    EXPECT_STREQ(OVRAException(7, "").what(), "");
    EXPECT_STREQ(OVRAException(7, nullptr).what(), "");
}

TEST(OVRAExceptionTest, SubclassesAreCaughtAsTheBaseAndAsStdException) {
    try {
        throw OVRA::TimerException(2600, "Timer.schedule(): task should have non-zero period");
    } catch (const std::exception& e) {
        const auto* base = dynamic_cast<const OVRAException*>(&e);
        ASSERT_NE(base, nullptr);
        EXPECT_EQ(base->getCode(), 2600U);
    }
}

TEST(OVRAExceptionTest, InvalidMessageIDFormatsTextAndLowerCaseHex) {
    const OVRA::InvalidMessageIDException error(1058, "Bad", 255);
    EXPECT_STREQ(error.what(), "Bad. Invalid messageId: 0xff");
}

TEST(OVRAExceptionTest, InvalidMessageIDFromAnIdString) {
    const OVRA::InvalidMessageIDException error(1059, std::string("NOT_A_MESSAGE"));
    EXPECT_STREQ(error.what(), "Invalid messageIdString: NOT_A_MESSAGE");
}

TEST(OVRAExceptionTest, InvalidMessageIDWithAPlainMessage) {
    const OVRA::InvalidMessageIDException error(1058, "Invalid messageId: 0x1f");
    EXPECT_STREQ(error.what(), "Invalid messageId: 0x1f");
}

TEST(OVRAExceptionTest, InvalidIPCChannelNameFormatsTheValue) {
    EXPECT_STREQ(OVRA::InvalidIPCChannelNameException(1700, 19U).what(), "Invalid IPCChannelName: 19");
    EXPECT_STREQ(OVRA::InvalidIPCChannelNameException(1701, "Invalid IPCChannelNameString: x").what(),
                 "Invalid IPCChannelNameString: x");
}

TEST(OVRAExceptionTest, IniParserExceptionCarriesALineNumber) {
    IniFileParserException error(413, "Empty header name:[]");
    EXPECT_EQ(error.lineNumber, 0U);
    error.lineNumber = 12;
    const IniFileParserException copy = error;
    EXPECT_EQ(copy.lineNumber, 12U);
}

TEST(OVRAExceptionTest, FormattedTextIsBoundedToTheMessageSize) {
    const std::string text(2000, 'z');
    const OVRAExceptionText formatted = formatExceptionText("%s", text.c_str());
    EXPECT_EQ(std::string(formatted.text), std::string(1023, 'z'));
}

TEST(OVRAExceptionTest, ErrnoIsPerThread) {
    OVRA::setErrno(5);
    int otherThreadValue = -1;
    std::thread other([&] {
        OVRA::setErrno(9);
        otherThreadValue = OVRA::getErrno();
    });
    other.join();
    EXPECT_EQ(OVRA::getErrno(), 5);
    EXPECT_EQ(otherThreadValue, 9);
}

} // namespace
