// Calls every exported function that takes text with text that is not UTF-8,
// against the simulator that InvalidTextTest started, in a process that
// InvalidTextTest runs with G_DEBUG=fatal-criticals: a GLib critical ends it.
// Before each call it logs "call NAME" (tag INVALID_TEXT), so that the test
// can tell which call logged what; on standard output one line per call,
// "NAME refused" for the function's failure result, "NAME ACCEPTED"
// otherwise. Exit status 0 when every call was refused.
#include <lumora/lumora-api.h>
#include <lumora/lumora-platform.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

namespace {

const char* const kSubject = "Ctx/\xff/Bad";        // a lone byte of 0xff
const char* const kInput = "{\"a\":\"\xc3\x28\"}";  // a two-byte sequence cut short
const char* const kName = "Lumora.\xe2\x82";        // a three-byte sequence cut short
const char* const kGood = "Ctx/App/Info/Current";
const char* const kRecommended = "{\"group\":\"HomeAppReordering\",\"x\":\"\xff\"}";
const char* const kPublisherName = "org.verdin.tv.lumora2.InvalidText";
const char* const kPublisherPath = "/org/verdin/tv/lumora2/InvalidText";
const char* const kServiceInterface = "org.verdin.tv.lumora.interface2";
const char* const kXml =
    "<node><interface name='org.verdin.tv.lumora2.InvalidText'>"
    "<method name='Echo'><arg type='s' direction='out'/></method>"
    "</interface></node>";

int g_accepted = 0;

void Called(const char* name) { log_print(LUMORA_PRIO_INFO, "INVALID_TEXT", "call %s", name); }

void Report(const char* name, bool refused) {
    printf("%s %s\n", name, refused ? "refused" : "ACCEPTED");
    fflush(stdout);
    if (!refused) ++g_accepted;
}

// call returns whether the function gave its failure result.
void Expect(const char* name, const std::function<bool()>& call) {
    Called(name);
    Report(name, call());
}

bool Refused(char* text) {
    bool refused = text == nullptr;
    free(text);
    return refused;
}

// The documented failure of Lumora_Write and Lumora_WriteRawStreamingEvent.
bool Throws(const std::function<bool()>& call) {
    try {
        call();
    } catch (const std::runtime_error&) {
        return true;
    }
    return false;
}

void Never(const char*, char*, void*) { Report("a callback", false); }

// Runs the default main context until done() or timeoutMs.
bool RunUntil(const std::function<bool()>& done, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        g_usleep(5000);
    }
    return true;
}

// A tuple whose string is not UTF-8. GLib checks nothing in data marked
// trusted, and GDBus aborts on such a string while writing the message: the
// library must look itself. (s) is serialised as the string and its NUL.
GVariant* UntrustworthyTuple() {
    static const char data[] = "ab\xff";
    return g_variant_new_from_data(G_VARIANT_TYPE("(s)"), data, sizeof data, TRUE, nullptr, nullptr);
}

typedef char* (*ReadFn)(const char*);
typedef bool (*RequestFn)(const char*, LumoraSubjectCb, void*);

