// `lumora-sim ctl`: calls one method of a running simulator's control object.
#include "SimCtl.h"

#include <gio/gio.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ControlContract.h"
#include "internal/ServiceContract.h"

namespace lumora::sim {

namespace {

constexpr int kCtlTimeoutMs = 10000;

// One command: its words, the control method, how its arguments become the
// method's parameters, and how the answer is printed.
struct Command {
    const char* word;
    const char* usage;
    const char* method;
    int minArgs;
    int maxArgs;          // -1: any number
    const char* example;  // its arguments in a typical call
};

const Command kCommands[] = {
    {"emit", "emit SUBJECT DATA", kCtlEmit, 2, 2, "Ctx/Sound/Volume/Level/Changed '{\"Level\":20}'"},
    {"set", "set SUBJECT DATA", kCtlSetValue, 2, 2, "Ctx/Media/Source/Info/Current '{\"Source\":\"HDMI1\"}'"},
    {"clear", "clear SUBJECT", kCtlClearValue, 1, 1, "Ctx/App/Info/Current"},
    {"code", "code SUBJECT CODE", kCtlSetResultCode, 2, 2, "Data/Weather/Forecast -5"},
    {"delay", "delay SUBJECT MILLISECONDS", kCtlSetDelay, 2, 2, "Pref/Channel/List 1500"},
    {"stats", "stats SUBJECT TUPLES_JSON", kCtlSetStatistics, 2, 2, "I/TallyDB/Onoff/Duration '[[1715677200,9000]]'"},
    {"stop-answering", "stop-answering", kCtlStopAnswering, 0, 0, ""},
    {"resume-answering", "resume-answering", kCtlResumeAnswering, 0, 0, ""},
    {"enable", "enable", kCtlSetEnabled, 0, 0, ""},
    {"disable", "disable", kCtlSetEnabled, 0, 0, ""},
    {"whitelist", "whitelist [NAME...]", kCtlSetWhiteList, 0, -1, "tv-launcher myapp"},
    {"restart", "restart [PAUSE_MS]", kCtlRestart, 0, 1, "1000"},
    {"status", "status", kCtlGetStatus, 0, 0, ""},
    {"event", "event list|current|program|stb [DATA]", kCtlEmitEvent, 1, 2,
     "program '{\"ProgramTitle\":\"Late Movie\"}'"},
};

bool ParseInt(const char* text, long long low, long long high, long long& out) {
    errno = 0;
    char* end = nullptr;
    long long value = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < low || value > high) return false;
    out = value;
    return true;
}

// Builds the parameters of cmd from args; null (with a message) when an
// argument is not a number where one is needed.
GVariant* BuildParameters(const Command& cmd, const std::vector<const char*>& args, bool& ok) {
    ok = true;
    std::string word = cmd.word;
    long long number = 0;
    if (word == "emit" || word == "set" || word == "stats") return g_variant_new("(ss)", args[0], args[1]);
    if (word == "event") return g_variant_new("(ss)", args[0], args.size() > 1 ? args[1] : "");
    if (word == "clear") return g_variant_new("(s)", args[0]);
    if (word == "enable" || word == "disable") return g_variant_new("(b)", word == "enable");
    if (word == "code") {
        ok = ParseInt(args[1], INT_MIN, INT_MAX, number);
        return ok ? g_variant_new("(si)", args[0], static_cast<gint32>(number)) : nullptr;
    }
    if (word == "delay" || word == "restart") {
        const char* text = args.empty() ? "0" : args.back();
        ok = ParseInt(text, 0, UINT_MAX, number);
        if (!ok) return nullptr;
        return word == "delay" ? g_variant_new("(su)", args[0], static_cast<guint32>(number))
                               : g_variant_new("(u)", static_cast<guint32>(number));
    }
    if (word == "whitelist") {
        GVariantBuilder names;
        g_variant_builder_init(&names, G_VARIANT_TYPE("as"));
        for (const char* name : args) g_variant_builder_add(&names, "s", name);
        return g_variant_new("(as)", &names);
    }
    return nullptr;  // no arguments
}

void PrintAnswer(const Command& cmd, GVariant* answer) {
    if (g_variant_is_of_type(answer, G_VARIANT_TYPE("(u)"))) {
        guint32 count = 0;
        g_variant_get(answer, "(u)", &count);
        bool emitted = strcmp(cmd.word, "emit") == 0 || strcmp(cmd.word, "event") == 0;
        printf("%s %u\n", emitted ? "sent" : "answered", count);
    } else if (g_variant_is_of_type(answer, G_VARIANT_TYPE("(s)"))) {
        const gchar* text = nullptr;
        g_variant_get(answer, "(&s)", &text);
        printf("%s\n", text);
    }
}

GDBusConnection* Connect(const char* address) {
    GError* error = nullptr;
    GDBusConnection* connection = address != nullptr
                                      ? g_dbus_connection_new_for_address_sync(
                                            address, lumora::contract::kConnectionFlags, nullptr, nullptr, &error)
                                      : g_bus_get_sync(lumora::contract::kBusType, nullptr, &error);
    if (connection == nullptr) {
        fprintf(stderr, "lumora-sim ctl: no bus connection: %s\n", error->message);
        g_error_free(error);
    }
    return connection;
}

int Call(const char* address, const Command& cmd, GVariant* parameters, int timeoutMs) {
    GDBusConnection* connection = Connect(address);
    if (connection == nullptr) {
        if (parameters != nullptr) g_variant_unref(g_variant_ref_sink(parameters));
        return 1;
    }
    GError* error = nullptr;
    GVariant* answer =
        g_dbus_connection_call_sync(connection, lumora::contract::kBusName, kControlPath, kControlInterface, cmd.method,
                                    parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, timeoutMs, nullptr, &error);
    g_object_unref(connection);
    if (answer == nullptr) {
        fprintf(stderr, "lumora-sim ctl: %s: %s\n", cmd.word, error->message);
        g_error_free(error);
        return 1;
    }
    PrintAnswer(cmd, answer);
    g_variant_unref(answer);
    return 0;
}

// The name of argument index of cmd as its usage writes it ("SUBJECT"), or
// "argument N" where the usage has no name in capitals there.
std::string ArgumentName(const Command& cmd, size_t index) {
    std::vector<std::string> names;
    gchar** words = g_strsplit(cmd.usage, " ", -1);
    for (gchar** word = words + 1; *word != nullptr; ++word) {  // words[0] is the command
        std::string name(*word);
        name.erase(0, name.find_first_not_of('['));
        name = name.substr(0, name.find_first_of("].|"));
        bool capitals = !name.empty() && name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ_") == std::string::npos;
        names.push_back(capitals ? name : "");
    }
    g_strfreev(words);
    // The last name stands for every further argument ("NAME...").
    std::string name = names.empty() ? "" : names[std::min(index, names.size() - 1)];
    return name.empty() ? "argument " + std::to_string(index + 1) : name;
}

// Every argument travels as a D-Bus string, which must be valid UTF-8; false
// with the reason printed for the first that is not.
bool ArgumentsAreText(const Command& cmd, const std::vector<const char*>& args) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (g_utf8_validate(args[i], -1, nullptr)) continue;
        fprintf(stderr, "lumora-sim ctl: %s is not valid UTF-8\n", ArgumentName(cmd, i).c_str());
        return false;
    }
    return true;
}

