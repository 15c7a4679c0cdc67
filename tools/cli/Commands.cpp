// lumora: the commands.
#include <lumora/lumora-api.h>
#include <lumora/lumora-platform.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "Cli.h"
#ifdef LUMORA_PLATFORM_SETTINGS_STATUS
#include "SettingsStatus.h"
#endif

namespace lumora::cli {

namespace {

using Args = std::vector<std::string>;

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
    std::string data;
    if (!ValueArgument(args[1], "DATA", data)) return kFailed;
    if (!StartService()) return kFailed;
    bool queued = CS_Lumora_Write(args[0].c_str(), data.c_str());
    StopService();
    return queued ? kOk : Fail("the write to " + args[0] + " was not sent");
}

// Why the settings store left a value out, after a read or write of this
// thread that did not succeed: empty when the store answered (the key is not
// set), else the store's own one-line reason. The television's platform
// libraries cannot tell; there the answer is always empty.
struct StoreProblem {
    bool failed = false;  // the store could not be used at all
    std::string reason;
};

StoreProblem LastStoreProblem() {
    StoreProblem problem;
#ifdef LUMORA_PLATFORM_SETTINGS_STATUS
    char reason[8192];
    lumora_settings_status status = settings_last_status(reason, sizeof reason);
    problem.failed = status == LUMORA_SETTINGS_FAILED;
    if (status != LUMORA_SETTINGS_OK) problem.reason = reason;
#endif
    return problem;
}

// "what (reason)" for a missing store, the store's reason when it failed, or
// what alone.
std::string NotFound(const std::string& what) {
    StoreProblem problem = LastStoreProblem();
    if (problem.failed) return problem.reason;
    return problem.reason.empty() ? what : what + " (" + problem.reason + ")";
}

int RunSettings(const Options& options, const Args& args) {
    const std::string& action = args[0];
    if (action == "get" && args.size() == 2) {
        OwnedText value(settings_get_str(args[1].c_str()));
        if (!value) return Fail(NotFound(args[1] + " is not set"));
        PrintValue(options, value.get());
        return kOk;
    }
    if (action == "set" && args.size() == 3) {
        // "-" reads the value from standard input, as for write.
        std::string value;
        if (!ValueArgument(args[2], "VALUE", value)) return kFailed;
        if (settings_set_str(args[1].c_str(), value.c_str()) != 0) return Fail(NotFound("cannot store " + args[1]));
        return kOk;
    }
    fprintf(stderr, "usage: lumora settings get KEY | lumora settings set KEY VALUE\n");
    return kUsage;
}

int RunAction(const Options&, const Args& args) {
    const char* usage = "usage: lumora action firstscreen COMPONENT JSON\n";
    if (args[0] != "firstscreen") {
        Warn("unknown action " + args[0] + " (firstscreen)");
        fputs(usage, stderr);
        return kUsage;
    }
    const std::string& component = args[1];
    const std::string& data = args[2];
    Json::Value parsed;
    if (component.empty() || !ParseJsonInput(data, parsed)) {
        Warn(component.empty() ? "COMPONENT is empty" : "JSON is not JSON: " + data);
        fputs(usage, stderr);
        return kUsage;
    }
    if (!StartService()) return kFailed;
    // The text goes as it was given: the launcher hands it on untouched.
    bool queued = CS_SetFirstscreenAction(component.c_str(), data.c_str());
    StopService();
    return queued ? kOk : Fail("the first-screen action for " + component + " was not sent");
}

int RunHints(const Options& options, const Args& args) {
    OwnedText value(Lumora_ReadHintList("lumora", args[0].c_str()));
    if (!value) return Fail(NotFound("no hint list for " + args[0]));
    PrintValue(options, value.get());
    return kOk;
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
         "Writes DATA to SUBJECT. The write is queued, not acknowledged. DATA \"-\" reads\n"
         "the value from standard input (less one final newline), for values over the\n"
         "command line's limit; it must be valid UTF-8, as every argument must.\n"
         "Example: lumora write Raw/Setting/Selected/Item '{\"item\":\"Picture\"}'\n"
         "         lumora write Ctx/Test/Big - < value.json",
         2, 2, kNoOptions, RunWrite},
        {"settings", "get KEY | set KEY VALUE", "read or write the settings store",
         "Reads or writes one key of the platform settings store\n"
         "($LUMORA_SETTINGS_DB, else $XDG_STATE_HOME/lumora/settings.db).\n"
         "Example: lumora settings get db/lumora-service/itemlist",
         2, 3, kNoOptions, RunSettings},
        {"hints", "TYPE", "print a hint list from the settings store",
         "Prints the hint list of TYPE (source, setting, channel; any other type\n"
         "reads the general list) that the context service left in the settings store.\n"
         "Example: lumora hints source",
         1, 1, kNoOptions, RunHints},
        {"status", "[--watch]", "show whether the context service can be used",
         "Shows the feature switch, the bus, the service's availability and the\n"
         "whitelist decision for this process, one line each. With --watch, then\n"
         "prints the service's availability as the library sees it, one JSON line\n"
         "per change, {\"event\":\"available\",\"reason\":\"ready\"} first (reasons:\n"
         "ready, hello, reconnected; bye, name-lost, bus-closed), until SIGINT or\n"
         "SIGTERM, and exits 0. Without --watch, the exit status names\n"
         "the first thing that stands between this process and the service:\n"
         "  0  available (a whitelist denial only refuses internal subjects)\n"
         "  1  the service answers this tool, but the library's own start failed\n"
         "  3  the bus is unreachable (DBUS_SYSTEM_BUS_ADDRESS, else the system bus)\n"
         "  4  the service is not running: org.verdin.tv.lumora2 has no owner\n"
         "  5  the service does not answer (no answer to ServiceEnable within 1 s)\n"
         "  6  the service is disabled: it answers ServiceEnable with false\n"
         "  7  the service is not ready: /tmp/lmf_service_ready is missing\n"
         "  8  the feature switch disables the service on this device\n"
         "Example: lumora status --watch",
         0, 0, kWatchOption, RunStatus},
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
         "and exits 0; a restart of the service is followed, and each time the\n"
         "service goes or comes back a line {\"event\":\"unavailable\",\"reason\":\"bye\"}\n"
         "or {\"event\":\"available\",\"reason\":\"hello\"} is printed among the changes\n"
         "(reasons as for \"lumora status --watch\"). With --initial, prints each\n"
         "subject's current value first, in the same form, and again when it changed\n"
         "while the service was away (a subject without a value gets a note on stderr).\n"
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
        {"channels", "[list|reorder|remove|watch] ...", "print, reorder, remove or watch channels",
         "The channel list services as applications use them:\n"
         "  lumora channels [list] [--source rf|stb|all]\n"
         "  lumora channels reorder JSON_ARRAY [--source N]\n"
         "  lumora channels remove MAJOR MINOR TYPE [--service-id ID]\n"
         "  lumora channels watch [--source rf|stb|all]\n"
         "\n"
         "list (the default) prints the channel list as the library hands it to an\n"
         "application, {\"ChList\":[...],\"Size\":N,\"Status\":\"Success\"}, and \"N channels\"\n"
         "on stderr. It holds the entries of the --source type (\"SrcType\" \"RF\" for rf,\n"
         "\"STB\" for stb; all, the default, keeps both), never one of channel type 9.\n"
         "An answer of the service that does not say \"Success\" is printed as it came,\n"
         "with \"0 channels\". Fails when the list cannot be read.\n"
         "\n"
         "reorder sends the candidates JSON_ARRAY, [{\"major\":M,\"minor\":N},...], with\n"
         "the source N (an integer, default 0) and prints the service's order in the\n"
         "same form on one line (null when the order is empty).\n"
         "\n"
         "remove asks the service to remove channel MAJOR-MINOR of TYPE (air, cable,\n"
         "satellite, hdmi1 to hdmi6, or their numbers 0 to 8), named also by its\n"
         "service id with --service-id. The request is queued, not acknowledged.\n"
         "\n"
         "watch prints one line per channel event until SIGINT or SIGTERM, then exits\n"
         "0; a restart of the service is followed:\n"
         "  {\"event\":\"list\",\"code\":0,\"count\":N,\"data\":...}     the channel list\n"
         "  {\"event\":\"program\",\"code\":2,\"count\":1,\"data\":...}  the programme changed\n"
         "  {\"event\":\"stb\",\"code\":3,\"count\":1,\"data\":...}      the set-top box's status\n"
         "data is JSON when the text is JSON, else a JSON string. A list's data holds\n"
         "the --source entries as list prints them, count how many (0, and the\n"
         "service's text, when it did not say \"Success\").\n"
         "\n"
         "Examples:\n"
         "  lumora --pretty channels --source rf\n"
         "  lumora channels reorder '[{\"major\":9,\"minor\":1},{\"major\":7,\"minor\":1}]'\n"
         "  lumora channels remove 9 1 air --service-id 0x0901\n"
         "  lumora channels watch --source stb",
         0, 4, kSourceOption | kServiceIdOption, RunChannels},
        {"monitor", "[--json] [--summary] [OPTION...]", "show the service's traffic, decoded",
         "Watches the context service's traffic on the bus through the bus daemon's\n"
         "monitoring interface (dbus-daemon lets only root and the bus daemon's own user\n"
         "monitor, whatever the bus's policy) and prints one line per event: each call\n"
         "(caller's process and pid, type read, write, request, subscribe, unsubscribe,\n"
         "enable, introspect, ping, machine-id or properties, request id, subject,\n"
         "input), calls outside the wire contract as undecodable, each answer matched by\n"
         "serial (result code, data, latency in ms; late after 25 s), calls unanswered\n"
         "after 25 s, each Response signal with its sender and receiver, HELLO with its\n"
         "whitelist, BYE; signals not from the service's name owner say so.\n"
         "Options: --json (one JSON object per line), --subject GLOB and --process NAME\n"
         "(filters, repeatable), --duration SECONDS, --summary (a table per subject and\n"
         "per process at the end), --full (data not cut to the terminal's width),\n"
         "--record FILE (a timeline of the answers and signals for lumora-sim --replay).\n"
         "Runs until SIGINT or SIGTERM (or --duration), then exits 0.\n"
         "Example: lumora monitor --subject 'Ctx/Sound/*' --summary",
         0, SIZE_MAX, kOwnOptions, RunMonitor},
        {"action", "firstscreen COMPONENT JSON", "hand the home launcher a first-screen action",
         "Hands COMPONENT, a component of the home launcher, the JSON text JSON: writes\n"
         "{\"componentId\":COMPONENT,\"jsonData\":JSON} to Raw/Firstscreen/Action, with\n"
         "JSON as a string. The write is queued, not acknowledged.\n"
         "Example: lumora action firstscreen home '{\"tab\":\"apps\"}'",
         3, 3, kNoOptions, RunAction},
    };
    return commands;
}

}  // namespace lumora::cli
