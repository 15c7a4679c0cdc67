// GoogleTest fixtures that run an application's tests against lumora-sim on
// a private bus. Header-only: needs GLib/GIO and GoogleTest, not the library.
#ifndef LUMORA_TESTING_LUMORASIMFIXTURE_H
#define LUMORA_TESTING_LUMORASIMFIXTURE_H

#include <fcntl.h>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/**
 * @file lumora/testing/LumoraSimFixture.h
 * @brief GoogleTest fixtures: each test (or each test suite) with its own
 * dbus-daemon and lumora-sim, driven through the simulator's control object.
 *
 * @code
 * #include <lumora/testing/LumoraSimFixture.h>
 *
 * class VolumeTest : public lumora::testing::LumoraSimTest {};
 *
 * TEST_F(VolumeTest, ShowsTheLevelTheTelevisionReports) {
 *     ASSERT_TRUE(Sim().Set("Ctx/Sound/Volume/Level/Current", R"({"Level":20})"));
 *     EXPECT_EQ(20, MyApp::CurrentVolume());
 * }
 * @endcode
 *
 * SetUp() starts a dbus-daemon with the private-bus configuration of
 * lumora-sim and a simulator on it, waits until the service is ready (its
 * marker made, HELLO said, a control call answered) and points
 * DBUS_SYSTEM_BUS_ADDRESS (and LUMORA_SIM_BUS_ADDRESS, LUMORA_SIM_PID) at it;
 * TearDown() stops both (the simulator says BYE) and restores the variables.
 *
 * Programs are found through the environment, then on PATH: LUMORA_SIM
 * (lumora-sim), LUMORA_SIM_DBUS_CONFIG (the private-bus configuration, else
 * share/lumora-sim/lumora-private-bus.conf beside lumora-sim's bin folder),
 * LUMORA_SIM_DBUS_DAEMON (dbus-daemon); LUMORA_SIM_LAUNCHER, when set, names
 * what lumora-sim runs under (words separated by spaces: qemu-arm for a
 * cross build's simulator, valgrind).
 *
 * The service's readiness marker /tmp/lmf_service_ready is one file for the
 * machine: a Simulator holds the lock /tmp/lmf_service_ready.lock from Start()
 * to Close() (as `lumora-sim run --shared-tmp` and Python's lumora.testing
 * do), so test processes of one machine take turns unless each has a /tmp of
 * its own (a mount namespace).
 *
 * The library keeps process-wide state (its bus connection, its timers):
 * with a bus per test, run each test in a process of its own
 * (gtest_discover_tests with ctest does), or stop in each test what it
 * started (Lumora_FiniService()).
 *
 * Threads: a Simulator is used from one thread at a time; its calls block
 * that thread (a control call at most 10 s, Start() up to the ready time-out)
 * and run no main loop, so the application's callbacks are not delivered
 * meanwhile.
 */

/// @brief The library's own namespace for what is not its fixed interface.
namespace lumora {
/// @brief Tests of applications against the simulator.
namespace testing {

/// @brief How a Simulator starts lumora-sim.
struct SimulatorOptions {
    /// A scenario file; empty: every subject answers "{}".
    std::string scenario;
    /// More options of lumora-sim, e.g. "--broadcast".
    std::vector<std::string> extraArgs;
    /// Words before lumora-sim's path: an emulator, or a checker such as
    /// valgrind; empty: the words of LUMORA_SIM_LAUNCHER, when set.
    std::vector<std::string> launcher;
    /// The simulator's log file; empty: sim.log in the Simulator's own folder.
    std::string logFile;
    /// How long Start() waits for the service to be ready.
    int readyTimeoutMs = 30000;
    /// How long Start() waits for another test process's simulator to end.
    int lockTimeoutMs = 60000;
};

/// @brief What the service answered a read: its result code and text, or
/// the error of the call.
struct SimulatorAnswer {
    int code = 0;       ///< The service's result code (0: success).
    std::string value;  ///< The text answered ("{}" for no value).
    std::string error;  ///< The call's error; empty when the service answered.
    /// Whether the service answered with code 0.
    bool Ok() const { return error.empty() && code == 0; }
};

/// @cond LUMORA_TESTING_INTERNALS
namespace detail {

constexpr const char* kBusName = "org.verdin.tv.lumora2";
constexpr const char* kServicePath = "/org/verdin/tv/lumora2";
constexpr const char* kServiceInterface = "org.verdin.tv.lumora.interface2";
constexpr const char* kControlPath = "/org/verdin/tv/lumora2/control";
constexpr const char* kControlInterface = "org.verdin.tv.lumora2.SimControl";
constexpr const char* kMarker = "/tmp/lmf_service_ready";
constexpr const char* kMarkerLock = "/tmp/lmf_service_ready.lock";
constexpr int kControlTimeoutMs = 10000;

inline std::string Env(const char* name) {
    const char* value = getenv(name);
    return value != nullptr ? value : "";
}

inline std::vector<std::string> Words(const std::string& text) {
    std::vector<std::string> words;
    gchar** split = g_strsplit_set(text.c_str(), " \t", -1);
    for (gchar** word = split; *word != nullptr; ++word) {
        if (**word != '\0') words.push_back(*word);
    }
    g_strfreev(split);
    return words;
}

inline bool Exists(const std::string& path) { return !path.empty() && access(path.c_str(), F_OK) == 0; }

inline std::string FindOnPath(const char* name) {
    gchar* found = g_find_program_in_path(name);
    std::string result = found != nullptr ? found : "";
    g_free(found);
    return result;
}

inline std::string ShareFolderBeside(const std::string& program) {
    char* real = realpath(program.c_str(), nullptr);
    std::string path = real != nullptr ? real : program;
    free(real);
    return path.substr(0, path.rfind('/')) + "/../share/lumora-sim";
}

inline bool Alive(pid_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

inline pid_t MarkerPid() {
    gchar* text = nullptr;
    if (!g_file_get_contents(kMarker, &text, nullptr, nullptr)) return -1;
    long pid = strtol(text, nullptr, 10);
    g_free(text);
    return pid > 0 ? static_cast<pid_t>(pid) : -1;
}

/// Sleeps with GLib's clock (no time_t, whose 32-bit form ends in 2038).
inline void SleepMs(int ms) { g_usleep(static_cast<gulong>(ms) * 1000); }

/// SIGTERM (or sig), then SIGKILL after graceMs; the exit status, or -1
/// when a signal ended it.
inline int StopProcess(pid_t pid, int sig, int graceMs) {
    int status = 0;
    kill(pid, sig);
    for (int waited = 0;; waited += 10) {
        pid_t ended = waitpid(pid, &status, WNOHANG);
        if (ended < 0) return -1;  // not a child of this process (any more)
        if (ended == pid) break;
        if (waited >= graceMs) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        SleepMs(10);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Words as execve takes them, kept alive by the caller.
inline std::vector<char*> Pointers(std::vector<std::string>& words) {
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(&word[0]);
    pointers.push_back(nullptr);
    return pointers;
}

/**
 * Forks and executes argv with envp: in a process group of its own, ended by
 * SIGTERM with this process, standard input and output on /dev/null, and
 * addressFd (when not -1) as descriptor 3. Only async-signal-safe calls
 * between fork and exec, since a test process has threads.
 */
inline pid_t Spawn(std::vector<std::string> argv, std::vector<std::string> envp, int addressFd) {
    std::vector<char*> args = Pointers(argv);
    std::vector<char*> environment = Pointers(envp);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid != 0) return pid;
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    if (addressFd == 3) fcntl(3, F_SETFD, 0);
    else if (addressFd >= 0) dup2(addressFd, 3);
    execve(args[0], args.data(), environment.data());
    _exit(127);
}

inline std::vector<std::string> EnvironmentWith(const std::vector<std::pair<std::string, std::string>>& changes) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string text = *entry;
        bool replaced = false;
        for (const auto& change : changes) replaced = replaced || text.rfind(change.first + "=", 0) == 0;
        if (!replaced) environment.push_back(text);
    }
    for (const auto& change : changes) environment.push_back(change.first + "=" + change.second);
    return environment;
}

/// The first line fd gives within timeoutMs, without its newline; "" if none.
inline std::string ReadLine(int fd, int timeoutMs) {
    std::string text;
    for (int waited = 0; text.find('\n') == std::string::npos && waited < timeoutMs; waited += 50) {
        struct pollfd ready = {fd, POLLIN, 0};
        if (poll(&ready, 1, 50) <= 0) continue;
        char buffer[256];
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        text.append(buffer, static_cast<size_t>(n));
    }
    size_t end = text.find('\n');
    return end == std::string::npos ? "" : text.substr(0, end);
}

}  // namespace detail
/// @endcond

/**
 * @brief A dbus-daemon and lumora-sim of their own, and calls to the
 * simulator's control object.
 *
 * Every control method returns a passed GoogleTest AssertionResult, or a
 * failed one whose message is the simulator's or the bus's reason, so a test
 * writes ASSERT_TRUE(Sim().Set(...)). Not thread-safe.
 */
class Simulator {
public:
    /// Keeps options; nothing starts before Start().
    explicit Simulator(SimulatorOptions options = SimulatorOptions()) : m_options(std::move(options)) {}
    /// Close().
    ~Simulator() { Close(); }
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    /**
     * Starts the bus (the first time: the marker's lock taken, a folder made)
     * and a simulator on it, and waits until it is ready; after Kill() or
     * StopSimulator() a new simulator, from the scenario. Points the
     * environment at the bus. Fails with the reason when a program is
     * missing, the lock is held longer than the time-out, or the simulator
     * does not become ready.
     */
    ::testing::AssertionResult Start() {
        if (Running()) return ::testing::AssertionFailure() << "lumora-sim runs already (pid " << m_simPid << ")";
        if (m_busPid <= 0) {
            ::testing::AssertionResult bus = StartBus();
            if (!bus) {
                Close();
                return bus;
            }
        }
        return StartSimulator();
    }

    /// Stops the simulator (BYE) and the bus, removes the folder, gives the
    /// lock back and restores the environment. Idempotent.
    void Close() {
        DropConnection();
        StopSimulator();
        if (m_busPid > 0) detail::StopProcess(m_busPid, SIGTERM, 5000);
        m_busPid = -1;
        if (!m_folder.empty()) {
            for (const char* name : {"/bus", "/sim.log"}) unlink((m_folder + name).c_str());
            rmdir(m_folder.c_str());
            m_folder.clear();
        }
        if (m_lockFd >= 0) {
            if (ftruncate(m_lockFd, 0) != 0) {
                // read-only: another user's lock file, which needs no pid
            }
            close(m_lockFd);  // releases the flock
            m_lockFd = -1;
        }
        RestoreEnvironment();
    }

    /// Stops the simulator as a service stops (SIGTERM: it says BYE and
    /// removes its marker); its exit status, -1 when none ran. The bus stays.
    int StopSimulator() {
        if (m_simPid <= 0) return -1;
        int status = detail::StopProcess(m_simPid, SIGTERM, 10000);
        m_simPid = -1;
        return status;
    }

    /// Kills the simulator with SIGKILL, as a crash would: no BYE, and its
    /// marker stays until the next Start(). The bus stays.
    void Kill() {
        if (m_simPid <= 0) return;
        detail::StopProcess(m_simPid, SIGKILL, 0);
        m_simPid = -1;
    }

    /**
     * Kills the dbus-daemon (SIGKILL), which ends the simulator, and starts a
     * new daemon on the same address after pauseMs; then a new simulator
     * from the scenario, unless restartSimulator is false. Clients see their
     * connection closed, then the bus back where it was.
     */
    ::testing::AssertionResult RestartBus(int pauseMs = 0, bool restartSimulator = true) {
        DropConnection();
        if (m_busPid > 0) detail::StopProcess(m_busPid, SIGKILL, 0);
        m_busPid = -1;
        // It ends by itself, having lost its bus; SIGKILL only if it does not.
        if (m_simPid > 0) detail::StopProcess(m_simPid, 0, 10000);
        m_simPid = -1;
        detail::SleepMs(pauseMs);
        ::testing::AssertionResult bus = LaunchBus();
        if (!bus || !restartSimulator) return bus;
        return StartSimulator();
    }

    /// Whether the simulator started by this object still runs (one that
    /// ended is reaped, and Pid() is -1 from then on).
    bool Running() {
        if (m_simPid <= 0) return false;
        if (waitpid(m_simPid, nullptr, WNOHANG) == 0) return true;
        m_simPid = -1;
        return false;
    }
    /// The private bus, "unix:path=...", the same after RestartBus().
    const std::string& BusAddress() const { return m_address; }
    /// The simulator's pid, or -1.
    pid_t Pid() const { return m_simPid; }
    /// The dbus-daemon's pid, or -1.
    pid_t BusPid() const { return m_busPid; }
    /// The simulator's log file.
    const std::string& LogPath() const { return m_logPath; }

    /// @name The control object: one method each, as `lumora-sim ctl` has them
    /// @{

    /// The subject's value from now on (no signal); data is its text.
    ::testing::AssertionResult Set(const std::string& subject, const std::string& data) {
        return Control("SetValue", g_variant_new("(ss)", subject.c_str(), data.c_str()));
    }
    /// The subject answers "{}" again.
    ::testing::AssertionResult Clear(const std::string& subject) {
        return Control("ClearValue", g_variant_new("(s)", subject.c_str()));
    }
    /// Sends "Response" to the subject's subscribers as a write would; the
    /// number of signals sent goes to sent when given.
    ::testing::AssertionResult Emit(const std::string& subject, const std::string& data, unsigned* sent = nullptr) {
        return Control("Emit", g_variant_new("(ss)", subject.c_str(), data.c_str()), sent);
    }
    /// The result code of the subject's reads and requests; 0 restores success.
    ::testing::AssertionResult Code(const std::string& subject, int code) {
        return Control("SetResultCode", g_variant_new("(si)", subject.c_str(), static_cast<gint32>(code)));
    }
    /// The subject's answers leave ms milliseconds late; 0 ends it.
    ::testing::AssertionResult Delay(const std::string& subject, unsigned ms) {
        return Control("SetDelay", g_variant_new("(su)", subject.c_str(), static_cast<guint32>(ms)));
    }
    /// Replaces a statistics subject's records (tuples as a JSON array of arrays).
    ::testing::AssertionResult Stats(const std::string& subject, const std::string& tuplesJson) {
        return Control("SetStatistics", g_variant_new("(ss)", subject.c_str(), tuplesJson.c_str()));
    }
    /// Replaces the whitelist that ServiceEnable and HELLO carry.
    ::testing::AssertionResult WhiteList(const std::vector<std::string>& names) {
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
        for (const std::string& name : names) g_variant_builder_add(&builder, "s", name.c_str());
        return Control("SetWhiteList", g_variant_new("(as)", &builder));
    }
    /// A channel event ("list", "current", "program", "stb"), with data (JSON)
    /// stored first unless empty; the number of signals sent goes to sent.
    ::testing::AssertionResult Event(const std::string& kind, const std::string& data = "",
                                     unsigned* sent = nullptr) {
        return Control("EmitEvent", g_variant_new("(ss)", kind.c_str(), data.c_str()), sent);
    }
    /// BYE, marker removed, subscriptions forgotten; after pauseMs the marker
    /// and HELLO. Returns after the HELLO.
    ::testing::AssertionResult Restart(unsigned pauseMs = 0) {
        return Control("Restart", g_variant_new("(u)", static_cast<guint32>(pauseMs)), nullptr,
                       detail::kControlTimeoutMs + static_cast<int>(pauseMs));
    }
    /// ServiceEnable answers that the service is not enabled.
    ::testing::AssertionResult Disable() { return Control("SetEnabled", g_variant_new("(b)", FALSE)); }
    /// ServiceEnable answers that the service is enabled.
    ::testing::AssertionResult Enable() { return Control("SetEnabled", g_variant_new("(b)", TRUE)); }
    /// Service calls are held unanswered from now on (their callers time out).
    ::testing::AssertionResult StopAnswering() { return Control("StopAnswering", nullptr); }
    /// Answers the held calls in order; their number goes to answered.
    ::testing::AssertionResult ResumeAnswering(unsigned* answered = nullptr) {
        return Control("ResumeAnswering", nullptr, answered);
    }
    /// The simulator's whole state as JSON text (values, codes, delays,
    /// subscriptions, held and delayed calls...), for the caller to parse.
    ::testing::AssertionResult Status(std::string& json) {
        GVariant* reply = nullptr;
        ::testing::AssertionResult result = Call(detail::kControlPath, detail::kControlInterface, "GetStatus",
                                                 nullptr, "(s)", detail::kControlTimeoutMs, &reply);
        if (result) {
            const gchar* text = nullptr;
            g_variant_get(reply, "(&s)", &text);
            json = text;
            g_variant_unref(reply);
        }
        return result;
    }
    /// @}

    /// What the service answers a plain read of subject ("RequestSync" type
    /// 1), as a client of the bus sees it.
    SimulatorAnswer Read(const std::string& subject, const std::string& input = "") {
        GVariant* reply = nullptr;
        GVariant* request = g_variant_new("(iiiss)", static_cast<gint32>(getpid()), 1, ++m_requestId, subject.c_str(),
                                          input.c_str());
        ::testing::AssertionResult result = Call(detail::kServicePath, detail::kServiceInterface, "RequestSync",
                                                 request, "(is)", detail::kControlTimeoutMs, &reply);
        SimulatorAnswer answer;
        if (!result) {
            answer.error = result.message();
            return answer;
        }
        const gchar* text = nullptr;
        gint32 code = 0;
        g_variant_get(reply, "(i&s)", &code, &text);
        answer.code = code;
        answer.value = text;
        g_variant_unref(reply);
        return answer;
    }

private:
    ::testing::AssertionResult Fail(const std::string& why) { return ::testing::AssertionFailure() << why; }

    ::testing::AssertionResult FindPrograms() {
        m_simulator = detail::Env("LUMORA_SIM");
        if (m_simulator.empty()) m_simulator = detail::FindOnPath("lumora-sim");
        if (m_simulator.empty()) return Fail("lumora-sim not found (LUMORA_SIM, or PATH)");
        if (access(m_simulator.c_str(), X_OK) != 0)
            return Fail("lumora-sim (" + m_simulator + ") cannot be run: " + strerror(errno));
        m_daemon = detail::Env("LUMORA_SIM_DBUS_DAEMON");
        if (m_daemon.empty()) m_daemon = detail::FindOnPath("dbus-daemon");
        if (m_daemon.empty()) return Fail("dbus-daemon not found (LUMORA_SIM_DBUS_DAEMON, or PATH)");
        m_config = detail::Env("LUMORA_SIM_DBUS_CONFIG");
        for (const std::string& candidate : {detail::ShareFolderBeside(m_simulator), std::string("/usr/share/lumora-sim")}) {
            if (m_config.empty() && detail::Exists(candidate + "/lumora-private-bus.conf"))
                m_config = candidate + "/lumora-private-bus.conf";
        }
        if (!detail::Exists(m_config))
            return Fail("no private-bus configuration (LUMORA_SIM_DBUS_CONFIG, or share/lumora-sim beside " +
                        m_simulator + ")");
        return ::testing::AssertionSuccess();
    }

    /// The marker's lock, waited for up to lockTimeoutMs; refused while a
    /// live simulator that holds no lock serves the marker.
    ::testing::AssertionResult TakeLock() {
        m_lockFd = open(detail::kMarkerLock, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (m_lockFd < 0) m_lockFd = open(detail::kMarkerLock, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (m_lockFd < 0) return Fail(std::string(detail::kMarkerLock) + ": " + strerror(errno));
        for (int waited = 0; flock(m_lockFd, LOCK_EX | LOCK_NB) != 0; waited += 50) {
            if (waited >= m_options.lockTimeoutMs) {
                close(m_lockFd);
                m_lockFd = -1;
                return Fail(std::string("another simulator's owner holds ") + detail::kMarkerLock);
            }
            detail::SleepMs(50);
        }
        pid_t server = detail::MarkerPid();
        if (detail::Alive(server))
            return Fail("a simulator (pid " + std::to_string(server) + ") that holds no lock serves " + detail::kMarker);
        std::string pid = std::to_string(getpid()) + "\n";
        if (ftruncate(m_lockFd, 0) != 0 || write(m_lockFd, pid.data(), pid.size()) < 0) {
            // read-only: the lock holds without the pid
        }
        return ::testing::AssertionSuccess();
    }

    ::testing::AssertionResult StartBus() {
        ::testing::AssertionResult found = FindPrograms();
        if (!found) return found;
        ::testing::AssertionResult locked = TakeLock();
        if (!locked) return locked;
        gchar* folder = g_dir_make_tmp("lumora-sim-XXXXXX", nullptr);
        if (folder == nullptr) return Fail("no temporary folder");
        m_folder = folder;
        g_free(folder);
        if (m_options.logFile.empty()) m_logPath = m_folder + "/sim.log";
        else m_logPath = m_options.logFile;
        // A path, not the printed address with its guid: a daemon started
        // again on it has another guid, and clients must reach it too.
        m_address = "unix:path=" + m_folder + "/bus";
        return LaunchBus();
    }

    ::testing::AssertionResult LaunchBus() {
        int pipeFds[2];
        if (pipe2(pipeFds, O_CLOEXEC) != 0) return Fail(std::string("pipe: ") + strerror(errno));
        m_busPid = detail::Spawn({m_daemon, "--config-file=" + m_config, "--nofork", "--nopidfile", "--print-address=3",
                                  "--address=" + m_address},
                                 detail::EnvironmentWith({}), pipeFds[1]);
        close(pipeFds[1]);
        std::string printed = detail::ReadLine(pipeFds[0], 10000);
        close(pipeFds[0]);
        if (m_busPid > 0 && !printed.empty()) return ::testing::AssertionSuccess();
        if (m_busPid > 0) detail::StopProcess(m_busPid, SIGKILL, 0);
        m_busPid = -1;
        return Fail("dbus-daemon (" + m_daemon + ") did not start");
    }

    ::testing::AssertionResult StartSimulator() {
        pid_t stale = detail::MarkerPid();
        if (stale > 0 && !detail::Alive(stale)) unlink(detail::kMarker);  // left by a killed simulator
        std::vector<std::string> argv = m_options.launcher;
        if (argv.empty()) argv = detail::Words(detail::Env("LUMORA_SIM_LAUNCHER"));
        argv.push_back(m_simulator);
        if (!m_options.scenario.empty()) argv.insert(argv.end(), {"--scenario", m_options.scenario});
        argv.insert(argv.end(), m_options.extraArgs.begin(), m_options.extraArgs.end());
        if (argv[0].find('/') == std::string::npos) argv[0] = detail::FindOnPath(argv[0].c_str());
        m_simPid = detail::Spawn(argv,
                                 detail::EnvironmentWith({{"DBUS_SYSTEM_BUS_ADDRESS", m_address},
                                                          {"LUMORA_LOG_FILE", m_logPath}}),
                                 -1);
        for (int waited = 0; !Ready(); waited += 20) {
            if (!Running() || waited >= m_options.readyTimeoutMs) {
                if (m_simPid > 0) detail::StopProcess(m_simPid, SIGKILL, 0);
                m_simPid = -1;
                return Fail("lumora-sim did not become ready (see its log " + m_logPath + ")");
            }
            detail::SleepMs(20);
        }
        ExportEnvironment();
        return ::testing::AssertionSuccess();
    }

    // Once the marker names the simulator, its HELLO left before the answer
    // to this control call: a client started now cannot hear it late.
    bool Ready() {
        if (detail::MarkerPid() != m_simPid) return false;
        std::string ignored;
        return static_cast<bool>(Status(ignored));
    }

    void ExportEnvironment() {
        const char* names[] = {"DBUS_SYSTEM_BUS_ADDRESS", "LUMORA_SIM_BUS_ADDRESS", "LUMORA_SIM_PID"};
        if (m_saved.empty()) {
            for (const char* name : names) {
                const char* value = getenv(name);
                m_saved.push_back({name, value != nullptr ? std::make_pair(true, std::string(value))
                                                          : std::make_pair(false, std::string())});
            }
        }
        setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
        setenv("LUMORA_SIM_BUS_ADDRESS", m_address.c_str(), 1);
        setenv("LUMORA_SIM_PID", std::to_string(m_simPid).c_str(), 1);
    }

    void RestoreEnvironment() {
        for (const auto& saved : m_saved) {
            if (saved.second.first) setenv(saved.first.c_str(), saved.second.second.c_str(), 1);
            else unsetenv(saved.first.c_str());
        }
        m_saved.clear();
    }

    GDBusConnection* Connection(std::string& error) {
        if (m_connection != nullptr && g_dbus_connection_is_closed(m_connection)) DropConnection();
        if (m_connection == nullptr) {
            GError* failure = nullptr;
            m_connection = g_dbus_connection_new_for_address_sync(
                m_address.c_str(),
                static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                  G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                nullptr, nullptr, &failure);
            if (m_connection == nullptr) {
                error = failure->message;
                g_error_free(failure);
            }
        }
        return m_connection;
    }

    void DropConnection() {
        if (m_connection == nullptr) return;
        g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
        g_object_unref(m_connection);
        m_connection = nullptr;
    }

    // One call to the simulator's name; the reply (when reply is given) is
    // the caller's to unref. parameters is consumed when floating.
    ::testing::AssertionResult Call(const char* path, const char* interface, const char* method, GVariant* parameters,
                                    const char* replyType, int timeoutMs, GVariant** reply) {
        std::string why;
        GDBusConnection* connection = Connection(why);
        if (connection == nullptr) {
            if (parameters != nullptr) g_variant_unref(g_variant_ref_sink(parameters));
            return Fail(std::string(method) + ": no bus connection: " + why);
        }
        GError* error = nullptr;
        GVariant* answer = g_dbus_connection_call_sync(connection, detail::kBusName, path, interface, method,
                                                       parameters, replyType != nullptr ? G_VARIANT_TYPE(replyType)
                                                                                        : nullptr,
                                                       G_DBUS_CALL_FLAGS_NONE, timeoutMs, nullptr, &error);
        if (answer == nullptr) {
            ::testing::AssertionResult failed = Fail(std::string(method) + ": " + error->message);
            g_error_free(error);
            return failed;
        }
        if (reply != nullptr) *reply = answer;
        else g_variant_unref(answer);
        return ::testing::AssertionSuccess();
    }

    // A control call; a "(u)" answer goes to count when given.
    ::testing::AssertionResult Control(const char* method, GVariant* parameters, unsigned* count = nullptr,
                                       int timeoutMs = detail::kControlTimeoutMs) {
        GVariant* reply = nullptr;
        ::testing::AssertionResult result =
            Call(detail::kControlPath, detail::kControlInterface, method, parameters, nullptr, timeoutMs, &reply);
        if (!result) return result;
        if (count != nullptr && g_variant_is_of_type(reply, G_VARIANT_TYPE("(u)"))) {
            guint32 value = 0;
            g_variant_get(reply, "(u)", &value);
            *count = value;
        }
        g_variant_unref(reply);
        return result;
    }

    SimulatorOptions m_options;
    std::string m_simulator;
    std::string m_daemon;
    std::string m_config;
    std::string m_folder;
    std::string m_address;
    std::string m_logPath;
    pid_t m_busPid = -1;
    pid_t m_simPid = -1;
    int m_lockFd = -1;
    int m_requestId = 0;
    GDBusConnection* m_connection = nullptr;
    std::vector<std::pair<std::string, std::pair<bool, std::string>>> m_saved;  // the environment before Start()
};

/**
 * @brief A GoogleTest fixture with a Simulator of its own per test: started in
 * SetUp(), stopped in TearDown().
 *
 * A fixture that needs a scenario or options overrides SimOptions().
 */
class LumoraSimTest : public ::testing::Test {
protected:
    /// The options of each test's Simulator; none by default.
    virtual SimulatorOptions SimOptions() const { return SimulatorOptions(); }
    /// Starts the Simulator; a failure to start fails the test.
    void SetUp() override {
        m_sim.reset(new Simulator(SimOptions()));
        ASSERT_TRUE(m_sim->Start());
    }
    /// Stops the Simulator and restores the environment.
    void TearDown() override { m_sim.reset(); }
    /// The test's Simulator.
    Simulator& Sim() { return *m_sim; }

private:
    std::unique_ptr<Simulator> m_sim;
};

/**
 * @brief A GoogleTest fixture whose tests share one Simulator per test suite
 * (Suite: the fixture class itself), started before its first test and
 * stopped after its last. Suite may declare `static SimulatorOptions
 * SimOptions()`. What one test changes, the next one sees.
 */
template <class Suite>
class LumoraSimSuiteTest : public ::testing::Test {
public:
    /// Starts the suite's Simulator; a failure fails every test of the suite.
    static void SetUpTestSuite() {
        Shared().reset(new Simulator(Suite::SimOptions()));
        ::testing::AssertionResult started = Shared()->Start();
        if (!started) {
            Shared().reset();
            ADD_FAILURE() << started.message();
        }
    }
    /// Stops the suite's Simulator.
    static void TearDownTestSuite() { Shared().reset(); }
    /// The options of the suite's Simulator; none by default.
    static SimulatorOptions SimOptions() { return SimulatorOptions(); }

protected:
    /// Fails the test when the suite's Simulator did not start.
    void SetUp() override { ASSERT_TRUE(Shared() != nullptr) << "the suite's simulator did not start"; }
    /// The suite's Simulator.
    static Simulator& Sim() { return *Shared(); }

private:
    static std::unique_ptr<Simulator>& Shared() {
        static std::unique_ptr<Simulator> simulator;
        return simulator;
    }
};

}  // namespace testing
}  // namespace lumora

#endif  // LUMORA_TESTING_LUMORASIMFIXTURE_H
