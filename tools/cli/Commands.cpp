// lumora: the commands.
#include <gio/gio.h>
#include <lumora/lumora-api.h>
#include <lumora/lumora-platform.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "Cli.h"

namespace lumora::cli {

namespace {

using Args = std::vector<std::string>;

struct FreeDeleter {
    void operator()(char* text) const { free(text); }
};
using OwnedText = std::unique_ptr<char, FreeDeleter>;

int RunRead(const Options& options, const Args& args) {
    const std::string& subject = args[0];
    const char* input = args.size() > 1 ? args[1].c_str() : nullptr;
    if (!StartService()) return kFailed;
    // The same rule as every read of the library: internal subjects only for
    // processes on the service's whitelist.
    if (!MayUseSubject(subject)) {
        StopService();
        return kFailed;
    }
    char* text = nullptr;
    int code = LMFServiceAPI::m_pDbusClient->Read(subject.c_str(), input, &text);
    OwnedText value(text);
    // No stop here: a read leaves nothing queued, and the last stop's flush
    // would start a GIO worker thread only to find that out (about 0.2 ms of
    // a one-shot read). The process exits next, and the bus drops its match
    // rule with the connection.
    if (code != 0 || !value) return Fail(ReadFailure(subject, code));
    PrintValue(options, value.get());
    return kOk;
}

int RunWrite(const Options&, const Args& args) {
    if (!StartService()) return kFailed;
    bool queued = CS_Lumora_Write(args[0].c_str(), args[1].c_str());
    StopService();
    return queued ? kOk : Fail("the write to " + args[0] + " was not sent");
}

int RunSettings(const Options& options, const Args& args) {
    const std::string& action = args[0];
    if (action == "get" && args.size() == 2) {
        OwnedText value(settings_get_str(args[1].c_str()));
        if (!value) return Fail(args[1] + " is not set");
        PrintValue(options, value.get());
        return kOk;
    }
    if (action == "set" && args.size() == 3) {
        if (settings_set_str(args[1].c_str(), args[2].c_str()) != 0) return Fail("cannot store " + args[1]);
        return kOk;
    }
    fprintf(stderr, "usage: lumora settings get KEY | lumora settings set KEY VALUE\n");
    return kUsage;
}

int RunHints(const Options& options, const Args& args) {
    OwnedText value(Lumora_ReadHintList("lumora", args[0].c_str()));
    if (!value) return Fail("no hint list for " + args[0]);
    PrintValue(options, value.get());
    return kOk;
}

int RunStatus(const Options&, const Args&) {
    bool enabled = Is_LMFSupported();
    printf("feature switch: %s\n", enabled ? "enabled" : "disabled");
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    LMF_INIT_RESULT result = Lumora_InitServiceWithResponse(nullptr, nullptr);
    printf("bus: %s (%s)\n", result == LMF_INIT_CONNECTION_FAILED ? "unreachable" : "connected",
           address != nullptr ? address : "no address");
    g_free(address);
    const char* service = "available";
    if (result == LMF_INIT_CONNECTION_FAILED) service = "unknown";
    if (result == LMF_INIT_SERVICE_NOT_READY)
        service = access("/tmp/lmf_service_ready", F_OK) == 0 ? "not enabled" : "not started";
    printf("service: %s\n", service);
    bool granted = LMFServiceAPI::m_pDbusClient != nullptr && LMFServiceAPI::m_pDbusClient->CheckWhiteListProcess();
    printf("whitelist: %s for %s\n", granted ? "granted" : "denied", LMFServiceAPI::_GetProcessName());
    StopService();
    return (enabled && result == LMF_INIT_OK) ? kOk : kFailed;
}

}  // namespace

std::string ReadFailure(const std::string& subject, int code) {
    switch (code) {
        case -3:
            return "no subject given";
        case -4:
            return "the service has no data for " + subject;
        case -5:
            return "the context service is not available (code -5)";
        case -6:
            return "the call to the context service failed or timed out";
        case 0:
            return "the service sent no value for " + subject;
        default:
            return "the service answered " + subject + " with code " + std::to_string(code);
    }
}

const std::vector<Command>& Commands() {
    static const std::vector<Command> commands = {
        {"read", "SUBJECT [INPUT]", "print a subject's current value",
         "Reads SUBJECT from the context service, sending INPUT (a JSON text) when\n"
         "given, and prints the value. Fails when the service has no value.\n"
         "Example: lumora read Ctx/Media/Source/Info/Current",
         1, 2, kNoOptions, RunRead},
        {"write", "SUBJECT DATA", "send a value to a subject",
         "Writes DATA to SUBJECT. The write is queued, not acknowledged.\n"
         "Example: lumora write Raw/Setting/Selected/Item '{\"item\":\"Picture\"}'",
         2, 2, kNoOptions, RunWrite},
        {"settings", "get KEY | set KEY VALUE", "read or write the settings store",
         "Reads or writes one key of the platform settings store\n"
         "($LUMORA_SETTINGS_DB, else $XDG_STATE_HOME/lumora/settings.db).\n"
         "Example: lumora settings get db/lumora-service/itemlist",
         2, 3, kNoOptions, RunSettings},
        {"hints", "TYPE", "print a hint list from the settings store",
         "Prints the hint list of TYPE (source, setting, channel; any other type\n"
         "reads the general list) that the context service left in the settings store.",
         1, 1, kNoOptions, RunHints},
        {"status", "", "show whether the context service can be used",
         "Shows the feature switch, the bus, the service's availability and the\n"
         "whitelist decision for this process. Exits 0 when the service is available.",
         0, 0, kNoOptions, RunStatus},
        {"request", "[--timeout SECONDS] SUBJECT [INPUT]", "ask for a subject's value without blocking",
         "Asks for SUBJECT's value the way applications do, without blocking\n"
         "(sending INPUT, a JSON text, when given), and prints the answer. The five\n"
         "I/TallyDB/.../Duration subjects are answered with records, printed as by\n"
         "\"lumora stats\". Fails when the service answers with an error (also when the\n"
         "bus gives up after 25 s), or when there is no answer within --timeout\n"
         "SECONDS (default 30).\n"
         "Example: lumora request Ctx/App/Info/Current",
         1, 2, kTimeoutOption, RunRequest},
        {"subscribe", "[--initial] SUBJECT...", "print each change of subjects as a JSON line",
         "Subscribes to every SUBJECT and prints one line per change notification,\n"
         "{\"subject\":\"...\",\"data\":...}, with data as JSON when the text is JSON and\n"
         "as a JSON string otherwise. Runs until SIGINT or SIGTERM, then unsubscribes\n"
         "and exits 0; a restart of the service is followed. With --initial, prints\n"
         "each subject's current value first, in the same form, and again whenever\n"
         "the service has restarted (a subject without a value gets a note on stderr).\n"
         "Example: lumora subscribe --initial Ctx/Media/Broadcast/Program/Changed Ctx/App/Info/Changed",
         1, SIZE_MAX, kInitialOption, RunSubscribe},
        {"stats", "[--timeout SECONDS] KIND [INPUT]", "print usage statistics as JSON records",
         "Requests the usage statistics of KIND (onoff, app, channel, genre or content,\n"
         "the subject I/TallyDB/<Kind>/Duration) and prints the records as a JSON array\n"
         "of objects with the field names of the library's records (field1, field2,\n"
         "..., in the order of <lumora/lumora-c.h>). Fails as \"lumora request\" does;\n"
         "the process must be on the service's whitelist.\n"
         "Example: lumora --pretty stats app",
         1, 2, kTimeoutOption, RunStats},
    };
    return commands;
}

}  // namespace lumora::cli
