#include "communication/OVRACommunicationUtils.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <typeinfo>

#include "common/OVRAException.h"
#include "tests/support/Expect.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace OVRA;
using vidapp::test::expectFailure;

std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

std::vector<std::uint32_t> range(std::uint32_t first, std::uint32_t last) {
    std::vector<std::uint32_t> values;
    for (std::uint32_t value = first; value <= last; ++value) {
        values.push_back(value);
    }
    return values;
}

// What convert gives for each input, space-separated: the name ("null" for none) or the number, or
// "<code>:<text>" of the exception it throws, which must be exactly of the class Exception.
template <typename Exception, typename Result, typename Arg, typename Input>
std::string outcomes(Result (*convert)(Arg), const std::vector<Input>& inputs) {
    std::string all;
    for (const Input& input : inputs) {
        all += all.empty() ? "" : " ";
        try {
            Result result;
            if constexpr (std::is_same_v<Input, std::uint32_t>) {
                result = convert(static_cast<Arg>(input));
            } else {
                result = convert(input.c_str());
            }
            if constexpr (std::is_pointer_v<Result>) {
                all += result == nullptr ? "null" : result;
            } else {
                all += std::to_string(static_cast<std::uint32_t>(result));
            }
        } catch (const OVRAException& e) {
            all +=
                (typeid(e) == typeid(Exception) ? "" : "(other class) ") + std::to_string(e.getCode()) + ":" + e.what();
        }
    }
    return all;
}

std::string numbers(std::uint32_t first, std::uint32_t last) {
    return outcomes<OVRAException>(
        +[](std::uint32_t value) { return value; }, range(first, last));
}

class OVRACommunicationUtilsTest : public ::testing::Test {
protected:
    vidapp::test::LogCapture log;
};

// The names other processes send and log are written out here independently of the tables under test.
TEST_F(OVRACommunicationUtilsTest, MessageIds) {
    const std::string host = "FUSED_TRACK_DATA DYNAMIC_VEHICLE_INFO SPP_FEATURE_RESULTS MOBILEYE_FUSION_DATA "
                             "ENHANCED_TARGET_SELECTION_DATA MOBILEYE_LANE_DATA CAN_SIGNAL_DATA "
                             "RADAR_RETURN_FRONT_LEFT_DATA RADAR_RETURN_FRONT_RIGHT_DATA RADAR_RETURN_REAR_LEFT_DATA "
                             "RADAR_RETURN_REAR_RIGHT_DATA RADAR_RETURN_FRONT_CENTER_DATA AHITCH_FUSION_INPUT_DATA "
                             "AHITCH_FUSION_FEATURE_RESULTS VEHICLE_CONFIGURATION_DATA CAMERA_SUPPORT_DATA "
                             "TAD_FEATURE_RESULTS MPL_PREVIEWER_FEATURE_RESULTS LOCALIZATION_FEATURE_RESULTS "
                             "VIRTUAL_SENSOR_RESULTS MPL_INPUTS SLOT_MANAGER_FEATURE_RESULTS "
                             "FUSION_FEATURE_MAPPER_RESULTS LANE_LEVEL_ATTRIBUTES REMOTE_PARK_AID_INPUTS";
    const std::string internal =
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
        "DATACOMM_ERROR_STATUS SUBSCRIBER_SHUTDOWN";
    EXPECT_EQ(outcomes<InvalidMessageIDException>(getMessageIdString, range(0, 31)),
              "1058:Invalid messageId: 0x0 " + host + " null null null null null 1058:Invalid messageId: 0x1f");
    // The unnamed IDs and the empty name of 0 are not in the name map.
    EXPECT_EQ(outcomes<InvalidMessageIDException>(getMessageId, words(host + " VIDEO_INTERFACE_RESULTS")),
              numbers(1, 25) + " 1059:Invalid messageIdString: VIDEO_INTERFACE_RESULTS");
    expectFailure<InvalidMessageIDException>([] { getMessageId(""); }, 1059, "Invalid messageIdString: ");
    expectFailure<InvalidMessageIDException>([] { getMessageId(nullptr); }, 1059, "Invalid messageIdString: (null)");
    EXPECT_EQ(outcomes<InvalidMessageIDException>(getInternalMessageIdString, range(0x80000000, 0x80000033)),
              "1060:getInternalMessageIdString(). Invalid messageId: 0x80000000 " + internal +
                  " 1060:getInternalMessageIdString(). Invalid messageId: 0x80000033");
    EXPECT_EQ(outcomes<InvalidMessageIDException>(getInternalMessageIdString, range(5, 5)),
              "1060:getInternalMessageIdString(). Invalid messageId: 0x5");
    EXPECT_EQ(outcomes<InvalidMessageIDException>(getInternalMessageId, words(internal + " FUSED_TRACK_DATA")),
              numbers(0x80000001, 0x80000032) + " 1061:Invalid messageIdString: FUSED_TRACK_DATA");
}