#define FN(name) \
    { name, #name }

void CallReads() {
    Expect("Lumora_Read subject", [] { return Refused(Lumora_Read(kSubject, nullptr)); });
    Expect("Lumora_Read input", [] { return Refused(Lumora_Read(kGood, kInput)); });
    Expect("CS_Lumora_Read subject", [] { return Refused(CS_Lumora_Read(kSubject, nullptr)); });
    Expect("CS_Lumora_Read input", [] { return Refused(CS_Lumora_Read(kGood, kInput)); });
    static const struct {
        ReadFn fn;
        const char* name;
    } reads[] = {
        FN(Lumora_ReadPrefChannelList),
        FN(Lumora_ReadPrefChannelListByCurrentSource),
        FN(Lumora_ReadPrefChannelListByCurrentSourceMRU),
        FN(Lumora_ReadPrefChannelListWeekTimeTable),
        FN(Lumora_ReadPrefChannelListByServiceProvider),
        FN(Lumora_ReadCurrentBroadcastProgram),
        FN(Lumora_ReadCurrentBroadcastStatus),
        FN(Lumora_ReadSTBStatus),
        FN(Lumora_ReadCurrentSourceInfo),
        FN(Lumora_ReadCurrentAppInfo),
        FN(Lumora_ReadCurrentVolumeLevel),
        FN(Lumora_ReadCurrentSoundOutputStatus),
        FN(Lumora_ReadCurrentSoundOutputMode),
        FN(Lumora_ReadCurrentSourceStatus),
        FN(Lumora_ReadCurrentStreamingStatus),
        FN(Lumora_ReadCurrentBrightnessLevel),
    };
    for (const auto& read : reads) Expect(read.name, [&] { return Refused(read.fn(kInput)); });
}

void CallWrites() {
    Expect("Lumora_Write subject", [] { return Throws([] { return Lumora_Write(kSubject, "{}"); }); });
    Expect("Lumora_Write data", [] { return Throws([] { return Lumora_Write(kGood, kInput); }); });
    Expect("Lumora_WriteRawStreamingEvent",
           [] { return Throws([] { return Lumora_WriteRawStreamingEvent(kInput); }); });
    Expect("Lumora_WriteSelectedItem", [] { return !Lumora_WriteSelectedItem(kInput); });
    Expect("CS_Lumora_Write subject", [] { return !CS_Lumora_Write(kSubject, "{}"); });
    Expect("CS_Lumora_Write data", [] { return !CS_Lumora_Write(kGood, kInput); });
}

void CallRequests() {
    Expect("Lumora_Request subject", [] { return !Lumora_Request(kSubject, nullptr, Never, nullptr); });
    Expect("Lumora_Request input", [] { return !Lumora_Request(kGood, kInput, Never, nullptr); });
    Expect("CS_Lumora_Request subject", [] { return !CS_Lumora_Request(kSubject, nullptr, Never, nullptr); });
    Expect("CS_Lumora_Request input", [] { return !CS_Lumora_Request(kGood, kInput, Never, nullptr); });
    static const struct {
        RequestFn fn;
        const char* name;
    } requests[] = {
        FN(Lumora_RequestPrefChannelList),
        FN(Lumora_RequestPrefChannelListByCurrentSource),
        FN(Lumora_RequestPrefChannelListByCurrentSourceMRU),
        FN(Lumora_RequestPrefChannelListWeekTimeTable),
        FN(Lumora_RequestPrefChannelListByServiceProvider),
        FN(Lumora_RequestCurrentBroadcastProgram),
        FN(Lumora_RequestCurrentBroadcastStatus),
        FN(Lumora_RequestSTBStatus),
        FN(Lumora_RequestCurrentSourceInfo),
        FN(Lumora_RequestCurrentAppInfo),
        FN(Lumora_RequestCurrentVolumeLevel),
        FN(Lumora_RequestCurrentSoundOutputStatus),
        FN(Lumora_RequestCurrentSoundOutputMode),
        FN(Lumora_RequestCurrentSourceStatus),
        FN(Lumora_RequestCurrentStreamingStatus),
        FN(Lumora_RequestCurrentBrightnessLevel),
        FN(Lumora_RequestStatisticApp),
        FN(Lumora_RequestWeatherInfo),
    };
    for (const auto& request : requests) Expect(request.name, [&] { return !request.fn(kInput, Never, nullptr); });
}

void CallSubscriptions() {
    Expect("Lumora_Subscribe", [] { return !Lumora_Subscribe(kSubject, Never, nullptr); });
    Expect("Lumora_Unsubscribe", [] { return !Lumora_Unsubscribe(kSubject, Never, nullptr); });
    Expect("Lumora_SubscribeWithValue", [] { return !Lumora_SubscribeWithValue(kSubject, Never, nullptr); });
    Expect("CS_Lumora_Subscribe", [] { return !CS_Lumora_Subscribe(kSubject, Never, nullptr); });
    Expect("CS_Lumora_Unsubscribe", [] { return !CS_Lumora_Unsubscribe(kSubject, Never, nullptr); });
    Expect("Lumora_SubscribeBrightnessLevelEx",
           [] { return !Lumora_SubscribeBrightnessLevelEx(Never, kName, nullptr); });
    Expect("Lumora_UnsubscribeBrightnessLevelEx",
           [] { return !Lumora_UnsubscribeBrightnessLevelEx(Never, kName, nullptr); });
}

// The recommended list answers "{error}" for a json it cannot use.
bool ErrorText(char* text) {
    bool refused = text != nullptr && strcmp(text, "{error}") == 0;
    free(text);
    return refused;
}

void CallListsChannelsAndActions() {
    Expect("Lumora_ReadRecommendedList", [] { return ErrorText(Lumora_ReadRecommendedList(kRecommended)); });
    Expect("CS_Lumora_ReadRecommendedList", [] { return ErrorText(CS_Lumora_ReadRecommendedList(kRecommended)); });
    Expect("Lumora_ReadHintList requester", [] { return Refused(Lumora_ReadHintList(kName, "source")); });
    Expect("Lumora_ReadHintList type", [] { return Refused(Lumora_ReadHintList("app", kName)); });
    Expect("CS_Lumora_ReadHintList requester", [] { return Refused(CS_Lumora_ReadHintList(kName, "source")); });
    Expect("CS_Lumora_ReadHintList type", [] { return Refused(CS_Lumora_ReadHintList("app", kName)); });
    Expect("Lumora_STAction uri", [] { return !Lumora_STAction(kName, "{}"); });
    Expect("Lumora_STAction data", [] { return !Lumora_STAction("app://guide", kInput); });
    Expect("Lumora_WriteItemList", [] { return !Lumora_WriteItemList("{\"group\":\"\xff\",\"list\":[]}"); });
    Expect("CS_WriteItemList", [] { return !CS_WriteItemList("{\"group\":\"\xff\",\"list\":[]}"); });
    Expect("CS_ReorderChannelList",
           [] { return Refused(CS_ReorderChannelList("[{\"major\":9,\"minor\":1,\"name\":\"\xff\"}]", 0)); });
    Expect("CS_RemoveChannelFromListWithServiceID",
           [] { return !CS_RemoveChannelFromListWithServiceID(9, 1, kName, LMF_SRC_EXT_AIR); });
    Expect("CS_SetFirstscreenAction componentId", [] { return !CS_SetFirstscreenAction(kName, "{}"); });
    Expect("CS_SetFirstscreenAction jsonData", [] { return !CS_SetFirstscreenAction("home", kInput); });
}

void CallDipcStart() {
    LumoraDIPCCallbacks none = {nullptr, nullptr, nullptr, nullptr};
    Expect("Lumora_DIPC_Start processName", [&] {
        return Lumora_DIPC_Start("lumora-service\xff", 1, kPublisherName, kPublisherPath, kXml, nullptr, none) ==
               nullptr;
    });
    Expect("Lumora_DIPC_Start busName", [&] {
        return Lumora_DIPC_Start("lumora-service-test", 1, kName, kPublisherPath, kXml, nullptr, none) == nullptr;
    });
    Expect("Lumora_DIPC_Start objectPath", [&] {
        return Lumora_DIPC_Start("lumora-service-test", 1, kPublisherName, "/org/\xff", kXml, nullptr, none) == nullptr;
    });
    Expect("Lumora_DIPC_Start introspectionXml", [&] {
        return Lumora_DIPC_Start("lumora-service-test", 1, kPublisherName, kPublisherPath,
                                 "<node><interface name='a.\xff'/></node>", nullptr, none) == nullptr;
    });
}

// The publisher's method answers with a reply that is not UTF-8; the caller
// must hear an error.
void OnEcho(const char*, const char*, const char*, const char*, GVariant*, GDBusMethodInvocation* invocation, void*) {
    Lumora_DIPC_SendData(invocation, UntrustworthyTuple());
}

void OnNameAcquired(const char*, void* acquired) { *static_cast<bool*>(acquired) = true; }

struct EchoCall {
    bool done = false;
    bool failed = false;
};

void OnEchoAnswer(GObject* connection, GAsyncResult* result, gpointer data) {
    auto* call = static_cast<EchoCall*>(data);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);
    call->failed = reply == nullptr;
    if (reply != nullptr) g_variant_unref(reply);
    if (error != nullptr) g_error_free(error);
    call->done = true;
}

