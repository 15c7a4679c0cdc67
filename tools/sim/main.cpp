// lumora-sim: a context-service simulator for development off the television.
#include <glib-unix.h>

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "Scenario.h"
#include "SimCtl.h"
#include "SimHttp.h"
#include "SimLog.h"
#include "SimRun.h"
#include "SimService.h"
#include "Timeline.h"

namespace {

constexpr const char* kHelp =
    "Usage: lumora-sim [--scenario FILE] [--broadcast] [--replay FILE [--speed X] [--loop]]\n"
    "                  [--http [ADDRESS:]PORT [--http-allow-remote]]\n"
    "       lumora-sim ctl [--address ADDRESS] COMMAND [ARGUMENTS]\n"
    "       lumora-sim run [OPTIONS] [--shared-tmp] [--log FILE] [--] COMMAND [ARGUMENT...]\n"
    "       lumora-sim --help | --version\n"
    "\n"
    "Plays the television's context service on the system bus (DBUS_SYSTEM_BUS_ADDRESS\n"
    "names a private one): owns org.verdin.tv.lumora2 and serves /org/verdin/tv/lumora2,\n"
    "interface org.verdin.tv.lumora.interface2:\n"
    "  ServiceEnable         -> (b enabled, s {\"WhiteList\":[...]})\n"
    "  RequestSync (iiiss)   type 1: (i code, s value, or \"{}\" without one);\n"
    "                        types 3/4: subscribe/unsubscribe the caller to the subject\n"
    "  RequestAsync (iiiss)  type 5: (i code, s subject, v payload): (s) with the value, or\n"
    "                        the typed array of an I/TallyDB/.../Duration subject\n"
    "  Write (iiiss)         type 2: stores the value, emits Response for the subject;\n"
    "                        to Pref/Channel/Remove ({\"major\":M,\"minor\":N,...}) or\n"
    "                        Pref/Channel/RemoveWithServiceID (also \"service_id\") it takes the\n"
    "                        matching ChList entries out of Pref/Channel/List, emits that list\n"
    "                        when it changed, and is recorded in status \"channelRemovals\"\n"
    "  signal Response (i 0, s subject, s data): to each client that subscribed to the\n"
    "                        subject (to every listener with --broadcast); HELLO with the\n"
    "                        whitelist at start, BYE at SIGINT/SIGTERM, to every listener.\n"
    "Creates /tmp/lmf_service_ready when ready and removes it when it stops. At\n"
    "SIGINT/SIGTERM it first fails its delayed answers (org.verdin.tv.lumora2.Error.Stopping),\n"
    "then says BYE; held calls stay unanswered, as with a hung service.\n"
    "\n"
    "Options:\n"
    "  --scenario FILE  the television's state as JSON (see below); without it every\n"
    "                   subject answers \"{}\" and the whitelist is empty\n"
    "  --broadcast      send Response signals to every listener, not only subscribers\n"
    "  --replay FILE    play a timeline of lumora monitor --record at its times: each\n"
    "                   change the service signalled is emitted once (to each subscriber,\n"
    "                   or to everyone with --broadcast); answers to reads and requests\n"
    "                   become the subjects' answers then (text or statistics records, and\n"
    "                   the result code); ServiceEnable answers set enabled and the\n"
    "                   whitelist; other subjects answer from the scenario; ctl status\n"
    "                   shows \"replay\"\n"
    "  --speed X        play X times faster (default 1); only with --replay\n"
    "  --loop           play it again from the start at its end; a round lasts at least\n"
    "                   100 ms, so events all at time 0 play ten times a second; only\n"
    "                   with --replay\n"
    "  --http [ADDRESS:]PORT  serve a control panel in the browser (127.0.0.1 unless an\n"
    "                   ADDRESS is given; port 0 picks a free one); prints its URL\n"
    "  --http-allow-remote  allow a non-loopback ADDRESS (anyone who reaches it drives the simulator)\n"
    "  --help           this text\n"
    "  --version        the version\n"
    "\n"
    "Scenario file (every key optional; // comments allowed):\n"
    "  {\"enabled\": true, \"broadcastResponses\": false, \"whiteList\": [\"app\", ...],\n"
    "   \"values\": {SUBJECT: VALUE, ...},         a string is the answer text itself,\n"
    "                                            any other JSON value its compact text\n"
    "   \"resultCodes\": {SUBJECT: CODE, ...},     code of RequestSync type 1 and RequestAsync\n"
    "   \"delaysMs\": {SUBJECT: MILLISECONDS, ...}, answers of the subject leave that late\n"
    "   \"statistics\": {STATISTICS_SUBJECT: [[TUPLE], ...], ...}}\n"
    "  Statistics tuples are arrays in wire order: Onoff (uu), App (uusssi),\n"
    "  Channel (uuiisss), Genre (uuss), Content (uusssssiiss).\n"
    "  A malformed file (also text that is not UTF-8, a negative delay, a directory)\n"
    "  is refused with FILE:LINE:COLUMN and the reason, exit status 2.\n"
    "\n"
    "Control object /org/verdin/tv/lumora2/control, interface org.verdin.tv.lumora2.SimControl,\n"
    "on the same name; `lumora-sim ctl` calls it:\n"
    "  emit SUBJECT DATA           Emit(s,s) -> (u signals sent)\n"
    "  set SUBJECT DATA            SetValue(s,s)\n"
    "  clear SUBJECT               ClearValue(s): the subject answers \"{}\" again\n"
    "  code SUBJECT CODE           SetResultCode(s,i): 0 restores success\n"
    "  delay SUBJECT MILLISECONDS  SetDelay(s,u): 0 answers at once again\n"
    "  stats SUBJECT TUPLES_JSON   SetStatistics(s,s)\n"
    "  stop-answering              StopAnswering(): calls wait unanswered\n"
    "  resume-answering            ResumeAnswering() -> (u held calls answered)\n"
    "  enable | disable            SetEnabled(b)\n"
    "  whitelist [NAME...]         SetWhiteList(as)\n"
    "  restart [PAUSE_MS]          Restart(u): BYE, marker removed, subscriptions dropped,\n"
    "                              then marker and HELLO; answers after the HELLO\n"
    "  status                      GetStatus() -> (s JSON of the whole state)\n"
    "  event list|current|program|stb [DATA]\n"
    "                              EmitEvent(s,s) -> (u signals sent): Response for\n"
    "                              list: Pref/Channel/List, current: Pref/Channel/List/Current,\n"
    "                              program: Ctx/Media/Broadcast/Program/Changed, then .../Current,\n"
    "                              stb: Ctx/Media/Broadcast/Status/STB; DATA (JSON), when given,\n"
    "                              is stored as their value first, else the stored value is sent\n"
    "\n"
    "ctl arguments must be valid UTF-8 (they travel as D-Bus strings); others are a usage error.\n"
    "\n"
    "`lumora-sim run [OPTIONS] -- COMMAND` runs COMMAND beside a simulator of its own on a\n"
    "private bus, in a /tmp of its own where the machine allows it, and exits with COMMAND's\n"
    "status (see lumora-sim run --help).\n"
    "\n"
    "Exit status: 0 after SIGINT/SIGTERM; 1 when the name cannot be owned or is lost, when\n"
    "the system bus cannot be reached, or when the bus connection is lost (\"lost the bus\n"
    "connection\"); 2 on a usage or scenario error. Logs through the platform log\n"
    "(LUMORA_LOG_FILE), tag LUMORA_SIM.\n";

struct Options {
    std::string scenario;
    bool broadcast = false;
    std::string replay;
    double speed = 1;
    bool loop = false;
    std::string playbackOption;  // the first of --speed and --loop given
    bool http = false;
    std::string httpAddress;
    unsigned httpPort = 0;
    bool httpAllowRemote = false;
    int urlFd = -1;  // where the panel's URL line goes instead of standard output
};

// 0: run; 2: usage error; -1: help or version printed.
int ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            fputs(kHelp, stdout);
            return -1;
        }
        if (arg == "--version") {
            printf("lumora-sim %s\n", LUMORA_VERSION);
            return -1;
        }
        if (arg == "--broadcast") {
            options.broadcast = true;
        } else if (arg == "--scenario" && i + 1 < argc) {
            options.scenario = argv[++i];
        } else if (arg == "--replay" && i + 1 < argc) {
            options.replay = argv[++i];
        } else if (arg == "--loop") {
            options.loop = true;
            if (options.playbackOption.empty()) options.playbackOption = arg;
        } else if (arg == "--http-allow-remote") {
            options.httpAllowRemote = true;
        } else if (arg == "--http" && i + 1 < argc) {
            options.http = true;
            if (!lumora::sim::ParseHttpAddress(argv[++i], options.httpAddress, options.httpPort)) {
                fprintf(stderr, "lumora-sim: --http takes [ADDRESS:]PORT (see lumora-sim --help)\n");
                return 2;
            }
        } else if (arg == "--speed" && i + 1 < argc) {
            char* end = nullptr;
            if (options.playbackOption.empty()) options.playbackOption = arg;
            options.speed = g_ascii_strtod(argv[++i], &end);
            if (end == argv[i] || *end != '\0' || !(options.speed > 0) || options.speed > 1e6) {
                fprintf(stderr, "lumora-sim: --speed takes a number above 0 (see lumora-sim --help)\n");
                return 2;
            }
        } else {
            fprintf(stderr, "lumora-sim: unexpected argument '%s' (see lumora-sim --help)\n", arg.c_str());
            return 2;
        }
    }
    // Either would be dropped without a timeline to play, and the simulator
    // would look as if it played one.
    if (!options.playbackOption.empty() && options.replay.empty()) {
        fprintf(stderr, "lumora-sim: %s goes with --replay FILE (see lumora-sim --help)\n",
                options.playbackOption.c_str());
        return 2;
    }
    return 0;
}

