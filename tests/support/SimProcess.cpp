// SimProcess: fork/exec of the simulator, readiness by name owner and marker.
#include "SimProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "ChildProcess.h"
#include "ControlContract.h"
#include "Emulator.h"
#include "internal/ServiceContract.h"

namespace lumora::test {

const char* SimExecutable() { return LUMORA_SIM_EXECUTABLE; }
const char* SampleScenario() { return LUMORA_SAMPLE_SCENARIO; }
const char* CliExecutable() { return LUMORA_CLI_EXECUTABLE; }

bool ReadyMarkerExists() { return access(lumora::contract::kReadyMarkerFile, F_OK) == 0; }

namespace {

// argv (from Launch::Argv) and envp, which when given replaces this
// process's environment, are built before the fork, since the child of a
// threaded process may not allocate.
[[noreturn]] void ExecProgram(const Launch& launch, char* const* argv, char* const* envp = nullptr) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    execve(launch.file.c_str(), argv, envp != nullptr ? envp : environ);
    fprintf(stderr, "exec %s: %s\n", launch.file.c_str(), strerror(errno));
    _exit(127);
}

int ExitStatusOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

// Waits for pid up to timeoutMs; true (status set) when it ended.
bool WaitForPid(pid_t pid, int timeoutMs, int& status) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        if (waitpid(pid, &status, WNOHANG) == pid) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

}  // namespace

SimProcess::~SimProcess() { Stop(); }

bool SimProcess::Start(const std::string& scenario, const std::vector<std::string>& extraArgs) {
    // A marker left by a crashed run would make the wait below meaningless.
    unlink(lumora::contract::kReadyMarkerFile);
    std::vector<std::string> args = {"--scenario", scenario};
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    const std::string kVariable = "DBUS_SYSTEM_BUS_ADDRESS=";
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (m_busAddress.empty() || std::string(*entry).rfind(kVariable, 0) != 0) environment.emplace_back(*entry);
    }
    if (!m_busAddress.empty()) environment.push_back(kVariable + m_busAddress);
    std::vector<char*> envp;
    for (std::string& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);
    Launch launch = LaunchOf(SimExecutable(), args);
    std::vector<char*> argv = launch.Argv();
    // Ready is when the simulator has said HELLO, after its name and marker:
    // a test that listens once Start returned never hears that HELLO late
    // (as it could on a slow machine, or under an emulator, where the
    // marker and the HELLO lie further apart). The watcher hears it on a
    // main context of this call's own.
    const char* address = m_busAddress.empty() ? getenv("DBUS_SYSTEM_BUS_ADDRESS") : m_busAddress.c_str();
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GDBusConnection* watcher = address != nullptr ? ConnectToBus(address) : nullptr;
    bool hello = false;
    guint subscription = 0;
    if (watcher != nullptr) {
        subscription = g_dbus_connection_signal_subscribe(
            watcher, nullptr, lumora::contract::kInterface, lumora::contract::kSignalResponse,
            lumora::contract::kObjectPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
               gpointer seen) {
                const gchar* subject = nullptr;
                if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(iss)"))) {
                    g_variant_get_child(parameters, 1, "&s", &subject);
                    if (g_strcmp0(subject, lumora::contract::kHello) == 0) *static_cast<bool*>(seen) = true;
                }
            },
            &hello, nullptr);
        // A round trip after the AddMatch: the daemon handles both in order.
        NameHasOwner(watcher, "org.freedesktop.DBus");
    }
    m_pid = fork();
    if (m_pid == 0) ExecProgram(launch, argv.data(), envp.data());
    bool ready =
        m_pid > 0 && watcher != nullptr &&
        WaitUntil(
            [&] {
                while (g_main_context_iteration(context, FALSE)) {
                }
                int status = 0;
                if (waitpid(m_pid, &status, WNOHANG) == m_pid) m_pid = -1;
                return m_pid < 0 || (hello && NameHasOwner(watcher, lumora::contract::kBusName) && ReadyMarkerExists());
            },
            30000);
    if (subscription != 0) g_dbus_connection_signal_unsubscribe(watcher, subscription);
    if (watcher != nullptr) g_object_unref(watcher);
    while (g_main_context_iteration(context, FALSE)) {
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
    if (!ready || m_pid < 0) {
        fprintf(stderr, "lumora-sim did not become ready\n");
        Stop();
        return false;
    }
    return true;
}

int SimProcess::Stop() {
    if (m_pid <= 0) return -1;
    int status = 0;
    kill(m_pid, SIGTERM);
    if (!WaitForPid(m_pid, 10000, status)) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &status, 0);
    }
    m_pid = -1;
    return ExitStatusOf(status);
}

int SimProcess::WaitForExit(int timeoutMs) {
    if (m_pid <= 0) return -1;
    int status = 0;
    if (!WaitForPid(m_pid, timeoutMs, status)) return -2;
    m_pid = -1;
    return ExitStatusOf(status);
}

RunResult SimProcess::Run(const std::vector<std::string>& args, int timeoutMs) {
    return RunProgram(SimExecutable(), args, timeoutMs);
}

pid_t SpawnWithPipes(const std::string& executable, const std::vector<std::string>& args, int& outFd, int& errFd) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return -1;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return -1;
    }
    Launch launch = LaunchOf(executable, args);
    std::vector<char*> argv = launch.Argv();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        ExecProgram(launch, argv.data());
    }
    close(out[1]);
    close(err[1]);
    if (pid < 0) {
        fprintf(stderr, "fork for %s: %s\n", executable.c_str(), strerror(errno));
        close(out[0]);
        close(err[0]);
        return -1;
    }
    outFd = out[0];
    errFd = err[0];
    return pid;
}

RunResult RunProgram(const std::string& executable, const std::vector<std::string>& args, int timeoutMs) {
    RunResult result;
    ChildProcess child;
    if (!child.Start(executable, args)) return result;
    int status = child.Wait(timeoutMs);
    // Output closed late gets a grace before the kill (by the child's end).
    if (status == -2) status = child.Wait(1000 + timeoutMs / 10);
    result.exitStatus = status == -2 ? -1 : status;
    result.out = child.Out();
    result.err = child.Err();
    return result;
}

CallResult CallControl(GDBusConnection* connection, const char* method, GVariant* parameters, int timeoutMs) {
    return CallMethod(connection, lumora::contract::kBusName, lumora::sim::kControlPath, lumora::sim::kControlInterface,
                      method, parameters, timeoutMs);
}

std::string ServiceValue(GDBusConnection* connection, const std::string& subject) {
    CallResult result = CallMethod(
        connection, lumora::contract::kBusName, lumora::contract::kObjectPath, lumora::contract::kInterface,
        lumora::contract::kMethodRequestSync,
        g_variant_new(lumora::contract::kRequestTuple, 0, lumora::contract::kRequestRead, 0, subject.c_str(), ""));
    if (!result.Ok()) return result.Print();
    const gchar* text = nullptr;
    g_variant_get_child(result.reply.get(), 1, "&s", &text);
    return text;
}

}  // namespace lumora::test
