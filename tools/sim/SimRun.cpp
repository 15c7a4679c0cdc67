// `lumora-sim run`: its command line, the command's environment, and the run.
#include "SimRun.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "RunSession.h"
#include "SimLog.h"

namespace lumora::sim {

namespace {

constexpr const char* kRunHelp =
    "Usage: lumora-sim run [SIMULATOR OPTIONS] [--shared-tmp] [--log FILE] [--] COMMAND [ARGUMENT...]\n"
    "\n"
    "Runs COMMAND beside a simulator of its own, as dbus-run-session does for a session bus:\n"
    "starts a private dbus-daemon and lumora-sim on it, waits until the service is ready (its\n"
    "marker made, HELLO said, a control call answered), runs COMMAND with the variables below,\n"
    "then stops the simulator (it says BYE) and the daemon and removes the bus's socket.\n"
    "\n"
    "Simulator options, as lumora-sim takes them: --scenario FILE, --broadcast,\n"
    "--replay FILE [--speed X] [--loop], --http [ADDRESS:]PORT [--http-allow-remote]\n"
    "(port 0 picks a free port; parallel runs share the machine's ports).\n"
    "\n"
    "Options of the run:\n"
    "  --shared-tmp  keep the machine's /tmp even where a /tmp of its own could be made:\n"
    "                one run at a time, as where none can (the tests force that path so)\n"
    "  --log FILE    the simulator's and the run's log lines go to FILE instead of standard\n"
    "                error (COMMAND's own LUMORA_LOG_FILE is left as it is)\n"
    "  --help        this text\n"
    "\n"
    "/tmp: the service's readiness marker /tmp/lmf_service_ready is one file for the whole\n"
    "machine. Where the process may (root, or unprivileged user namespaces), the run gets a\n"
    "/tmp of its own, in a mount namespace of its own, gone with it: runs side by side each see\n"
    "their own simulator. In it every entry of the machine's /tmp at the start but the marker\n"
    "and its lock is bound where it was, so COMMAND's files, build trees and sockets there are\n"
    "reached as usual and what it writes inside them stays; what it makes at the top of /tmp\n"
    "is its own and goes with the run, and an entry bound there cannot be removed or renamed\n"
    "from inside. Elsewhere the run uses the machine's /tmp and holds the lock\n"
    "/tmp/lmf_service_ready.lock meanwhile: a second run at the same time is refused, with why.\n"
    "\n"
    "COMMAND's environment, beside the run's own:\n"
    "  DBUS_SYSTEM_BUS_ADDRESS  the private bus (the library and lumora use it)\n"
    "  LUMORA_SIM_BUS_ADDRESS   the same bus, where the simulator's control object is\n"
    "                           (lumora-sim ctl --address \"$LUMORA_SIM_BUS_ADDRESS\" ...)\n"
    "  LUMORA_SIM_PID           the simulator's pid (kill -KILL \"$LUMORA_SIM_PID\" plays a crash)\n"
    "  LUMORA_SIM_HTTP_URL      the control panel's URL, with --http\n"
    "\n"
    "Found through the environment: LUMORA_SIM_DBUS_DAEMON (else dbus-daemon on PATH) and\n"
    "LUMORA_SIM_DBUS_CONFIG (else share/lumora-sim/lumora-private-bus.conf beside this program).\n"
    "\n"
    "Signals: SIGINT, SIGTERM and SIGHUP sent to the run go to COMMAND, and the run ends when\n"
    "COMMAND does; a Ctrl-C at the terminal reaches COMMAND itself (the daemon and the simulator\n"
    "are in process groups of their own).\n"
    "\n"
    "Exit status: COMMAND's, or 128+N when signal N ended it; 125 when the run failed (usage,\n"
    "a refused scenario, the bus or the simulator did not start, another run holds the machine's\n"
    "/tmp); 126 when COMMAND could not be executed; 127 when it was not found.\n";

// The simulator's options that take a value, passed on as they are.
const std::set<std::string> kSimulatorValueOptions = {"--scenario", "--replay", "--speed", "--http"};
const std::set<std::string> kSimulatorFlags = {"--broadcast", "--loop", "--http-allow-remote"};

// What the run sets in the command's environment, replacing any value there.
const char* const kRunVariables[] = {"DBUS_SYSTEM_BUS_ADDRESS", "LUMORA_SIM_BUS_ADDRESS", "LUMORA_SIM_PID",
                                     "LUMORA_SIM_HTTP_URL"};

int UsageError(const std::string& line) {
    fprintf(stderr, "lumora-sim run: %s (see lumora-sim run --help)\n", line.c_str());
    return kRunFailed;
}

// 0: run; -1: help printed; else the exit status of a usage error.
int ParseRunOptions(int argc, char** argv, RunOptions& options) {
    int i = 0;
    for (; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg.empty() || arg[0] != '-') break;  // the command
        if (arg == "--help" || arg == "-h") {
            PrintRunHelp(stdout);
            return -1;
        }
        if (arg == "--shared-tmp") {
            options.sharedTmp = true;
        } else if (arg == "--log" && i + 1 < argc) {
            options.logFile = argv[++i];
        } else if (kSimulatorValueOptions.count(arg) != 0 && i + 1 < argc) {
            options.http = options.http || arg == "--http";
            options.simulatorWords.push_back(arg);
            options.simulatorWords.push_back(argv[++i]);
        } else if (kSimulatorFlags.count(arg) != 0) {
            options.simulatorWords.push_back(arg);
        } else {
            return UsageError("unexpected argument '" + arg + "'");
        }
    }
    options.command.assign(argv + i, argv + argc);
    if (options.command.empty()) return UsageError("no command given");
    return 0;
}

// The command's program as a shell finds it: a name without a slash on PATH.
int FindCommand(RunOptions& options) {
    const std::string& name = options.command[0];
    if (name.find('/') != std::string::npos) {
        options.commandPath = name;
        if (access(name.c_str(), X_OK) == 0) return 0;
        int error = errno;
        fprintf(stderr, "lumora-sim run: %s: %s\n", name.c_str(), strerror(error));
        return error == ENOENT || error == ENOTDIR ? kCommandNotFound : kCommandNotRunnable;
    }
    gchar* found = g_find_program_in_path(name.c_str());
    if (found == nullptr) {
        fprintf(stderr, "lumora-sim run: %s: command not found\n", name.c_str());
        return kCommandNotFound;
    }
    options.commandPath = found;
    g_free(found);
    return 0;
}

std::vector<std::string> EnvironmentWithoutRunVariables() {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string text = *entry;
        bool ours = false;
        for (const char* name : kRunVariables) ours = ours || text.rfind(std::string(name) + "=", 0) == 0;
        if (!ours) environment.push_back(text);
    }
    return environment;
}

