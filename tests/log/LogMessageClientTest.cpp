#include "log/LogMessageClient.h"

#include <gtest/gtest.h>

#include <memory>
#include <tuple>

class LogMessageClientTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(LogMessageClient::getInstance(), nullptr); }
    void TearDown() override { EXPECT_EQ(LogMessageClient::getInstance(), nullptr); }

    const OVRAAppVersion_t version{101, 101, 1, 101101};
};

TEST_F(LogMessageClientTest, InstanceIsTheNewestLiveClientWithItsBuildForcedToSeven) {
    auto older = std::make_unique<LogMessageClient>("vidapp", version);
    EXPECT_EQ(LogMessageClient::getInstance(), older.get());
    const LogMessageClient newer("vidapp", version);
    older.reset();
    EXPECT_EQ(LogMessageClient::getInstance(), &newer) << "an older client going does not unset the newer";
    const OVRAAppVersion_t kept = newer.getAppVersion();
    EXPECT_EQ(std::tie(kept.major, kept.minor, kept.patch, kept.build), std::make_tuple(101U, 101U, 1U, 7U));
    EXPECT_EQ(newer.getAppGUID(), "vidapp");
}
