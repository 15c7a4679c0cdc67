// The processes of `lumora-sim run`: the signals it takes in its own loop,
// how its children start, and how they are waited for and stopped.
#ifndef LUMORA_SIM_RUNCHILDREN_H
#define LUMORA_SIM_RUNCHILDREN_H

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace lumora::sim {

/**
 * SIGINT, SIGTERM, SIGHUP and SIGCHLD blocked and read from a signalfd: the
 * run reacts to them in its own loop, never inside a handler, and learns who
 * sent each. Blocked before any thread exists, so that every thread started
 * later (GIO's) has them blocked too and none is ended by them.
 */
class RunSignals {
public:
    RunSignals() = default;
    ~RunSignals();
    RunSignals(const RunSignals&) = delete;
    RunSignals& operator=(const RunSignals&) = delete;

    bool Block(std::string& why);
    int Fd() const { return m_fd; }
    /// Puts back the mask the run started with, in a child before it runs
    /// anything else (a mask survives exec); async-signal-safe.
    void RestoreInChild() const;
    /// Reads every signal that came. stop: the last of SIGINT, SIGTERM and
    /// SIGHUP among them (0 for none); fromProcess: whether a process sent it
    /// with kill(), rather than the kernel for the terminal, whose signals
    /// reach the whole foreground process group, the command included.
    void Drain(int& stop, bool& fromProcess);

private:
    int m_fd = -1;
    sigset_t m_old{};
    bool m_blocked = false;
};

/**
 * Forks a helper of the run (the bus daemon, the simulator): in a process
 * group of its own, so that a Ctrl-C at the terminal reaches only the run and
 * the command; ended by SIGTERM when the run ends; standard input and output
 * on devNull. Returns the pid in the parent, 0 in the child, -1 on failure.
 */
pid_t ForkHelper(const RunSignals& signals, int devNull);

/// A program and its arguments as execve takes them, built before a fork.
struct ExecArgs {
    std::string path;
    std::vector<std::string> argv;
    std::vector<std::string> envp;  // empty: this process's environment

    std::vector<char*> Pointers(std::vector<std::string>& words) const;
};

/// Forks and executes args as a helper (ForkHelper); -1 on failure.
pid_t SpawnHelper(const ExecArgs& args, const RunSignals& signals, int devNull);

/**
 * Forks and executes the command, in the run's own process group and with
 * its standard streams. Returns its pid, or -1 with error set to the errno of
 * a fork or exec that failed (the child is reaped then).
 */
pid_t SpawnCommand(const ExecArgs& args, const RunSignals& signals, int& error);

/// Reaps pid if it has ended; true with status then.
bool Reaped(pid_t pid, int& status);
/// SIGTERM, then SIGKILL after graceMs; reaps pid and returns its status.
int StopChild(pid_t pid, int graceMs);
/// "exit status N" or "killed by signal N (NAME)".
std::string DescribeStatus(int status);
/// A shell's $?: the exit status, or 128 + the signal that ended it.
int ShellStatus(int status);

}  // namespace lumora::sim

#endif  // LUMORA_SIM_RUNCHILDREN_H
