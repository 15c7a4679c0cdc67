// `lumora-sim run`: a private bus and the simulator around one command, as
// dbus-run-session does for a session bus.
#ifndef LUMORA_SIM_SIMRUN_H
#define LUMORA_SIM_SIMRUN_H

#include <cstdio>
#include <string>
#include <vector>

namespace lumora::sim {

/// What `lumora-sim run` needs of the simulator proper: its options checked
/// and its files read before anything starts, then the service itself in a
/// child process of the run.
class SimulatorMain {
public:
    virtual ~SimulatorMain() = default;
    /// Takes the simulator's own options (the words of `lumora-sim` before
    /// the command: --scenario FILE...), reads their files and checks them.
    /// False when they are refused, with the reason printed on one line.
    virtual bool Prepare(const std::vector<std::string>& words) = 0;
    /// Serves what Prepare read until SIGINT or SIGTERM, on the bus that
    /// DBUS_SYSTEM_BUS_ADDRESS names; the simulator's exit status. The
    /// control panel's URL, with --http, is written as one line to urlFd
    /// (closed then) instead of standard output.
    virtual int Serve(int urlFd) = 0;
};

/// Exit statuses of the run itself, as env(1) and timeout(1) have them; any
/// other status is the command's own (128 + N when signal N ended it).
constexpr int kRunFailed = 125;          // usage, the bus or the simulator did not start, or refused
constexpr int kCommandNotRunnable = 126;  // found, but could not be executed
constexpr int kCommandNotFound = 127;

/// Runs `lumora-sim run`; argv holds the words after "run". Returns the exit
/// status above.
int RunCommand(int argc, char** argv, SimulatorMain& simulator);

/// The help of `lumora-sim run`.
void PrintRunHelp(FILE* out);

}  // namespace lumora::sim

#endif  // LUMORA_SIM_SIMRUN_H
