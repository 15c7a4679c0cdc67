// The contract between the library and the context service: bus, names,
// methods, signal, request types, time-outs and tuple layouts. The client and
// the simulator both speak exactly this; nothing else invents a message.
#ifndef LUMORA_INTERNAL_SERVICECONTRACT_H
#define LUMORA_INTERNAL_SERVICECONTRACT_H

#include <gio/gio.h>

namespace lumora::contract {

// Addressing. The client opens a private connection to the system bus.
constexpr GBusType kBusType = G_BUS_TYPE_SYSTEM;
constexpr const char* kBusName = "org.verdin.tv.lumora2";
constexpr const char* kObjectPath = "/org/verdin/tv/lumora2";
constexpr const char* kInterface = "org.verdin.tv.lumora.interface2";
// AUTHENTICATION_CLIENT | MESSAGE_BUS_CONNECTION (= 9).
constexpr GDBusConnectionFlags kConnectionFlags = static_cast<GDBusConnectionFlags>(
    G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);

// Methods of the service.
constexpr const char* kMethodServiceEnable = "ServiceEnable";
constexpr const char* kMethodRequestSync = "RequestSync";
constexpr const char* kMethodRequestAsync = "RequestAsync";
constexpr const char* kMethodWrite = "Write";

// The one signal, and the control words it may carry instead of a subject.
constexpr const char* kSignalResponse = "Response";
constexpr const char* kHello = "HELLO";
constexpr const char* kBye = "BYE";

// Request types: the second field of every request tuple.
enum RequestType : int {
    kRequestRead = 1,         // "RequestSync"
    kRequestWrite = 2,        // "Write"
    kRequestSubscribe = 3,    // "RequestSync", input "{}"
    kRequestUnsubscribe = 4,  // "RequestSync", input "{}"
    kRequestAsync = 5,        // "RequestAsync"
};

// Input of subscribe and unsubscribe; also the no-data answer of a read.
constexpr const char* kEmptyJson = "{}";

// What a request's callback gets when its answer failed.
constexpr const char* kErrorJson = "{\"Status\":\"Error\"}";

// Time-outs in milliseconds (-1: GIO's default).
constexpr int kServiceEnableTimeoutMs = 300;
constexpr int kRequestSyncTimeoutMs = 1000;
constexpr int kDefaultTimeoutMs = -1;

// Tuple signatures.
constexpr const char* kRequestTuple = "(iiiss)";     // pid, type, id, subject, input
constexpr const char* kServiceEnableReply = "(bs)";  // enabled, whitelist JSON
constexpr const char* kRequestSyncReply = "(is)";    // result code, output text
constexpr const char* kRequestAsyncReply = "(isv)";  // result code, subject, typed payload
constexpr const char* kResponseSignal = "(iss)";     // unused int, subject, data
constexpr const char* kTextPayload = "(s)";          // payload of a non-statistics reply

// Statistics subjects and the array signature of their "RequestAsync" payload.
struct StatisticsKind {
    const char* subject;
    const char* arraySignature;
};
constexpr StatisticsKind kStatisticsKinds[] = {
    {"I/TallyDB/Onoff/Duration", "a(uu)"},
    {"I/TallyDB/App/Duration", "a(uusssi)"},
    {"I/TallyDB/Channel/Duration", "a(uuiisss)"},
    {"I/TallyDB/Genre/Duration", "a(uuss)"},
    {"I/TallyDB/Content/Duration", "a(uusssssiiss)"},
};

// Created by the service when it has started; the client only tests it.
constexpr const char* kReadyMarkerFile = "/tmp/lmf_service_ready";

// The process that the whitelist always admits.
constexpr const char* kAgentProcessName = "lumora-agent";

// The channel and broadcast subjects, and the action subjects, that the
// library names itself.
namespace subjects {
constexpr const char* kChannelList = "Pref/Channel/List";
constexpr const char* kChannelListCurrent = "Pref/Channel/List/Current";
constexpr const char* kChannelReorder = "Pref/Channel/List/Reorder";
constexpr const char* kChannelRemove = "Pref/Channel/Remove";
constexpr const char* kChannelRemoveWithServiceId = "Pref/Channel/RemoveWithServiceID";
constexpr const char* kProgramCurrent = "Ctx/Media/Broadcast/Program/Current";
constexpr const char* kProgramChanged = "Ctx/Media/Broadcast/Program/Changed";
constexpr const char* kStbStatus = "Ctx/Media/Broadcast/Status/STB";
constexpr const char* kFirstscreenAction = "Raw/Firstscreen/Action";
constexpr const char* kVoiceRuleId = "Raw/Voice/Orvi/SetAction";
constexpr const char* kVoiceAction = "Raw/Voice/Parlo/SetAction";
}  // namespace subjects

}  // namespace lumora::contract

#endif  // LUMORA_INTERNAL_SERVICECONTRACT_H