TEST_F(OVRACommunicationUtilsTest, ChannelsSourceApplicationsAndStatus) {
    const std::string channels =
        "to_router to_logmsg to_launcher to_extint to_usgmon to_modmgr to_protox to_parkas "
        "to_imagefrmcpt to_ipunit to_vfserv to_radradr to_auhfus to_localz to_ahivis to_hballd";
    EXPECT_EQ(outcomes<InvalidIPCChannelNameException>(getIPCChannelNameString, range(0, 19)),
              channels + " null null null 1700:Invalid IPCChannelName: 19");
    // 16 has a string only towards the value; this process's own receive channel is not enumerated.
    EXPECT_EQ(outcomes<InvalidIPCChannelNameException>(getIPCChannelName, words(channels + " to_udr to_vidapp")),
              numbers(0, 16) + " 1701:Invalid IPCChannelNameString: to_vidapp");
    EXPECT_EQ(outcomes<InvalidIPCChannelNameException>(getSourceAppNameByIPCChannel, range(0, 19)),
              numbers(0, 7) + " 0 0 0 0 0 0 0 0 0 0 0 1704:Invalid IPCChannelName: 19");
    // 4, 5 and 7 are channel strings: other processes log these texts.
    EXPECT_EQ(outcomes<InvalidSourceAppNameException>(getSourceAppNameString, range(0, 19)),
              "SRC_ROUTER SRC_LOGMSG SRC_LAUNCHER SRC_EXTINT to_usgmon to_modmgr SRC_PROTOX to_parkas null null null "
              "null null null null null null null null 1702:Invalid sourceAppName: 19");
    EXPECT_EQ(
        outcomes<InvalidSourceAppNameException>(
            getSourceAppName, words("SRC_ROUTER SRC_LOGMSG SRC_LAUNCHER SRC_EXTINT SRC_USGMON SRC_MODMGR "
                                    "SRC_PARKING_ASSIST SRC_IMAGE_FRAME_CAPTURE SRC_IMAGE_PROCESSING_UNIT "
                                    "SRC_VF_SERVER SRC_RADRDR SRC_AHIFUS SRC_UDR SRC_LOCALZ SRC_AHIVIS SRC_HBALLD "
                                    "SRC_PROTOX SRC_VIDAPP SRC_MUART SRC_CLIAPP SRC_UNITTEST MAX_SOURCE_APPS")),
        "0 1 2 3 4 5 7 8 9 10 11 12 16 13 14 15 1703:Invalid sourceAppNameString: SRC_PROTOX "
        "1703:Invalid sourceAppNameString: SRC_VIDAPP 1703:Invalid sourceAppNameString: SRC_MUART "
        "1703:Invalid sourceAppNameString: SRC_CLIAPP 1703:Invalid sourceAppNameString: SRC_UNITTEST 1703:Invalid "
        "sourceAppNameString: MAX_SOURCE_APPS");
    // Built from 22 pairs: 6 appears twice and its first name wins.
    EXPECT_EQ(SOURCE_APP_NAME_MAP.size(), 21U);
    EXPECT_EQ(SOURCE_APP_NAME_MAP.at(static_cast<SourceAppNames_e>(6)), "SRC_PROTOX");
    EXPECT_EQ(SOURCE_APP_NAME_MAP.at(SRC_CLIAPP), "SRC_CLIAPP");
    EXPECT_EQ(outcomes<InvalidAppStatusException>(getApplicationStatusString, range(0, 5)),
              "OFF TIMEOUT INITIALIZING RUNNING TERMINATING "
              "507:getApplicationStatusString(): Invalid App Status Enumerator: 5");
    EXPECT_EQ(outcomes<OVRAException>(mapGUIDToSourceAppName,
                                      words("router logmsg launch extint usgmon modmgr protox utguid vidapp")),
              "0 1 2 3 4 5 6 6 1073:mapGUIDToSourceAppName(): guid not found: vidapp");
}

TEST_F(OVRACommunicationUtilsTest, MapSystemAppGuidStatusUpdatesKnownGuidsOnly) {
    SystemAppGUIDStatus_t in{};
    SystemApplicationStatus_t out{};
    out.applicationStatus.fill(TIMEOUT);
    const auto set = [&in](std::size_t i, const char* guid) {
        std::memcpy(in.entries[i].guid, guid, std::strlen(guid) + 1);
        in.entries[i].status = i == 2 ? TERMINATING : RUNNING;
    };
    set(0, "router");
    mapSystemAppGUIDStatus(in, out); // count 0: untouched
    EXPECT_EQ(out.applicationStatus[SRC_ROUTER], TIMEOUT);
    EXPECT_TRUE(log.records().empty()) << log.dump();
    in.count = 3;
    set(1, "vidapp");
    set(2, "utguid");
    set(3, "logmsg"); // beyond the count
    mapSystemAppGUIDStatus(in, out);
    EXPECT_EQ(std::vector(out.applicationStatus.begin(), out.applicationStatus.begin() + 7),
              std::vector<ApplicationStatus_e>({RUNNING, TIMEOUT, TIMEOUT, TIMEOUT, TIMEOUT, TIMEOUT, TERMINATING}));
    EXPECT_EQ(out.applicationStatus[SRC_VIDAPP], TIMEOUT);
    EXPECT_EQ(log.countErrors(1073), 1U) << log.dump();
    // The error record cuts the text; its start names the failing lookup.
    EXPECT_TRUE(log.contains("vidapp: mapSystemAppGUIDStatus(): exception: mapGUIDToSourceAppName(): guid n"))
        << log.dump();
    in.count = 256; // the index past the last entry throws, after the entries before it are stored
    for (std::size_t i = 0; i < in.entries.size(); ++i) {
        set(i, "extint");
    }
    EXPECT_THROW(mapSystemAppGUIDStatus(in, out), std::out_of_range);
    EXPECT_EQ(out.applicationStatus[SRC_EXTINT], RUNNING);
}

} // namespace