gboolean OnStopSignal(gpointer data) {
    auto* loop = static_cast<GMainLoop*>(data);
    SIM_LOGI("stop requested");
    g_main_loop_quit(loop);
    return G_SOURCE_CONTINUE;
}

// `lumora-sim run` reads the URL from a pipe of its own; a person reads it on
// standard output.
void AnnouncePanel(const std::string& url, int urlFd) {
    if (urlFd < 0) {
        printf("lumora-sim: control panel at %s\n", url.c_str());
        fflush(stdout);
        return;
    }
    std::string line = url + "\n";
    if (write(urlFd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        SIM_LOGW("the control panel's URL did not reach lumora-sim run: %s", strerror(errno));
    close(urlFd);
}

int Serve(lumora::sim::Scenario scenario, const Options& options, std::vector<lumora::sim::TimelineEvent> timeline) {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    guint term = g_unix_signal_add(SIGTERM, OnStopSignal, loop);
    guint interrupt = g_unix_signal_add(SIGINT, OnStopSignal, loop);
    int status = 1;
    {
        lumora::sim::SimService service(std::move(scenario), loop);
        std::unique_ptr<lumora::sim::Replay> replay;
        if (!options.replay.empty())
            replay = std::make_unique<lumora::sim::Replay>(service, options.replay, std::move(timeline), options.speed,
                                                           options.loop);
        std::unique_ptr<lumora::sim::SimHttp> panel;
        if (options.http)
            panel = std::make_unique<lumora::sim::SimHttp>(service, options.httpAddress, options.httpPort,
                                                           options.httpAllowRemote);
        std::string error;
        if (panel && !panel->Start(error)) {
            SIM_LOGE("%s", error.c_str());
            fprintf(stderr, "lumora-sim: %s\n", error.c_str());
            status = 2;
        } else if (service.Start()) {
            if (panel) AnnouncePanel(panel->Url(), options.urlFd);
            if (replay) replay->Start();
            g_main_loop_run(loop);
            panel.reset();
            replay.reset();
            service.Shutdown();
            status = service.ExitStatus();
        } else {
            fprintf(stderr, "lumora-sim: the publisher refused to start (see the log)\n");
        }
    }
    g_source_remove(term);
    g_source_remove(interrupt);
    g_main_loop_unref(loop);
    SIM_LOGI("stopped, exit status %d", status);
    return status;
}

// The simulator's command line checked and its files read: 0, or 2 (the
// reason printed) when refused, or -1 when help or the version was printed.
struct Prepared {
    Options options;
    lumora::sim::Scenario scenario;
    std::vector<lumora::sim::TimelineEvent> timeline;
};

int Prepare(int argc, char** argv, Prepared& prepared) {
    Options& options = prepared.options;
    int parsed = ParseOptions(argc, argv, options);
    if (parsed != 0) return parsed < 0 ? -1 : 2;
    if (!options.scenario.empty()) {
        std::string error;
        if (!lumora::sim::LoadScenario(options.scenario, prepared.scenario, error)) {
            SIM_LOGE("scenario refused: %s", error.c_str());
            fprintf(stderr, "lumora-sim: %s\n", error.c_str());
            return 2;
        }
    }
    if (options.broadcast) prepared.scenario.broadcastResponses = true;
    if (!options.replay.empty()) {
        std::string error;
        if (!lumora::sim::LoadTimeline(options.replay, prepared.timeline, error)) {
            SIM_LOGE("timeline refused: %s", error.c_str());
            fprintf(stderr, "lumora-sim: %s\n", error.c_str());
            return 2;
        }
    }
    return 0;
}

int ServePrepared(Prepared& prepared) {
    const Options& options = prepared.options;
    SIM_LOGI("starting with %s", options.scenario.empty() ? "an empty scenario" : options.scenario.c_str());
    return Serve(std::move(prepared.scenario), options, std::move(prepared.timeline));
}

// The simulator as `lumora-sim run` starts it, in a child of the run.
class LocalSimulator final : public lumora::sim::SimulatorMain {
public:
    bool Prepare(const std::vector<std::string>& words) override {
        std::vector<std::string> argvWords = {"lumora-sim"};
        argvWords.insert(argvWords.end(), words.begin(), words.end());
        std::vector<char*> argv;
        for (std::string& word : argvWords) argv.push_back(word.data());
        argv.push_back(nullptr);
        return ::Prepare(static_cast<int>(argvWords.size()), argv.data(), m_prepared) == 0;
    }
    int Serve(int urlFd) override {
        m_prepared.options.urlFd = urlFd;
        return ServePrepared(m_prepared);
    }

private:
    Prepared m_prepared;
};

int Run(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "ctl") == 0) return lumora::sim::RunCtl(argc - 2, argv + 2);
    if (argc > 1 && strcmp(argv[1], "run") == 0) {
        LocalSimulator simulator;
        return lumora::sim::RunCommand(argc - 2, argv + 2, simulator);
    }
    Prepared prepared;
    int status = Prepare(argc, argv, prepared);
    if (status != 0) return status < 0 ? 0 : status;
    return ServePrepared(prepared);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        fprintf(stderr, "lumora-sim: %s\n", e.what());
        return 1;
    }
}
