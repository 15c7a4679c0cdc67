// RunChildren: the run's signalfd, its children's fork and exec, their end.
#include "RunChildren.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace lumora::sim {

namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

// In a child: ends with the run, in a process group of its own, on devNull.
void BecomeHelper(const RunSignals& signals, pid_t parent, int devNull) {
    signals.RestoreInChild();
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    // The run may have ended before the line above took effect.
    if (getppid() != parent) _exit(1);
    dup2(devNull, STDIN_FILENO);
    dup2(devNull, STDOUT_FILENO);
}


}  // namespace

RunSignals::~RunSignals() {
    if (m_fd >= 0) close(m_fd);
    if (m_blocked) sigprocmask(SIG_SETMASK, &m_old, nullptr);
}

bool RunSignals::Block(std::string& why) {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : kStopSignals) sigaddset(&set, sig);
    sigaddset(&set, SIGCHLD);
    if (sigprocmask(SIG_BLOCK, &set, &m_old) != 0) {
        why = std::string("sigprocmask: ") + strerror(errno);
        return false;
    }
    m_blocked = true;
    m_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_fd < 0) why = std::string("signalfd: ") + strerror(errno);
    return m_fd >= 0;
}

void RunSignals::RestoreInChild() const { sigprocmask(SIG_SETMASK, &m_old, nullptr); }

void RunSignals::Drain(int& stop, bool& fromProcess) {
    stop = 0;
    struct signalfd_siginfo info;
    while (read(m_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGCHLD) continue;  // children are reaped by pid
        stop = static_cast<int>(info.ssi_signo);
        // SI_USER (kill), SI_QUEUE and SI_TKILL are at most 0; the
        // terminal's signals come from the kernel (SI_KERNEL).
        fromProcess = info.ssi_code <= 0;
    }
}

std::vector<char*> ExecArgs::Pointers(std::vector<std::string>& words) const {
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
}

pid_t ForkHelper(const RunSignals& signals, int devNull) {
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) BecomeHelper(signals, parent, devNull);
    return pid;
}

pid_t SpawnHelper(const ExecArgs& args, const RunSignals& signals, int devNull) {
    std::vector<std::string> argvWords = args.argv;
    std::vector<std::string> envWords = args.envp;
    std::vector<char*> argv = args.Pointers(argvWords);
    std::vector<char*> envp = args.Pointers(envWords);
    pid_t pid = ForkHelper(signals, devNull);
    if (pid == 0) {
        execve(args.path.c_str(), argv.data(), args.envp.empty() ? environ : envp.data());
        _exit(127);
    }
    return pid;
}

pid_t SpawnCommand(const ExecArgs& args, const RunSignals& signals, int& error) {
    std::vector<std::string> argvWords = args.argv;
    std::vector<std::string> envWords = args.envp;
    std::vector<char*> argv = args.Pointers(argvWords);
    std::vector<char*> envp = args.Pointers(envWords);
    // The exec's errno comes back through a pipe that a successful exec closes.
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        error = errno;
        return -1;
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(report[0]);
        signals.RestoreInChild();
        execve(args.path.c_str(), argv.data(), args.envp.empty() ? environ : envp.data());
        int failure = errno;
        ssize_t ignored = write(report[1], &failure, sizeof failure);
        (void)ignored;
        _exit(127);
    }
    error = pid < 0 ? errno : 0;
    close(report[1]);
    if (pid > 0) {
        ssize_t n;
        while ((n = read(report[0], &error, sizeof error)) < 0 && errno == EINTR) {
        }
        if (n == static_cast<ssize_t>(sizeof error)) {
            waitpid(pid, nullptr, 0);
            pid = -1;
        } else {
            error = 0;
        }
    }
    close(report[0]);
    return pid;
}

bool Reaped(pid_t pid, int& status) { return pid > 0 && waitpid(pid, &status, WNOHANG) == pid; }

int StopChild(pid_t pid, int graceMs) {
    int status = 0;
    kill(pid, SIGTERM);
    for (int waited = 0; waited < graceMs; waited += 10) {
        if (Reaped(pid, status)) return status;
        g_usleep(10000);  // GLib's sleep: no time_t, whose 32-bit form ends in 2038
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return status;
}

std::string DescribeStatus(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    int sig = WTERMSIG(status);
    const char* name = sigabbrev_np(sig);
    return "killed by signal " + std::to_string(sig) + (name != nullptr ? std::string(" (SIG") + name + ")" : "");
}

int ShellStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

}  // namespace lumora::sim
