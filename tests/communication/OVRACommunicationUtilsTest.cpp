#include "communication/OVRACommunicationUtils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

#include "common/OVRAException.h"
#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace OVRA;

// Names other processes send and log, written out here independently of the tables under test.
std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

class OVRACommunicationUtilsTest : public ::testing::Test {};

using vidapp::test::expectFailure;

TEST_F(OVRACommunicationUtilsTest, HostMessageIds) {
    const auto named = words("FUSED_TRACK_DATA DYNAMIC_VEHICLE_INFO SPP_FEATURE_RESULTS MOBILEYE_FUSION_DATA "
                             "ENHANCED_TARGET_SELECTION_DATA MOBILEYE_LANE_DATA CAN_SIGNAL_DATA "
                             "RADAR_RETURN_FRONT_LEFT_DATA RADAR_RETURN_FRONT_RIGHT_DATA RADAR_RETURN_REAR_LEFT_DATA "
                             "RADAR_RETURN_REAR_RIGHT_DATA RADAR_RETURN_FRONT_CENTER_DATA AHITCH_FUSION_INPUT_DATA "
                             "AHITCH_FUSION_FEATURE_RESULTS VEHICLE_CONFIGURATION_DATA CAMERA_SUPPORT_DATA "
                             "TAD_FEATURE_RESULTS MPL_PREVIEWER_FEATURE_RESULTS LOCALIZATION_FEATURE_RESULTS "
                             "VIRTUAL_SENSOR_RESULTS MPL_INPUTS SLOT_MANAGER_FEATURE_RESULTS "
                             "FUSION_FEATURE_MAPPER_RESULTS LANE_LEVEL_ATTRIBUTES REMOTE_PARK_AID_INPUTS");
    ASSERT_EQ(named.size(), 25U);
    for (std::size_t i = 0; i < named.size(); ++i) {
        const auto id = static_cast<MessageIds_e>(i + 1);
        const std::string& name = named[i];
        ASSERT_NE(getMessageIdString(id), nullptr) << name;
        EXPECT_EQ(getMessageIdString(id), name);
        EXPECT_EQ(getMessageId(name.c_str()), id);
    }
    for (std::uint32_t id = 26; id <= 30; ++id) {
        EXPECT_EQ(getMessageIdString(static_cast<MessageIds_e>(id)), nullptr) << id;
    }
    expectFailure<InvalidMessageIDException>([] { getMessageIdString(MESSAGE_ID_NONE); }, 1058,
                                             "Invalid messageId: 0x0");
    expectFailure<InvalidMessageIDException>([] { getMessageIdString(static_cast<MessageIds_e>(31)); }, 1058,
                                             "Invalid messageId: 0x1f");
    // The unnamed IDs and the empty name of 0 are not in the name map.
    expectFailure<InvalidMessageIDException>([] { getMessageId("VIDEO_INTERFACE_RESULTS"); }, 1059,
                                             "Invalid messageIdString: VIDEO_INTERFACE_RESULTS");
    expectFailure<InvalidMessageIDException>([] { getMessageId(""); }, 1059, "Invalid messageIdString: ");
    expectFailure<InvalidMessageIDException>([] { getMessageId(nullptr); }, 1059, "Invalid messageIdString: (null)");
}

TEST_F(OVRACommunicationUtilsTest, InternalMessageIds) {
    const auto named = words(
        "POSE_DATA PARKING_TRAILER_DETECTION SYSTEM_MODE_MESSAGE SYSTEM_APPLICATION_STATUS IMAGE_SERVER_DATA UNUSED_1 "
        "UNUSED_2 IMAGE_FRAME_READY ENHANCED_FUSED_TRACK_DATA ENHANCED_RADAR_RETURN_FRONT_LEFT_DATA "
        "ENHANCED_RADAR_RETURN_FRONT_RIGHT_DATA ENHANCED_RADAR_RETURN_REAR_LEFT_DATA "
        "ENHANCED_RADAR_RETURN_REAR_RIGHT_DATA ENHANCED_RADAR_RETURN_FRONT_CENTER_DATA RADAR_ODOMETRY_DATA "
        "VEHICLE_STATE_DATA AUTOHITCH_VISION_RESULTS CV_TAD_FEATURE_RESULTS DEEP_TAD_FEATURE_RESULTS "
        "HITCH_BALL_DETECTION_RESULTS AUTOHITCH_FUSION_RESULTS YAW_RATE_TAD_FEATURE_RESULTS DTC_ERROR_STATUS "
        "MODE_MANAGER_ACK UNUSED_3 TAD_HITCH_BALL_LEARNING_RESULTS SET_MESSAGE_TIMING_MONITOR VIDEO_CONSUMER_REGISTER "
        "VIDEO_INTERFACE_REGISTER_AGAIN SPP_FEATURE_TO_OUTER_LANE_DETECTION UNUSED_4 TAD_HBL_FEATURE_RESULTS UNUSED_5 "
        "UNUSED_6 VIDEO_INTERFACE_OPERATION_MODE_UPDATE MPL_FEATURE_TO_SPP APPLICATION_CONTROL SET_HEARTBEAT_STATUS "
        "STOP_HEARTBEAT_STATUS REDISCOVER_APPLICATIONS PRINT_RUNNING_APPS SHUTDOWN_LAUNCHER APPLICATION_READY "
        "APPLICATION_STOPPED LOG_CPU_USAGE APP_GUID_STATUS SYSTEM_APP_GUID_STATUS VIDEO_CONSUMER_GUID_REGISTER "
        "DATACOMM_ERROR_STATUS SUBSCRIBER_SHUTDOWN");
    ASSERT_EQ(named.size(), 50U);
    for (std::size_t i = 0; i < named.size(); ++i) {
        const auto id = static_cast<InternalMessageIds_e>(0x80000001U + i);
        const std::string& name = named[i];
        EXPECT_EQ(getInternalMessageIdString(id), name);
        EXPECT_EQ(getInternalMessageId(name.c_str()), id);
    }
    for (const std::uint32_t id : {0x80000000U, 0x80000033U, 5U}) {
        expectFailure<InvalidMessageIDException>(
            [id] { getInternalMessageIdString(static_cast<InternalMessageIds_e>(id)); }, 1060,
            formatExceptionText("getInternalMessageIdString(). Invalid messageId: 0x%x", id).text);
    }
    expectFailure<InvalidMessageIDException>([] { getInternalMessageId("FUSED_TRACK_DATA"); }, 1061,
                                             "Invalid messageIdString: FUSED_TRACK_DATA");
}

