#include "communication/OVRACommunicationUtils.h"

#include <cstring>

#include "common/OVRAException.h"
#include "log/OVRALogImplementPrintf.h"

namespace OVRA {

namespace {

// Value-to-string tables: one range test, then index. A null slot is a valid value without a name.
constexpr std::array<const char*, 32> MESSAGE_ID_STRINGS = {
    "",
    "FUSED_TRACK_DATA",
    "DYNAMIC_VEHICLE_INFO",
    "SPP_FEATURE_RESULTS",
    "MOBILEYE_FUSION_DATA",
    "ENHANCED_TARGET_SELECTION_DATA",
    "MOBILEYE_LANE_DATA",
    "CAN_SIGNAL_DATA",
    "RADAR_RETURN_FRONT_LEFT_DATA",
    "RADAR_RETURN_FRONT_RIGHT_DATA",
    "RADAR_RETURN_REAR_LEFT_DATA",
    "RADAR_RETURN_REAR_RIGHT_DATA",
    "RADAR_RETURN_FRONT_CENTER_DATA",
    "AHITCH_FUSION_INPUT_DATA",
    "AHITCH_FUSION_FEATURE_RESULTS",
    "VEHICLE_CONFIGURATION_DATA",
    "CAMERA_SUPPORT_DATA",
    "TAD_FEATURE_RESULTS",
    "MPL_PREVIEWER_FEATURE_RESULTS",
    "LOCALIZATION_FEATURE_RESULTS",
    "VIRTUAL_SENSOR_RESULTS",
    "MPL_INPUTS",
    "SLOT_MANAGER_FEATURE_RESULTS",
    "FUSION_FEATURE_MAPPER_RESULTS",
    "LANE_LEVEL_ATTRIBUTES",
    "REMOTE_PARK_AID_INPUTS",
    // 26..31: no names.
};

constexpr std::array<const char*, NUMBER_OF_INTERNAL_MESSAGE_IDS> INTERNAL_MESSAGE_ID_STRINGS = {
    "",
    "POSE_DATA",
    "PARKING_TRAILER_DETECTION",
    "SYSTEM_MODE_MESSAGE",
    "SYSTEM_APPLICATION_STATUS",
    "IMAGE_SERVER_DATA",
    "UNUSED_1",
    "UNUSED_2",
    "IMAGE_FRAME_READY",
    "ENHANCED_FUSED_TRACK_DATA",
    "ENHANCED_RADAR_RETURN_FRONT_LEFT_DATA",
    "ENHANCED_RADAR_RETURN_FRONT_RIGHT_DATA",
    "ENHANCED_RADAR_RETURN_REAR_LEFT_DATA",
    "ENHANCED_RADAR_RETURN_REAR_RIGHT_DATA",
    "ENHANCED_RADAR_RETURN_FRONT_CENTER_DATA",
    "RADAR_ODOMETRY_DATA",
    "VEHICLE_STATE_DATA",
    "AUTOHITCH_VISION_RESULTS",
    "CV_TAD_FEATURE_RESULTS",
    "DEEP_TAD_FEATURE_RESULTS",
    "HITCH_BALL_DETECTION_RESULTS",
    "AUTOHITCH_FUSION_RESULTS",
    "YAW_RATE_TAD_FEATURE_RESULTS",
    "DTC_ERROR_STATUS",
    "MODE_MANAGER_ACK",
    "UNUSED_3",
    "TAD_HITCH_BALL_LEARNING_RESULTS",
    "SET_MESSAGE_TIMING_MONITOR",
    "VIDEO_CONSUMER_REGISTER",
    "VIDEO_INTERFACE_REGISTER_AGAIN",
    "SPP_FEATURE_TO_OUTER_LANE_DETECTION",
    "UNUSED_4",
    "TAD_HBL_FEATURE_RESULTS",
    "UNUSED_5",
    "UNUSED_6",
    "VIDEO_INTERFACE_OPERATION_MODE_UPDATE",
    "MPL_FEATURE_TO_SPP",
    "APPLICATION_CONTROL",
    "SET_HEARTBEAT_STATUS",
    "STOP_HEARTBEAT_STATUS",
    "REDISCOVER_APPLICATIONS",
    "PRINT_RUNNING_APPS",
    "SHUTDOWN_LAUNCHER",
    "APPLICATION_READY",
    "APPLICATION_STOPPED",
    "LOG_CPU_USAGE",
    "APP_GUID_STATUS",
    "SYSTEM_APP_GUID_STATUS",
    "VIDEO_CONSUMER_GUID_REGISTER",
    "DATACOMM_ERROR_STATUS",
    "SUBSCRIBER_SHUTDOWN",
};

constexpr std::array<const char*, NUMBER_OF_IPC_CHANNELS> IPC_CHANNEL_NAME_STRINGS = {
    "to_router",      "to_logmsg", "to_launcher", "to_extint",  "to_usgmon", "to_modmgr", "to_protox", "to_parkas",
    "to_imagefrmcpt", "to_ipunit", "to_vfserv",   "to_radradr", "to_auhfus", "to_localz", "to_ahivis", "to_hballd",
    // 16..18: no channel string in this direction.
};

// 4, 5 and 7 hold channel strings, not source names: other processes' log lines carry these texts.
constexpr std::array<const char*, 20> SOURCE_APP_NAME_STRINGS = {
    "SRC_ROUTER", "SRC_LOGMSG", "SRC_LAUNCHER", "SRC_EXTINT", "to_usgmon", "to_modmgr", "SRC_PROTOX", "to_parkas",
};

// Only the first eight channels belong to a source application of the same value; the rest name the router.
constexpr std::array<SourceAppNames_e, NUMBER_OF_IPC_CHANNELS> IPC_CHANNELS_TO_SOURCE_APP_NAMES_MAP = {
    SRC_ROUTER,         SRC_LOGMSG, SRC_LAUNCHER, SRC_EXTINT, SRC_USGMON, SRC_MODMGR, SRC_PROTOX,
    SRC_PARKING_ASSIST, SRC_ROUTER, SRC_ROUTER,   SRC_ROUTER, SRC_ROUTER, SRC_ROUTER, SRC_ROUTER,
    SRC_ROUTER,         SRC_ROUTER, SRC_ROUTER,   SRC_ROUTER, SRC_ROUTER,
};

constexpr std::array<const char*, 5> APPLICATION_STATUS_STRINGS = {"OFF", "TIMEOUT", "INITIALIZING", "RUNNING",
                                                                   "TERMINATING"};

constexpr std::uint32_t LAST_NAMED_SOURCE_APP = 18;

// A null name is rejected like an unknown one; the text shows what printf shows for it.
const char* printable(const char* name) {
    return name != nullptr ? name : "(null)";
}

template <typename Value> const Value* find(const std::map<std::string, Value>& map, const char* name) {
    if (name == nullptr) {
        return nullptr;
    }
    const auto found = map.find(name);
    return found != map.end() ? &found->second : nullptr;
}

const std::map<std::string, MessageIds_e>& messageIdsMap() {
    static const std::map<std::string, MessageIds_e> map = [] {
        std::map<std::string, MessageIds_e> built;
        for (std::uint32_t id = FUSED_TRACK_DATA; id <= REMOTE_PARK_AID_INPUTS; ++id) {
            built.emplace(MESSAGE_ID_STRINGS[id], static_cast<MessageIds_e>(id));
        }
        return built;
    }();
    return map;
}

const std::map<std::string, InternalMessageIds_e>& internalMessageIdsMap() {
    static const std::map<std::string, InternalMessageIds_e> map = [] {
        std::map<std::string, InternalMessageIds_e> built;
        for (std::uint32_t n = 1; n < NUMBER_OF_INTERNAL_MESSAGE_IDS; ++n) {
            built.emplace(INTERNAL_MESSAGE_ID_STRINGS[n], static_cast<InternalMessageIds_e>(INTERNAL_MESSAGE_FLAG + n));
        }
        return built;
    }();
    return map;
}

const std::map<std::string, IPCChannelNames_e>& ipcChannelNamesMap() {
    static const std::map<std::string, IPCChannelNames_e> map = {
        {"to_router", TO_ROUTER}, {"to_logmsg", TO_LOGMSG}, {"to_launcher", TO_LAUNCHER},
        {"to_extint", TO_EXTINT}, {"to_usgmon", TO_USGMON}, {"to_modmgr", TO_MODMGR},
        {"to_protox", TO_PROTOX}, {"to_parkas", TO_PARKAS}, {"to_imagefrmcpt", TO_IMAGEFRMCPT},
        {"to_ipunit", TO_IPUNIT}, {"to_vfserv", TO_VFSERV}, {"to_radradr", TO_RADRADR},
        {"to_auhfus", TO_AUHFUS}, {"to_localz", TO_LOCALZ}, {"to_ahivis", TO_AHIVIS},
        {"to_hballd", TO_HBALLD}, {"to_udr", TO_UDR},
    };
    return map;
}

const std::map<std::string, SourceAppNames_e>& sourceAppNamesMap() {
    static const std::map<std::string, SourceAppNames_e> map = {
        {"SRC_ROUTER", SRC_ROUTER},
        {"SRC_LOGMSG", SRC_LOGMSG},
        {"SRC_LAUNCHER", SRC_LAUNCHER},
        {"SRC_EXTINT", SRC_EXTINT},
        {"SRC_USGMON", SRC_USGMON},
        {"SRC_MODMGR", SRC_MODMGR},
        {"SRC_PARKING_ASSIST", SRC_PARKING_ASSIST},
        {"SRC_IMAGE_FRAME_CAPTURE", SRC_IMAGE_FRAME_CAPTURE},
        {"SRC_IMAGE_PROCESSING_UNIT", SRC_IMAGE_PROCESSING_UNIT},
        {"SRC_VF_SERVER", SRC_VF_SERVER},
        {"SRC_RADRDR", SRC_RADRDR},
        {"SRC_AHIFUS", SRC_AHIFUS},
        {"SRC_UDR", SRC_UDR},
        {"SRC_LOCALZ", SRC_LOCALZ},
        {"SRC_AHIVIS", SRC_AHIVIS},
        {"SRC_HBALLD", SRC_HBALLD},
    };
    return map;
}

const std::map<std::string, SourceAppNames_e>& guidToSourceAppNameTable() {
    static const std::map<std::string, SourceAppNames_e> map = {
        {"router", SRC_ROUTER}, {"logmsg", SRC_LOGMSG}, {"launch", SRC_LAUNCHER}, {"extint", SRC_EXTINT},
        {"usgmon", SRC_USGMON}, {"modmgr", SRC_MODMGR}, {"protox", SRC_PROTOX},   {"utguid", SRC_PROTOX},
    };
    return map;
}

} // namespace

const char* getMessageIdString(MessageIds_e id) {
    if (id < FIRST_HOST_MESSAGE_ID || id > LAST_HOST_MESSAGE_ID) {
        throw InvalidMessageIDException(1058, formatExceptionText("Invalid messageId: 0x%x", id).text);
    }
    return MESSAGE_ID_STRINGS[id];
}

MessageIds_e getMessageId(const char* name) {
    if (const auto* id = find(messageIdsMap(), name)) {
        return *id;
    }
    throw InvalidMessageIDException(1059, std::string(printable(name)));
}

const char* getInternalMessageIdString(InternalMessageIds_e id) {
    if (id < FIRST_INTERNAL_MESSAGE_ID || id > LAST_INTERNAL_MESSAGE_ID) {
        throw InvalidMessageIDException(1060, "getInternalMessageIdString()", id);
    }
    return INTERNAL_MESSAGE_ID_STRINGS[id - INTERNAL_MESSAGE_FLAG];
}

InternalMessageIds_e getInternalMessageId(const char* name) {
    if (const auto* id = find(internalMessageIdsMap(), name)) {
        return *id;
    }
    throw InvalidMessageIDException(1061, std::string(printable(name)));
}

const char* getIPCChannelNameString(IPCChannelNames_e channel) {
    if (channel >= NUMBER_OF_IPC_CHANNELS) {
        throw InvalidIPCChannelNameException(1700, static_cast<std::uint32_t>(channel));
    }
    return IPC_CHANNEL_NAME_STRINGS[channel];
}

IPCChannelNames_e getIPCChannelName(const char* name) {
    if (const auto* channel = find(ipcChannelNamesMap(), name)) {
        return *channel;
    }
    throw InvalidIPCChannelNameException(1701,
                                         formatExceptionText("Invalid IPCChannelNameString: %s", printable(name)).text);
}

const char* getSourceAppNameString(SourceAppNames_e app) {
    if (app > LAST_NAMED_SOURCE_APP) {
        throw InvalidSourceAppNameException(
            1702, formatExceptionText("Invalid sourceAppName: %u", static_cast<unsigned>(app)).text);
    }
    return SOURCE_APP_NAME_STRINGS[app];
}

SourceAppNames_e getSourceAppName(const char* name) {
    if (const auto* app = find(sourceAppNamesMap(), name)) {
        return *app;
    }
    throw InvalidSourceAppNameException(1703,
                                        formatExceptionText("Invalid sourceAppNameString: %s", printable(name)).text);
}

SourceAppNames_e getSourceAppNameByIPCChannel(IPCChannelNames_e channel) {
    if (channel >= NUMBER_OF_IPC_CHANNELS) {
        throw InvalidIPCChannelNameException(1704, static_cast<std::uint32_t>(channel));
    }
    return IPC_CHANNELS_TO_SOURCE_APP_NAMES_MAP[channel];
}

const char* getApplicationStatusString(ApplicationStatus_e status) {
    if (status >= APPLICATION_STATUS_STRINGS.size()) {
        throw InvalidAppStatusException(
            507, formatExceptionText("getApplicationStatusString(): Invalid App Status Enumerator: %u",
                                     static_cast<unsigned>(status))
                     .text);
    }
    return APPLICATION_STATUS_STRINGS[status];
}

SourceAppNames_e mapGUIDToSourceAppName(const std::string& guid) {
    const auto& table = guidToSourceAppNameTable();
    const auto found = table.find(guid);
    if (found == table.end()) {
        throw OVRAException(1073,
                            formatExceptionText("mapGUIDToSourceAppName(): guid not found: %s", guid.c_str()).text);
    }
    return found->second;
}

void mapSystemAppGUIDStatus(const SystemAppGUIDStatus_t& in, SystemApplicationStatus_t& out) {
    for (std::uint32_t i = 0; i < in.count; ++i) {
        // A count above 255 runs into the bounds check and ends the whole mapping.
        const auto& entry = in.entries.at(i);
        // A GUID that fills all 16 bytes without a NUL is taken whole rather than read past the entry.
        const std::string guid(entry.guid, strnlen(entry.guid, sizeof entry.guid));
        try {
            out.applicationStatus.at(mapGUIDToSourceAppName(guid)) = static_cast<ApplicationStatus_e>(entry.status);
        } catch (const OVRAException& e) {
            ovraLogImplementErrorPrintf(e.getCode(), "mapSystemAppGUIDStatus(): exception: %s", e.what());
        }
    }
}

} // namespace OVRA