// The run's and the simulator's log file, opened now: through
// /proc/self/fd/N they keep writing to it after /tmp changed, wherever it
// lies. False when --log names a file that cannot be opened.
bool PinLogFile(const std::string& option) {
    const char* named = option.empty() ? getenv("LUMORA_LOG_FILE") : option.c_str();
    if (named == nullptr || *named == '\0') return true;
    int fd = open(named, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        if (option.empty()) return true;  // the platform log falls back to standard error
        fprintf(stderr, "lumora-sim run: --log %s: %s\n", named, strerror(errno));
        return false;
    }
    setenv("LUMORA_LOG_FILE", ("/proc/self/fd/" + std::to_string(fd)).c_str(), 1);
    return true;
}

}  // namespace

void PrintRunHelp(FILE* out) { fputs(kRunHelp, out); }

int RunCommand(int argc, char** argv, SimulatorMain& simulator) {
    RunOptions options;
    int parsed = ParseRunOptions(argc, argv, options);
    if (parsed != 0) return parsed < 0 ? 0 : parsed;
    int found = FindCommand(options);
    if (found != 0) return found;
    // The command's environment is the one the run was given, before the
    // log file is pinned below.
    options.environment = EnvironmentWithoutRunVariables();
    if (!PinLogFile(options.logFile)) return kRunFailed;
    SIM_LOGI("run: starting %s", options.command[0].c_str());
    RunSession session(std::move(options), simulator);
    return session.Run();
}

}  // namespace lumora::sim