TEST_F(OVRACommunicationUtilsTest, IPCChannels) {
    const std::vector<std::string> channels = {
        "to_router",      "to_logmsg", "to_launcher", "to_extint",  "to_usgmon", "to_modmgr", "to_protox", "to_parkas",
        "to_imagefrmcpt", "to_ipunit", "to_vfserv",   "to_radradr", "to_auhfus", "to_localz", "to_ahivis", "to_hballd"};
    for (std::uint32_t value = 0; value < channels.size(); ++value) {
        const auto channel = static_cast<IPCChannelNames_e>(value);
        EXPECT_EQ(getIPCChannelNameString(channel), channels[value]);
        EXPECT_EQ(getIPCChannelName(channels[value].c_str()), channel);
        EXPECT_EQ(getSourceAppNameByIPCChannel(channel), value < 8 ? value : 0U) << value;
    }
    // 16 has a string only towards the value; 16 to 18 still map to the router.
    EXPECT_EQ(getIPCChannelName("to_udr"), TO_UDR);
    for (std::uint32_t value = 16; value <= 18; ++value) {
        EXPECT_EQ(getIPCChannelNameString(static_cast<IPCChannelNames_e>(value)), nullptr) << value;
        EXPECT_EQ(getSourceAppNameByIPCChannel(static_cast<IPCChannelNames_e>(value)), SRC_ROUTER) << value;
    }
    const auto channel19 = static_cast<IPCChannelNames_e>(19);
    expectFailure<InvalidIPCChannelNameException>([&] { getIPCChannelNameString(channel19); }, 1700,
                                                  "Invalid IPCChannelName: 19");
    expectFailure<InvalidIPCChannelNameException>([&] { getSourceAppNameByIPCChannel(channel19); }, 1704,
                                                  "Invalid IPCChannelName: 19");
    // This process's own receive channel is not one of the enumerated ones.
    expectFailure<InvalidIPCChannelNameException>([] { getIPCChannelName("to_vidapp"); }, 1701,
                                                  "Invalid IPCChannelNameString: to_vidapp");
}

TEST_F(OVRACommunicationUtilsTest, SourceApplications) {
    // 4, 5 and 7 are channel strings: other processes log these texts.
    const std::vector<std::string> strings = {"SRC_ROUTER", "SRC_LOGMSG", "SRC_LAUNCHER", "SRC_EXTINT",
                                              "to_usgmon",  "to_modmgr",  "SRC_PROTOX",   "to_parkas"};
    for (std::uint32_t value = 0; value <= 18; ++value) {
        const char* name = getSourceAppNameString(static_cast<SourceAppNames_e>(value));
        EXPECT_EQ(name == nullptr ? "null" : name, value < strings.size() ? strings[value] : "null") << value;
    }
    expectFailure<InvalidSourceAppNameException>([] { getSourceAppNameString(MAX_SOURCE_APPS); }, 1702,
                                                 "Invalid sourceAppName: 19");

    const auto accepted =
        words("SRC_ROUTER SRC_LOGMSG SRC_LAUNCHER SRC_EXTINT SRC_USGMON SRC_MODMGR SRC_PARKING_ASSIST "
              "SRC_IMAGE_FRAME_CAPTURE SRC_IMAGE_PROCESSING_UNIT SRC_VF_SERVER SRC_RADRDR SRC_AHIFUS "
              "SRC_UDR SRC_LOCALZ SRC_AHIVIS SRC_HBALLD");
    const std::vector<int> values = {0, 1, 2, 3, 4, 5, 7, 8, 9, 10, 11, 12, 16, 13, 14, 15};
    ASSERT_EQ(accepted.size(), values.size());
    for (std::size_t i = 0; i < accepted.size(); ++i) {
        EXPECT_EQ(getSourceAppName(accepted[i].c_str()), values[i]) << accepted[i];
    }
    for (const char* name :
         {"SRC_PROTOX", "SRC_VIDAPP", "SRC_MUART", "SRC_CLIAPP", "SRC_UNITTEST", "MAX_SOURCE_APPS"}) {
        expectFailure<InvalidSourceAppNameException>([&] { getSourceAppName(name); }, 1703,
                                                     std::string("Invalid sourceAppNameString: ") + name);
    }

    // Built from 22 pairs: 6 appears twice and its first name wins.
    EXPECT_EQ(SOURCE_APP_NAME_MAP.size(), 21U);
    EXPECT_EQ(SOURCE_APP_NAME_MAP.at(static_cast<SourceAppNames_e>(6)), "SRC_PROTOX");
    EXPECT_EQ(SOURCE_APP_NAME_MAP.at(SRC_CLIAPP), "SRC_CLIAPP");
}

