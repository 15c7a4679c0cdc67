// lumora-sim as a child process of a test, on the test's private bus.
#ifndef LUMORA_TESTS_SIMPROCESS_H
#define LUMORA_TESTS_SIMPROCESS_H

#include <gio/gio.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "BusCalls.h"

namespace lumora::test {

/// The built simulator and the sample scenario that ships with it.
const char* SimExecutable();
const char* SampleScenario();
/// The built command-line client.
const char* CliExecutable();

/// How a process ended, with what it wrote.
struct RunResult {
    int exitStatus = -1;  // -1: killed by a signal or not run
    std::string out;
    std::string err;
};

/**
 * Starts lumora-sim on the bus named by DBUS_SYSTEM_BUS_ADDRESS (start a
 * TestBus first) and waits until it is ready: "org.verdin.tv.lumora2" has an
 * owner and the readiness marker exists. The simulator dies with the test
 * (PR_SET_PDEATHSIG) and is stopped by its pid. Tests that use it hold the
 * CTest resource lock "lmf_service_ready", since the marker is machine-wide.
 */
class SimProcess {
public:
    SimProcess() = default;
    ~SimProcess();
    SimProcess(const SimProcess&) = delete;
    SimProcess& operator=(const SimProcess&) = delete;

    /// False (with a message on stderr) when the simulator did not become ready.
    bool Start(const std::string& scenario = SampleScenario(), const std::vector<std::string>& extraArgs = {});
    /// SIGTERM, then SIGKILL after 10 s; reaps and returns the exit status
    /// (-1 when it ended by a signal or was not running).
    int Stop();
    /// Waits for the simulator to end by itself and reaps it; returns the
    /// exit status as Stop does, or -2 when it still runs after timeoutMs.
    int WaitForExit(int timeoutMs);
    bool Running() const { return m_pid > 0; }
    pid_t Pid() const { return m_pid; }
    /// Makes the next Start reach the bus at address instead of the one
    /// DBUS_SYSTEM_BUS_ADDRESS names (empty: that one again).
    void SetBusAddress(const std::string& address) { m_busAddress = address; }

    /// Runs lumora-sim with args to its end (SIGKILL after timeoutMs).
    static RunResult Run(const std::vector<std::string>& args, int timeoutMs = 30000);

private:
    pid_t m_pid = -1;
    std::string m_busAddress;
};

/// Starts executable with args, its standard output and error going to pipes
/// whose reading ends are returned in outFd and errFd; the child dies with
/// the test (PR_SET_PDEATHSIG). Returns its pid, or -1.
pid_t SpawnWithPipes(const std::string& executable, const std::vector<std::string>& args, int& outFd, int& errFd);

/// Runs executable with args to its end (SIGKILL after timeoutMs), in this
/// process's environment, and returns its exit status and output.
RunResult RunProgram(const std::string& executable, const std::vector<std::string>& args, int timeoutMs = 30000);

/// Calls a method of the simulator's control object.
CallResult CallControl(GDBusConnection* connection, const char* method, GVariant* parameters = nullptr,
                       int timeoutMs = 10000);

/// The subject's value as the simulator answers a plain "RequestSync" read on
/// connection, or the printed error.
std::string ServiceValue(GDBusConnection* connection, const std::string& subject);

/// Whether the readiness marker file exists.
bool ReadyMarkerExists();

}  // namespace lumora::test

#endif