bool SendDataIsRefused(GDBusConnection* caller) {
    EchoCall call;
    g_dbus_connection_call(caller, kPublisherName, kPublisherPath, "org.verdin.tv.lumora2.InvalidText", "Echo", nullptr,
                           nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, OnEchoAnswer, &call);
    return RunUntil([&] { return call.done; }, 10000) && call.failed;
}

int CallDipcOnAStartedPublisher() {
    bool acquired = false;
    LumoraDIPCCallbacks callbacks = {nullptr, nullptr, OnNameAcquired, OnEcho};
    Called("setup");
    LumoraDIPCHandle* handle =
        Lumora_DIPC_Start("lumora-service-test", 1, kPublisherName, kPublisherPath, kXml, &acquired, callbacks);
    if (handle == nullptr || !RunUntil([&] { return acquired; }, 10000)) {
        fprintf(stderr, "the publisher did not start\n");
        return 1;
    }
    Expect("Lumora_DIPC_Publish destination", [&] {
        return !Lumora_DIPC_Publish(handle, kName, g_variant_new("(s)", "x"), kServiceInterface, "Response");
    });
    Expect("Lumora_DIPC_Publish interfaceName",
           [&] { return !Lumora_DIPC_Publish(handle, nullptr, g_variant_new("(s)", "x"), "org.\xff", "Response"); });
    Expect("Lumora_DIPC_Publish signalName", [&] {
        return !Lumora_DIPC_Publish(handle, nullptr, g_variant_new("(s)", "x"), kServiceInterface, "Resp\xc3");
    });
    Expect("Lumora_DIPC_Publish parameters",
           [&] { return !Lumora_DIPC_Publish(handle, nullptr, UntrustworthyTuple(), kServiceInterface, "Response"); });
    GDBusConnection* caller = g_dbus_connection_new_for_address_sync(
        getenv("DBUS_SYSTEM_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    if (caller == nullptr) return 1;
    Expect("Lumora_DIPC_SendData", [&] { return SendDataIsRefused(caller); });
    g_object_unref(caller);
    Called("teardown");
    Lumora_DIPC_Stop(&handle);
    return 0;
}

}  // namespace

int main() {
    if (!Lumora_InitService() || !LMFServiceAPI::IsAvailable()) {
        fprintf(stderr, "the service is not available\n");
        return 1;
    }
    CallReads();
    CallWrites();
    CallRequests();
    CallSubscriptions();
    CallListsChannelsAndActions();
    CallDipcStart();
    if (CallDipcOnAStartedPublisher() != 0) return 1;
    // Anything queued by mistake would leave with the last stop's flush.
    Called("stop");
    Lumora_FiniService();
    // A request sent by mistake would be answered by now.
    RunUntil([] { return false; }, 300);
    return g_accepted == 0 ? 0 : 1;
}