TEST_F(OVRACommunicationUtilsTest, ApplicationStatusAndGuids) {
    const std::vector<std::string> statuses = {"OFF", "TIMEOUT", "INITIALIZING", "RUNNING", "TERMINATING"};
    for (std::uint32_t value = 0; value < statuses.size(); ++value) {
        EXPECT_EQ(getApplicationStatusString(static_cast<ApplicationStatus_e>(value)), statuses[value]);
    }
    expectFailure<InvalidAppStatusException>([] { getApplicationStatusString(static_cast<ApplicationStatus_e>(5)); },
                                             507, "getApplicationStatusString(): Invalid App Status Enumerator: 5");

    const std::vector<std::pair<std::string, SourceAppNames_e>> guids = {
        {"router", SRC_ROUTER}, {"logmsg", SRC_LOGMSG}, {"launch", SRC_LAUNCHER}, {"extint", SRC_EXTINT},
        {"usgmon", SRC_USGMON}, {"modmgr", SRC_MODMGR}, {"protox", SRC_PROTOX},   {"utguid", SRC_PROTOX}};
    for (const auto& [guid, app] : guids) {
        EXPECT_EQ(mapGUIDToSourceAppName(guid), app) << guid;
    }
    expectFailure<OVRAException>([] { mapGUIDToSourceAppName("vidapp"); }, 1073,
                                 "mapGUIDToSourceAppName(): guid not found: vidapp");
}

class MapSystemAppGUIDStatusTest : public ::testing::Test {
protected:
    MapSystemAppGUIDStatusTest() {
        std::memset(&in, 0, sizeof in);
        out.applicationStatus.fill(TIMEOUT);
    }

    void setEntry(std::size_t i, const char* guid, ApplicationStatus_e status) {
        std::memcpy(in.entries[i].guid, guid, std::min(std::strlen(guid), sizeof in.entries[i].guid));
        in.entries[i].status = status;
    }

    vidapp::test::LogCapture log;
    SystemAppGUIDStatus_t in;
    SystemApplicationStatus_t out;
};

TEST_F(MapSystemAppGUIDStatusTest, KnownGuidsUpdateAndUnknownOnesAreLoggedAndSkipped) {
    in.count = 3;
    setEntry(0, "router", RUNNING);
    setEntry(1, "vidapp", RUNNING);
    setEntry(2, "utguid", TERMINATING);
    setEntry(3, "logmsg", RUNNING); // beyond the count

    mapSystemAppGUIDStatus(in, out);

    EXPECT_EQ(out.applicationStatus[SRC_ROUTER], RUNNING);
    EXPECT_EQ(out.applicationStatus[SRC_PROTOX], TERMINATING);
    EXPECT_EQ(out.applicationStatus[SRC_VIDAPP], TIMEOUT);
    EXPECT_EQ(out.applicationStatus[SRC_LOGMSG], TIMEOUT);
    EXPECT_EQ(log.countErrors(1073), 1U) << log.dump();
    // The error record cuts the text; its start names the failing lookup.
    EXPECT_TRUE(log.contains("vidapp: mapSystemAppGUIDStatus(): exception: mapGUIDToSourceAppName(): guid n"))
        << log.dump();
}

TEST_F(MapSystemAppGUIDStatusTest, CountZeroLeavesTheOutputUntouched) {
    setEntry(0, "router", RUNNING);
    mapSystemAppGUIDStatus(in, out);
    EXPECT_EQ(out.applicationStatus[SRC_ROUTER], TIMEOUT);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(MapSystemAppGUIDStatusTest, ACountBeyond255EntriesThrowsOutOfRangeAfterTheLastEntry) {
    in.count = 256;
    for (std::size_t i = 0; i < in.entries.size(); ++i) {
        setEntry(i, "extint", RUNNING);
    }
    EXPECT_THROW(mapSystemAppGUIDStatus(in, out), std::out_of_range);
    EXPECT_EQ(out.applicationStatus[SRC_EXTINT], RUNNING);
}

} // namespace
