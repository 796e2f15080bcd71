#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

// The one wire record between the processes of the system and the shared vocabulary of
// identifiers. The tables are compiled-in constants, the same in every process that exchanges
// these messages. The record is sent as it lies in memory on a little-endian machine.

namespace OVRA {

constexpr std::size_t PDU_HEADER_SIZE = 24;
constexpr std::size_t PDU_MAX_PAYLOAD_SIZE = 64000;
// The length field counts the bytes after the ID and length fields: the rest of the header (16)
// plus the payload. A datagram carrying a message is exactly length + 8 bytes long.
constexpr std::uint32_t PDU_LENGTH_FIELD_HEADER_BYTES = 16;
constexpr std::uint32_t PDU_ID_AND_LENGTH_BYTES = 8;

struct PDUMessage_t {
    std::uint32_t messageId; // MessageIds_e (1..30) or InternalMessageIds_e (bit 31 set)
    std::uint32_t length;    // 16 + payload size
    std::uint32_t crc;       // CRC-32 over bytes 12 .. length + 8 - 1
    std::uint16_t count;     // rolling sequence number per message ID
    std::uint16_t version;   // protocol version of the interface
    std::uint64_t timestamp; // send time, microseconds / clock divisor; 0 is never valid
    std::uint8_t payload[PDU_MAX_PAYLOAD_SIZE];
};

static_assert(sizeof(PDUMessage_t) == 64024, "PDU record size is fixed by the wire protocol");
static_assert(offsetof(PDUMessage_t, messageId) == 0);
static_assert(offsetof(PDUMessage_t, length) == 4);
static_assert(offsetof(PDUMessage_t, crc) == 8);
static_assert(offsetof(PDUMessage_t, count) == 12);
static_assert(offsetof(PDUMessage_t, version) == 14);
static_assert(offsetof(PDUMessage_t, timestamp) == 16);
static_assert(offsetof(PDUMessage_t, payload) == PDU_HEADER_SIZE);

// Host messages. 26 to 30 are valid IDs with fixed sizes but no name string.
enum MessageIds_e : std::uint32_t {
    MESSAGE_ID_NONE = 0,
    FUSED_TRACK_DATA = 1,
    DYNAMIC_VEHICLE_INFO = 2,
    SPP_FEATURE_RESULTS = 3,
    MOBILEYE_FUSION_DATA = 4,
    ENHANCED_TARGET_SELECTION_DATA = 5,
    MOBILEYE_LANE_DATA = 6,
    CAN_SIGNAL_DATA = 7,
    RADAR_RETURN_FRONT_LEFT_DATA = 8,
    RADAR_RETURN_FRONT_RIGHT_DATA = 9,
    RADAR_RETURN_REAR_LEFT_DATA = 10,
    RADAR_RETURN_REAR_RIGHT_DATA = 11,
    RADAR_RETURN_FRONT_CENTER_DATA = 12,
    AHITCH_FUSION_INPUT_DATA = 13,
    AHITCH_FUSION_FEATURE_RESULTS = 14,
    VEHICLE_CONFIGURATION_DATA = 15,
    CAMERA_SUPPORT_DATA = 16,
    TAD_FEATURE_RESULTS = 17,
    MPL_PREVIEWER_FEATURE_RESULTS = 18,
    LOCALIZATION_FEATURE_RESULTS = 19,
    VIRTUAL_SENSOR_RESULTS = 20,
    MPL_INPUTS = 21,
    SLOT_MANAGER_FEATURE_RESULTS = 22,
    FUSION_FEATURE_MAPPER_RESULTS = 23,
    LANE_LEVEL_ATTRIBUTES = 24,
    REMOTE_PARK_AID_INPUTS = 25,
    RECEIVED_IMAGE_DATA = 26,
    HOST_MESSAGE_27 = 27,
    HOST_MESSAGE_28 = 28,
    VIDEO_INTERFACE_RESULTS = 29,
    HOST_MESSAGE_30 = 30,
};

constexpr std::uint32_t FIRST_HOST_MESSAGE_ID = 1;
constexpr std::uint32_t LAST_HOST_MESSAGE_ID = 30;
constexpr std::size_t NUMBER_OF_HOST_MESSAGE_IDS = 31; // indexes 0..30

// Messages between the system's own processes: bit 31 set, 0x80000000 + n for n = 1..50.
enum InternalMessageIds_e : std::uint32_t {
    INTERNAL_MESSAGE_BASE = 0x80000000,
    POSE_DATA = 0x80000001,
    PARKING_TRAILER_DETECTION = 0x80000002,
    SYSTEM_MODE_MESSAGE = 0x80000003,
    SYSTEM_APPLICATION_STATUS = 0x80000004,
    IMAGE_SERVER_DATA = 0x80000005,
    UNUSED_1 = 0x80000006,
    UNUSED_2 = 0x80000007,
    IMAGE_FRAME_READY = 0x80000008,
    ENHANCED_FUSED_TRACK_DATA = 0x80000009,
    ENHANCED_RADAR_RETURN_FRONT_LEFT_DATA = 0x8000000A,
    ENHANCED_RADAR_RETURN_FRONT_RIGHT_DATA = 0x8000000B,
    ENHANCED_RADAR_RETURN_REAR_LEFT_DATA = 0x8000000C,
    ENHANCED_RADAR_RETURN_REAR_RIGHT_DATA = 0x8000000D,
    ENHANCED_RADAR_RETURN_FRONT_CENTER_DATA = 0x8000000E,
    RADAR_ODOMETRY_DATA = 0x8000000F,
    VEHICLE_STATE_DATA = 0x80000010,
    AUTOHITCH_VISION_RESULTS = 0x80000011,
    CV_TAD_FEATURE_RESULTS = 0x80000012,
    DEEP_TAD_FEATURE_RESULTS = 0x80000013,
    HITCH_BALL_DETECTION_RESULTS = 0x80000014,
    AUTOHITCH_FUSION_RESULTS = 0x80000015,
    YAW_RATE_TAD_FEATURE_RESULTS = 0x80000016,
    DTC_ERROR_STATUS = 0x80000017,
    MODE_MANAGER_ACK = 0x80000018,
    UNUSED_3 = 0x80000019,
    TAD_HITCH_BALL_LEARNING_RESULTS = 0x8000001A,
    SET_MESSAGE_TIMING_MONITOR = 0x8000001B,
    VIDEO_CONSUMER_REGISTER = 0x8000001C,
    VIDEO_INTERFACE_REGISTER_AGAIN = 0x8000001D,
    SPP_FEATURE_TO_OUTER_LANE_DETECTION = 0x8000001E,
    UNUSED_4 = 0x8000001F,
    TAD_HBL_FEATURE_RESULTS = 0x80000020,
    UNUSED_5 = 0x80000021,
    UNUSED_6 = 0x80000022,
    VIDEO_INTERFACE_OPERATION_MODE_UPDATE = 0x80000023,
    MPL_FEATURE_TO_SPP = 0x80000024,
    APPLICATION_CONTROL = 0x80000025,
    SET_HEARTBEAT_STATUS = 0x80000026,
    STOP_HEARTBEAT_STATUS = 0x80000027,
    REDISCOVER_APPLICATIONS = 0x80000028,
    PRINT_RUNNING_APPS = 0x80000029,
    SHUTDOWN_LAUNCHER = 0x8000002A,
    APPLICATION_READY = 0x8000002B,
    APPLICATION_STOPPED = 0x8000002C,
    LOG_CPU_USAGE = 0x8000002D,
    APP_GUID_STATUS = 0x8000002E,
    SYSTEM_APP_GUID_STATUS = 0x8000002F,
    VIDEO_CONSUMER_GUID_REGISTER = 0x80000030,
    DATACOMM_ERROR_STATUS = 0x80000031,
    SUBSCRIBER_SHUTDOWN = 0x80000032,
};

constexpr std::uint32_t INTERNAL_MESSAGE_FLAG = 0x80000000;
constexpr std::uint32_t FIRST_INTERNAL_MESSAGE_ID = 0x80000001;
constexpr std::uint32_t LAST_INTERNAL_MESSAGE_ID = 0x80000032;
constexpr std::size_t NUMBER_OF_INTERNAL_MESSAGE_IDS = 51; // indexes 0..50

// The named inter-process channels. 16 has a channel string only in the string-to-value
// direction; 17 and 18 have none.
enum IPCChannelNames_e : std::uint8_t {
    TO_ROUTER = 0,
    TO_LOGMSG = 1,
    TO_LAUNCHER = 2,
    TO_EXTINT = 3,
    TO_USGMON = 4,
    TO_MODMGR = 5,
    TO_PROTOX = 6,
    TO_PARKAS = 7,
    TO_IMAGEFRMCPT = 8,
    TO_IPUNIT = 9,
    TO_VFSERV = 10,
    TO_RADRADR = 11,
    TO_AUHFUS = 12,
    TO_LOCALZ = 13,
    TO_AHIVIS = 14,
    TO_HBALLD = 15,
    TO_UDR = 16,
    IPC_CHANNEL_RESERVED_17 = 17,
    IPC_CHANNEL_RESERVED_18 = 18,
};

constexpr std::size_t NUMBER_OF_IPC_CHANNELS = 19;

// The applications that originate messages. SRC_PROTOX is listed before SRC_MODMGR, SRC_UNITTEST
// shares 6 with SRC_PROTOX and SRC_CLIAPP lies beyond MAX_SOURCE_APPS: all as the system has them.
enum SourceAppNames_e : std::uint8_t {
    SRC_ROUTER = 0,
    SRC_LOGMSG = 1,
    SRC_LAUNCHER = 2,
    SRC_EXTINT = 3,
    SRC_USGMON = 4,
    SRC_PROTOX = 6,
    SRC_MODMGR = 5,
    SRC_PARKING_ASSIST = 7,
    SRC_IMAGE_FRAME_CAPTURE = 8,
    SRC_IMAGE_PROCESSING_UNIT = 9,
    SRC_VF_SERVER = 10,
    SRC_RADRDR = 11,
    SRC_AHIFUS = 12,
    SRC_LOCALZ = 13,
    SRC_AHIVIS = 14,
    SRC_HBALLD = 15,
    SRC_UDR = 16,
    SRC_VIDAPP = 17,
    SRC_MUART = 18,
    MAX_SOURCE_APPS = 19,
    SRC_CLIAPP = 20,
    SRC_UNITTEST = 6,
};

// Built from the 22 pairs in the order above; the first pair for 6 wins, so it holds 21 entries.
inline const std::map<SourceAppNames_e, std::string> SOURCE_APP_NAME_MAP = {
    {SRC_ROUTER, "SRC_ROUTER"},
    {SRC_LOGMSG, "SRC_LOGMSG"},
    {SRC_LAUNCHER, "SRC_LAUNCHER"},
    {SRC_EXTINT, "SRC_EXTINT"},
    {SRC_USGMON, "SRC_USGMON"},
    {SRC_PROTOX, "SRC_PROTOX"},
    {SRC_MODMGR, "SRC_MODMGR"},
    {SRC_PARKING_ASSIST, "SRC_PARKING_ASSIST"},
    {SRC_IMAGE_FRAME_CAPTURE, "SRC_IMAGE_FRAME_CAPTURE"},
    {SRC_IMAGE_PROCESSING_UNIT, "SRC_IMAGE_PROCESSING_UNIT"},
    {SRC_VF_SERVER, "SRC_VF_SERVER"},
    {SRC_RADRDR, "SRC_RADRDR"},
    {SRC_AHIFUS, "SRC_AHIFUS"},
    {SRC_LOCALZ, "SRC_LOCALZ"},
    {SRC_AHIVIS, "SRC_AHIVIS"},
    {SRC_HBALLD, "SRC_HBALLD"},
    {SRC_UDR, "SRC_UDR"},
    {SRC_VIDAPP, "SRC_VIDAPP"},
    {SRC_MUART, "SRC_MUART"},
    {MAX_SOURCE_APPS, "MAX_SOURCE_APPS"},
    {SRC_CLIAPP, "SRC_CLIAPP"},
    {SRC_UNITTEST, "SRC_UNITTEST"},
};

enum ApplicationStatus_e : std::uint8_t {
    OFF = 0,
    TIMEOUT = 1,
    INITIALIZING = 2,
    RUNNING = 3,
    TERMINATING = 4,
};

constexpr std::size_t SYSTEM_APP_GUID_STATUS_ENTRIES = 255;
constexpr std::size_t GUID_SIZE = 16;

// Payload of SYSTEM_APP_GUID_STATUS: the state of every application by its short identifier.
struct SystemAppGUIDStatus_t {
    struct Entry {
        char guid[GUID_SIZE];     // NUL-terminated within the 16 bytes
        std::uint8_t status;      // ApplicationStatus_e
        std::uint8_t reserved[3]; // not read
    };
    std::uint32_t count; // valid entries, 0..255
    std::array<Entry, SYSTEM_APP_GUID_STATUS_ENTRIES> entries;
};

static_assert(sizeof(SystemAppGUIDStatus_t::Entry) == 20);
static_assert(sizeof(SystemAppGUIDStatus_t) == 5104);
static_assert(offsetof(SystemAppGUIDStatus_t, entries) == 4);

// The status of every application as the receiving process knows it, indexed by SourceAppNames_e;
// also the payload of SYSTEM_APPLICATION_STATUS.
struct SystemApplicationStatus_t {
    std::array<ApplicationStatus_e, MAX_SOURCE_APPS> applicationStatus;
};

static_assert(sizeof(SystemApplicationStatus_t) == 19);

// UDP ports fixed in this process. Ports are not derived from channel names.
constexpr const char* ROUTER_CHANNEL_NAME = "to_router";
constexpr std::uint16_t ROUTER_UDP_PORT = 50410;
constexpr const char* LAUNCHER_CHANNEL_NAME = "to_launcher";
constexpr std::uint16_t LAUNCHER_UDP_PORT = 50412;
constexpr const char* VIDAPP_CHANNEL_NAME = "to_vidapp";
constexpr std::uint16_t VIDAPP_UDP_PORT = 50427;

// Conversions. Value-to-string functions index a fixed table after one range test; string-to-value
// functions look the string up in a map built on first use. Every failure throws as documented
// beside each; the null results are for named-but-empty slots and come without an error. A null
// name is rejected like an unknown one, its text shown as "(null)". Callable from any thread.

// 1..30; null for 26..30. InvalidMessageIDException 1058 "Invalid messageId: 0x%x".
const char* getMessageIdString(MessageIds_e id);
// The 25 names of 1..25. InvalidMessageIDException 1059 "Invalid messageIdString: %s".
MessageIds_e getMessageId(const char* name);
// 0x80000001..0x80000032. InvalidMessageIDException 1060
// "getInternalMessageIdString(). Invalid messageId: 0x%x".
const char* getInternalMessageIdString(InternalMessageIds_e id);
// The 50 names. InvalidMessageIDException 1061 "Invalid messageIdString: %s".
InternalMessageIds_e getInternalMessageId(const char* name);
// 0..18; null for 16..18. InvalidIPCChannelNameException 1700 "Invalid IPCChannelName: %u".
const char* getIPCChannelNameString(IPCChannelNames_e channel);
// The 17 strings. InvalidIPCChannelNameException 1701 "Invalid IPCChannelNameString: %s".
IPCChannelNames_e getIPCChannelName(const char* name);
// 0..18; null for 8..18 (4, 5 and 7 name the channel strings). InvalidSourceAppNameException 1702
// "Invalid sourceAppName: %u".
const char* getSourceAppNameString(SourceAppNames_e app);
// The 16 names of the map. InvalidSourceAppNameException 1703 "Invalid sourceAppNameString: %s".
SourceAppNames_e getSourceAppName(const char* name);
// 0..18. InvalidIPCChannelNameException 1704 "Invalid IPCChannelName: %u".
SourceAppNames_e getSourceAppNameByIPCChannel(IPCChannelNames_e channel);
// 0..4. InvalidAppStatusException 507 "getApplicationStatusString(): Invalid App Status Enumerator: %u".
const char* getApplicationStatusString(ApplicationStatus_e status);
// The 8 GUIDs. OVRAException 1073 "mapGUIDToSourceAppName(): guid not found: " + guid.
SourceAppNames_e mapGUIDToSourceAppName(const std::string& guid);
// Copies the status of every known GUID into out; unknown GUIDs are logged (and skipped).
void mapSystemAppGUIDStatus(const SystemAppGUIDStatus_t& in, SystemApplicationStatus_t& out);

} // namespace OVRA
