// A program run as a child process that a test talks to while it runs.
#ifndef LUMORA_TESTS_CHILDPROCESS_H
#define LUMORA_TESTS_CHILDPROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace lumora::test {

/// Everything still to be read from fd, up to its end (the writers closed it
/// or exited); fd is closed.
std::string ReadToEnd(int fd);

/**
 * Starts a program with its standard output and error on pipes, in this
 * process's environment. The test reads the output line by line while the
 * program runs, signals it and reaps it. The child dies with the test
 * (PR_SET_PDEATHSIG); one still running when the object goes is killed.
 */
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// False (with a message on stderr) when the program could not be started.
    bool Start(const std::string& executable, const std::vector<std::string>& args);
    /// The next line of standard output, without its newline. False when no
    /// whole line came within timeoutMs, or the output ended without one.
    bool ReadLine(std::string& line, int timeoutMs);
    /// Whether a whole line arrives within timeoutMs; the line is kept for ReadLine.
    bool LineWithin(int timeoutMs);
    /// Everything written to standard error so far.
    std::string Err();
    /// What was written to standard output so far and not taken as lines.
    std::string Out();
    bool Signal(int signal);
    /// Waits for the program to end, reading what it still writes; its exit
    /// status, -1 when a signal ended it, -2 when it still runs after timeoutMs.
    int Wait(int timeoutMs);
    bool Running() const { return m_pid > 0; }
    pid_t Pid() const { return m_pid; }

private:
    // Reads what the pipes hold, waiting up to timeoutMs for something.
    void Pump(int timeoutMs);
    // Reads what the pipes hold now, without waiting.
    void PumpAvailable();
    bool TakeLine(std::string& line);

    pid_t m_pid = -1;
    int m_out = -1;
    int m_err = -1;
    std::string m_outBuffer;
    std::string m_errText;
};

}  // namespace lumora::test

#endif
