// RunSession: the steps of one `lumora-sim run`, from the private /tmp to the
// clean-up after the command.
#include "RunSession.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ControlContract.h"
#include "SimLog.h"
#include "internal/ServiceContract.h"

namespace lumora::sim {

namespace {

constexpr int kBusAddressTimeoutMs = 10000;
// A simulator started through qemu-user takes seconds.
constexpr int kReadyTimeoutMs = 30000;
constexpr int kPanelUrlTimeoutMs = 5000;
constexpr int kSimulatorGraceMs = 10000;
constexpr int kBusGraceMs = 5000;
constexpr const char* kConfigName = "lumora-private-bus.conf";

// Deadlines on GLib's monotonic clock, in 64-bit microseconds.
gint64 DeadlineIn(int ms) { return g_get_monotonic_time() + static_cast<gint64>(ms) * 1000; }
bool Passed(gint64 deadline) { return g_get_monotonic_time() >= deadline; }
int MillisecondsLeft(gint64 deadline) {
    gint64 left = (deadline - g_get_monotonic_time()) / 1000;
    return left > 0 ? static_cast<int>(left) : 0;
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::string FromEnvironment(const char* name) {
    const char* value = getenv(name);
    return value != nullptr ? value : "";
}

// The folder of this program as the kernel ran it (an emulator of a cross
// build reports the program it runs).
std::string ProgramFolder() {
    gchar* program = g_file_read_link("/proc/self/exe", nullptr);
    if (program == nullptr) return "";
    gchar* folder = g_path_get_dirname(program);
    std::string result = folder;
    g_free(folder);
    g_free(program);
    return result;
}

// The private-bus configuration: LUMORA_SIM_DBUS_CONFIG, else the one beside
// this program (PREFIX/share/lumora-sim of an installed tree, and the build
// tree's copy under tools/share), else the one of the configured prefix.
std::string FindBusConfig(std::string& looked) {
    std::string named = FromEnvironment("LUMORA_SIM_DBUS_CONFIG");
    if (!named.empty()) {
        looked = "LUMORA_SIM_DBUS_CONFIG=" + named;
        return Exists(named) ? named : "";
    }
    std::vector<std::string> candidates = {ProgramFolder() + "/../share/lumora-sim/" + kConfigName,
                                           std::string(LUMORA_SIM_DATADIR) + "/lumora-sim/" + kConfigName};
    for (const std::string& candidate : candidates) {
        if (Exists(candidate)) return candidate;
        looked += (looked.empty() ? "" : ", ") + candidate;
    }
    return "";
}

std::string FindBusDaemon() {
    std::string named = FromEnvironment("LUMORA_SIM_DBUS_DAEMON");
    if (!named.empty()) return named;
    gchar* found = g_find_program_in_path("dbus-daemon");
    std::string result = found != nullptr ? found : "";
    g_free(found);
    return result;
}

// Whether the simulator answers a control call: once the marker names it,
// its HELLO left before this answer, on the same connection, so a client
// started now cannot hear that HELLO late.
bool SimulatorAnswers(GDBusConnection*& connection, const std::string& address) {
    if (connection == nullptr) {
        connection = g_dbus_connection_new_for_address_sync(address.c_str(), lumora::contract::kConnectionFlags,
                                                             nullptr, nullptr, nullptr);
        if (connection == nullptr) return false;
    }
    GVariant* reply = g_dbus_connection_call_sync(connection, lumora::contract::kBusName, kControlPath,
                                                  kControlInterface, kCtlGetStatus, nullptr, G_VARIANT_TYPE("(s)"),
                                                  G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr);
    if (reply != nullptr) g_variant_unref(reply);
    return reply != nullptr;
}

void RemoveFolder(const std::string& folder) {
    for (const char* name : {"bus", kConfigName}) unlink((folder + "/" + name).c_str());
    if (rmdir(folder.c_str()) != 0) SIM_LOGW("run: %s not removed: %s", folder.c_str(), strerror(errno));
}

}  // namespace

RunSession::RunSession(RunOptions options, SimulatorMain& simulator)
    : m_options(std::move(options)), m_simulator(simulator) {}

RunSession::~RunSession() {
    if (m_devNull >= 0) close(m_devNull);
    if (m_urlFd >= 0) close(m_urlFd);
}

int RunSession::Run() {
    int status = kRunFailed;
    if (Prepare() && ChooseTmp() && StartBus() && StartSimulator() && WaitUntilReady() && ReadPanelUrl()) {
        status = RunTheCommand();
    } else if (m_stopSignal != 0) {
        SIM_LOGI("run: %s before the command started, stopping", sigabbrev_np(m_stopSignal));
        status = 128 + m_stopSignal;
    }
    Shutdown();
    return status;
}

bool RunSession::Fail(const std::string& line) {
    SIM_LOGE("run: %s", line.c_str());
    fprintf(stderr, "lumora-sim run: %s\n", line.c_str());
    return false;
}

// Everything read from files happens here, before /tmp may change.
bool RunSession::Prepare() {
    std::string why;
    if (!m_signals.Block(why)) return Fail(why);
    m_devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (m_devNull < 0) return Fail(std::string("/dev/null: ") + strerror(errno));
    m_daemon = FindBusDaemon();
    if (m_daemon.empty()) return Fail("dbus-daemon not found on PATH (Debian package dbus-daemon, or LUMORA_SIM_DBUS_DAEMON)");
    std::string looked;
    m_config = FindBusConfig(looked);
    if (m_config.empty()) return Fail("no private-bus configuration (" + looked + ")");
    gchar* text = nullptr;
    GError* error = nullptr;
    if (!g_file_get_contents(m_config.c_str(), &text, nullptr, &error)) {
        std::string message = error->message;
        g_error_free(error);
        return Fail(message);
    }
    m_configText = text;
    g_free(text);
    // The simulator's own files (scenario, timeline) are read now too.
    return m_simulator.Prepare(m_options.simulatorWords);
}

bool RunSession::ChooseTmp() {
    if (m_options.sharedTmp) {
        m_tmpReason = "--shared-tmp";
    } else {
        m_privateTmp = MakePrivateTmp(m_tmpReason);
    }
    if (m_privateTmp) {
        SIM_LOGI("run: a /tmp of its own");
        return true;
    }
    std::string why;
    if (!m_lock.Acquire(why))
        return Fail(why + "; without a /tmp of their own runs take turns (" + m_tmpReason + ")");
    SIM_LOGI("run: the machine's /tmp, held through %s (%s)", kMarkerLockFile, m_tmpReason.c_str());
    return true;
}

bool RunSession::StartBus() {
    std::string pattern = std::string(g_get_tmp_dir()) + "/lumora-sim-run-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return Fail(pattern + ": " + strerror(errno));
    m_folder = pattern;
    // A configuration under the machine's /tmp is out of reach now.
    if (!Exists(m_config)) {
        m_config = m_folder + "/" + kConfigName;
        if (!g_file_set_contents(m_config.c_str(), m_configText.c_str(), -1, nullptr))
            return Fail("cannot write " + m_config);
    }
    int address[2];
    if (pipe2(address, 0) != 0) return Fail(std::string("pipe: ") + strerror(errno));
    fcntl(address[0], F_SETFD, FD_CLOEXEC);
    ExecArgs args{m_daemon,
                  {m_daemon, "--config-file=" + m_config, "--nofork", "--nopidfile",
                   "--print-address=" + std::to_string(address[1]), "--address=unix:path=" + m_folder + "/bus"},
                  {}};
    m_busPid = SpawnHelper(args, m_signals, m_devNull);
    close(address[1]);
    bool read = m_busPid > 0 && ReadBusAddress(address[0]);
    close(address[0]);
    if (!read) return m_stopSignal != 0 ? false : Fail("dbus-daemon (" + m_daemon + ") did not start");
    SIM_LOGI("run: bus at %s (dbus-daemon pid %d)", m_address.c_str(), m_busPid);
    return true;
}

bool RunSession::ReadBusAddress(int fd) {
    std::string line;
    gint64 deadline = DeadlineIn(kBusAddressTimeoutMs);
    while (line.find('\n') == std::string::npos && m_stopSignal == 0 && !Passed(deadline)) {
        if (!Pump(fd, MillisecondsLeft(deadline))) continue;
        char buffer[256];
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;  // the daemon ended, or closed it without an address
        line.append(buffer, static_cast<size_t>(n));
    }
    size_t end = line.find('\n');
    if (end == std::string::npos) return false;
    m_address = line.substr(0, end);
    return true;
}

bool RunSession::StartSimulator() {
    int url[2] = {-1, -1};
    if (m_options.http && pipe2(url, O_CLOEXEC) != 0) return Fail(std::string("pipe: ") + strerror(errno));
    fflush(nullptr);  // nothing buffered here is written twice
    m_simPid = ForkHelper(m_signals, m_devNull);
    if (m_simPid == 0) {
        // The simulator proper, in this forked copy of the run: the program
        // is this one, already prepared, so nothing needs to be executed.
        close(m_signals.Fd());
        if (url[0] >= 0) close(url[0]);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
        int status = m_simulator.Serve(url[1]);
        fflush(nullptr);
        _exit(status);
    }
    if (url[1] >= 0) close(url[1]);
    m_urlFd = url[0];
    if (m_simPid < 0) return Fail(std::string("fork: ") + strerror(errno));
    m_simStarted = m_simPid;
    SIM_LOGI("run: simulator started (pid %d)", m_simPid);
    return true;
}

bool RunSession::WaitUntilReady() {
    GDBusConnection* connection = nullptr;
    gint64 deadline = DeadlineIn(kReadyTimeoutMs);
    bool ready = false;
    int status = 0;
    while (!ready && m_stopSignal == 0) {
        if (Reaped(m_simPid, status)) {
            m_simPid = -1;
            Fail("the simulator did not start (" + DescribeStatus(status) + ")");
            break;
        }
        if (Reaped(m_busPid, status)) {
            m_busPid = -1;
            Fail("dbus-daemon ended before the simulator was ready (" + DescribeStatus(status) + ")");
            break;
        }
        if (Passed(deadline)) {
            Fail("the simulator was not ready within " + std::to_string(kReadyTimeoutMs / 1000) + " s");
            break;
        }
        ready = MarkerPid() == m_simPid && SimulatorAnswers(connection, m_address);
        if (!ready) Pump(-1, 20);
    }
    if (connection != nullptr) {
        g_dbus_connection_close_sync(connection, nullptr, nullptr);
        g_object_unref(connection);
    }
    if (ready) SIM_LOGI("run: simulator ready (pid %d)", m_simPid);
    return ready;
}

bool RunSession::ReadPanelUrl() {
    if (m_urlFd < 0) return true;
    std::string line;
    gint64 deadline = DeadlineIn(kPanelUrlTimeoutMs);
    while (line.find('\n') == std::string::npos && m_stopSignal == 0 && !Passed(deadline)) {
        if (!Pump(m_urlFd, MillisecondsLeft(deadline))) continue;
        char buffer[256];
        ssize_t n = read(m_urlFd, buffer, sizeof buffer);
        if (n <= 0) break;
        line.append(buffer, static_cast<size_t>(n));
    }
    size_t end = line.find('\n');
    if (end == std::string::npos) return m_stopSignal != 0 ? false : Fail("the simulator gave no control panel URL");
    m_panelUrl = line.substr(0, end);
    SIM_LOGI("run: control panel at %s", m_panelUrl.c_str());
    return true;
}

std::vector<std::string> RunSession::CommandEnvironment() const {
    std::vector<std::string> environment = m_options.environment;
    environment.push_back("DBUS_SYSTEM_BUS_ADDRESS=" + m_address);
    environment.push_back("LUMORA_SIM_BUS_ADDRESS=" + m_address);
    environment.push_back("LUMORA_SIM_PID=" + std::to_string(m_simPid));
    if (!m_panelUrl.empty()) environment.push_back("LUMORA_SIM_HTTP_URL=" + m_panelUrl);
    return environment;
}

int RunSession::RunTheCommand() {
    ExecArgs args{m_options.commandPath, m_options.command, CommandEnvironment()};
    int error = 0;
    pid_t pid = SpawnCommand(args, m_signals, error);
    if (pid < 0) {
        Fail(m_options.commandPath + ": " + strerror(error));
        return error == ENOENT ? kCommandNotFound : kCommandNotRunnable;
    }
    SIM_LOGI("run: command started (pid %d): %s", pid, m_options.command[0].c_str());
    int status = Supervise(pid);
    SIM_LOGI("run: command ended (%s)", DescribeStatus(status).c_str());
    return ShellStatus(status);
}

int RunSession::Supervise(pid_t command) {
    int status = 0;
    while (!Reaped(command, status)) {
        Pump(-1, 200);
        if (m_forward) {
            m_forward = false;
            SIM_LOGI("run: %s passed to the command", sigabbrev_np(m_stopSignal));
            kill(command, m_stopSignal);
        }
        ReapHelpers();
    }
    return status;
}

// A test may end the simulator on purpose (LUMORA_SIM_PID); the run goes on,
// and says so.
void RunSession::ReapHelpers() {
    int status = 0;
    if (Reaped(m_simPid, status)) {
        SIM_LOGW("run: the simulator (pid %d) ended while the command runs (%s)", m_simPid,
                 DescribeStatus(status).c_str());
        m_simPid = -1;
    }
    if (Reaped(m_busPid, status)) {
        SIM_LOGW("run: dbus-daemon (pid %d) ended while the command runs (%s)", m_busPid,
                 DescribeStatus(status).c_str());
        m_busPid = -1;
    }
}

bool RunSession::Pump(int fd, int timeoutMs) {
    struct pollfd fds[2] = {{m_signals.Fd(), POLLIN, 0}, {fd, POLLIN, 0}};
    int ready = poll(fds, fd >= 0 ? 2 : 1, timeoutMs);
    if (ready <= 0) return false;
    if (fds[0].revents != 0) {
        int stop = 0;
        bool fromProcess = false;
        m_signals.Drain(stop, fromProcess);
        if (stop != 0) {
            m_stopSignal = stop;
            m_forward = fromProcess;
        }
    }
    return fd >= 0 && fds[1].revents != 0;
}

// The simulator first, so that its BYE still has a bus to go out on.
void RunSession::Shutdown() {
    if (m_simPid > 0) {
        int status = StopChild(m_simPid, kSimulatorGraceMs);
        SIM_LOGI("run: simulator stopped (%s)", DescribeStatus(status).c_str());
        m_simPid = -1;
    }
    if (!m_privateTmp) m_lock.RemoveMarkerOf(m_simStarted);
    if (m_busPid > 0) {
        int status = StopChild(m_busPid, kBusGraceMs);
        SIM_LOGI("run: dbus-daemon stopped (%s)", DescribeStatus(status).c_str());
        m_busPid = -1;
    }
    if (!m_folder.empty()) RemoveFolder(m_folder);
}

}  // namespace lumora::sim