const Command* FindCommand(const char* word) {
    for (const Command& cmd : kCommands) {
        if (strcmp(cmd.word, word) == 0) return &cmd;
    }
    return nullptr;
}

}  // namespace

void PrintCtlUsage(FILE* out) {
    fprintf(out, "lumora-sim ctl [--address ADDRESS] COMMAND [ARGUMENTS]\n");
    for (const Command& cmd : kCommands) fprintf(out, "  %s\n", cmd.usage);
}

// The usage, then an example of every command.
void PrintCtlHelp(FILE* out) {
    PrintCtlUsage(out);
    fprintf(out, "\nexamples:\n");
    for (const Command& cmd : kCommands)
        fprintf(out, "  lumora-sim ctl %s%s%s\n", cmd.word, cmd.example[0] != '\0' ? " " : "", cmd.example);
}

int RunCtl(int argc, char** argv) {
    int next = 0;
    const char* address = nullptr;
    if (next + 1 < argc && strcmp(argv[next], "--address") == 0) {
        address = argv[next + 1];
        next += 2;
        if (!g_utf8_validate(address, -1, nullptr)) {
            fprintf(stderr, "lumora-sim ctl: ADDRESS is not valid UTF-8\n");
            return 2;
        }
    }
    if (next < argc && (strcmp(argv[next], "--help") == 0 || strcmp(argv[next], "-h") == 0)) {
        PrintCtlHelp(stdout);
        return 0;
    }
    const Command* cmd = next < argc ? FindCommand(argv[next]) : nullptr;
    if (cmd == nullptr) {
        if (next < argc) fprintf(stderr, "lumora-sim ctl: unknown command '%s'\n", argv[next]);
        PrintCtlUsage(stderr);
        return 2;
    }
    std::vector<const char*> args(argv + next + 1, argv + argc);
    int count = static_cast<int>(args.size());
    if (count < cmd->minArgs || (cmd->maxArgs >= 0 && count > cmd->maxArgs)) {
        fprintf(stderr, "lumora-sim ctl: usage: %s\n", cmd->usage);
        return 2;
    }
    if (!ArgumentsAreText(*cmd, args)) return 2;
    // A kind the simulator does not know is a usage error, found before the bus is.
    if (strcmp(cmd->word, "event") == 0 && FindEventKind(args[0]) == nullptr) {
        fprintf(stderr, "lumora-sim ctl: unknown event kind '%s': usage: %s\n", args[0], cmd->usage);
        return 2;
    }
    bool ok = true;
    GVariant* parameters = BuildParameters(*cmd, args, ok);
    if (!ok) {
        fprintf(stderr, "lumora-sim ctl: not a number in range: usage: %s\n", cmd->usage);
        return 2;
    }
    // A restart answers only after its pause.
    int timeoutMs = kCtlTimeoutMs;
    long long pauseMs = 0;
    if (strcmp(cmd->word, "restart") == 0 && !args.empty()) {
        timeoutMs = ParseInt(args[0], 0, G_MAXINT - kCtlTimeoutMs, pauseMs) ? kCtlTimeoutMs + static_cast<int>(pauseMs)
                                                                            : G_MAXINT;
    }
    return Call(address, *cmd, parameters, timeoutMs);
}

}  // namespace lumora::sim
