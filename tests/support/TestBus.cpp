// TestBus: a dbus-daemon child process per test.
#include "TestBus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace lumora::test {

const char* PrivateBusConfig() { return LUMORA_PRIVATE_BUS_CONFIG; }

namespace {

// An empty address keeps the configuration's own listen address.
[[noreturn]] void ExecDaemon(int addressFd, const std::string& configFile, const std::string& address) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::string printAddress = "--print-address=" + std::to_string(addressFd);
    std::string config = "--config-file=" + configFile;
    std::string listen = "--address=" + address;
    const char* argv[] = {LUMORA_DBUS_DAEMON, config.c_str(), "--nofork", "--nopidfile", printAddress.c_str(),
                          address.empty() ? nullptr : listen.c_str(), nullptr};
    execv(LUMORA_DBUS_DAEMON, const_cast<char* const*>(argv));
    fprintf(stderr, "exec %s: %s\n", LUMORA_DBUS_DAEMON, strerror(errno));
    _exit(127);
}

// Reads the first line the daemon prints, waiting at most timeoutMs.
std::string ReadAddressLine(int fd, int timeoutMs) {
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (line.find('\n') == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        struct pollfd pfd = {fd, POLLIN, 0};
        int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        char buffer[256];
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        line.append(buffer, static_cast<size_t>(n));
    }
    size_t end = line.find('\n');
    return end == std::string::npos ? std::string() : line.substr(0, end);
}

}  // namespace

TestBus::~TestBus() { Stop(); }

bool TestBus::Start(bool exportAddress, const std::string& configFile) {
    return Launch(configFile, std::string(), exportAddress);
}

bool TestBus::StartAt(const std::string& address, bool exportAddress) {
    return Launch(PrivateBusConfig(), address, exportAddress);
}

bool TestBus::Launch(const std::string& configFile, const std::string& address, bool exportAddress) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    m_pid = fork();
    if (m_pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return false;
    }
    if (m_pid == 0) {
        close(fds[0]);
        int addressFd = dup(fds[1]);  // without O_CLOEXEC, so that it survives exec
        ExecDaemon(addressFd, configFile, address);
    }
    close(fds[1]);
    m_address = ReadAddressLine(fds[0], 10000);
    close(fds[0]);
    if (m_address.empty()) {
        fprintf(stderr, "dbus-daemon did not print its address\n");
        Stop();
        return false;
    }
    if (exportAddress) setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
    return true;
}

void TestBus::Stop() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGTERM);
    for (int i = 0; i < 500; ++i) {
        if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
            m_pid = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

}  // namespace lumora::test
