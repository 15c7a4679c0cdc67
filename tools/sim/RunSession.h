// One `lumora-sim run`: its steps from the private /tmp to the command's end
// and the clean-up after it.
#ifndef LUMORA_SIM_RUNSESSION_H
#define LUMORA_SIM_RUNSESSION_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "RunChildren.h"
#include "RunTmp.h"
#include "SimRun.h"

namespace lumora::sim {

/// The run's command line, read by SimRun.cpp.
struct RunOptions {
    std::vector<std::string> simulatorWords;  // the simulator's own options, as given
    bool http = false;                        // --http among them
    bool sharedTmp = false;                   // --shared-tmp
    std::string logFile;                      // --log FILE
    std::vector<std::string> command;
    std::string commandPath;                  // command[0] found on PATH
    std::vector<std::string> environment;     // the command's, without the run's variables
};

/**
 * Runs the steps in order, each failing with one line on stderr and the log:
 * signals taken, /tmp (private, or the machine's under the marker's lock),
 * the bus daemon, the simulator (a child of this process running
 * SimulatorMain::Serve, since the simulator is this very program), the
 * command; then stops the simulator (SIGTERM: it says BYE), the daemon, and
 * removes the bus's folder. Single-threaded until the simulator has been
 * forked; GIO's threads exist only after that.
 */
class RunSession {
public:
    RunSession(RunOptions options, SimulatorMain& simulator);
    ~RunSession();
    RunSession(const RunSession&) = delete;
    RunSession& operator=(const RunSession&) = delete;

    /// The run's exit status (SimRun.h).
    int Run();

private:
    bool Prepare();
    bool ChooseTmp();
    bool StartBus();
    bool ReadBusAddress(int fd);
    bool StartSimulator();
    bool WaitUntilReady();
    bool ReadPanelUrl();
    int RunTheCommand();
    int Supervise(pid_t command);
    void Shutdown();

    /// Waits up to timeoutMs for fd (-1: none) to be readable or a signal;
    /// takes the signals. True when fd is readable.
    bool Pump(int fd, int timeoutMs);
    /// Notes helpers that ended on their own while the command runs.
    void ReapHelpers();
    /// Prints "lumora-sim run: line" and logs it; false.
    bool Fail(const std::string& line);
    std::vector<std::string> CommandEnvironment() const;

    RunOptions m_options;
    SimulatorMain& m_simulator;
    RunSignals m_signals;
    MarkerLock m_lock;
    bool m_privateTmp = false;
    std::string m_tmpReason;  // why the machine's /tmp is used
    int m_devNull = -1;
    std::string m_daemon;
    std::string m_config;
    std::string m_configText;  // read before /tmp changes, in case it lies there
    std::string m_folder;      // the bus's socket (and configuration copy) live here
    std::string m_address;
    std::string m_panelUrl;
    int m_urlFd = -1;
    pid_t m_busPid = -1;
    pid_t m_simPid = -1;      // -1 once reaped
    pid_t m_simStarted = -1;  // the simulator's pid, kept after it ended
    int m_stopSignal = 0;  // the last SIGINT, SIGTERM or SIGHUP taken
    bool m_forward = false;  // it came from a process and is for the command
};

}  // namespace lumora::sim

#endif  // LUMORA_SIM_RUNSESSION_H
