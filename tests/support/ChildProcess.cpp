// ChildProcess: fork/exec with the output on pipes, read while the child runs.
#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "SimProcess.h"

namespace lumora::test {

namespace {

using Clock = std::chrono::steady_clock;

int MillisecondsLeft(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

void CloseFd(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

}  // namespace

std::string ReadToEnd(int fd) {
    std::string text;
    char buffer[4096];
    ssize_t n = 0;
    while ((n = read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) text.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

ChildProcess::~ChildProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    CloseFd(m_out);
    CloseFd(m_err);
}

bool ChildProcess::Start(const std::string& executable, const std::vector<std::string>& args) {
    m_pid = SpawnWithPipes(executable, args, m_out, m_err);
    return m_pid > 0;
}

void ChildProcess::Pump(int timeoutMs) {
    struct pollfd fds[2] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
    if (poll(fds, 2, timeoutMs) <= 0) return;
    int* ends[2] = {&m_out, &m_err};
    std::string* sinks[2] = {&m_outBuffer, &m_errText};
    for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0) continue;
        char buffer[4096];
        ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
        if (n > 0) {
            sinks[i]->append(buffer, static_cast<size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            CloseFd(*ends[i]);
        }
    }
}

bool ChildProcess::TakeLine(std::string& line) {
    size_t end = m_outBuffer.find('\n');
    if (end == std::string::npos) return false;
    line = m_outBuffer.substr(0, end);
    m_outBuffer.erase(0, end + 1);
    return true;
}

bool ChildProcess::LineWithin(int timeoutMs) {
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (m_outBuffer.find('\n') == std::string::npos) {
        if (m_out < 0 || Clock::now() >= deadline) return false;
        Pump(MillisecondsLeft(deadline));
    }
    return true;
}

bool ChildProcess::ReadLine(std::string& line, int timeoutMs) { return LineWithin(timeoutMs) && TakeLine(line); }

void ChildProcess::PumpAvailable() {
    while (m_out >= 0 || m_err >= 0) {
        size_t before = m_outBuffer.size() + m_errText.size();
        int outOpen = m_out;
        int errOpen = m_err;
        Pump(0);
        if (m_outBuffer.size() + m_errText.size() == before && m_out == outOpen && m_err == errOpen) break;
    }
}

std::string ChildProcess::Err() {
    PumpAvailable();
    return m_errText;
}

std::string ChildProcess::Out() {
    PumpAvailable();
    return m_outBuffer;
}

bool ChildProcess::Signal(int signal) { return m_pid > 0 && kill(m_pid, signal) == 0; }

int ChildProcess::Wait(int timeoutMs) {
    if (m_pid <= 0) return -1;
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while ((m_out >= 0 || m_err >= 0) && Clock::now() < deadline) Pump(std::min(MillisecondsLeft(deadline), 50));
    int status = 0;
    while (waitpid(m_pid, &status, WNOHANG) != m_pid) {
        if (Clock::now() >= deadline) return -2;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace lumora::test
