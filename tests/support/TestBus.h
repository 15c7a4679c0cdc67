// A private dbus-daemon for one test, standing in for the system bus.
#ifndef LUMORA_TESTS_TESTBUS_H
#define LUMORA_TESTS_TESTBUS_H

#include <sys/types.h>

#include <string>

namespace lumora::test {

/// The project's private-bus configuration file.
const char* PrivateBusConfig();

/**
 * Starts a real dbus-daemon with the project's private-bus configuration on a
 * temporary socket, reads its address from --print-address, and points
 * DBUS_SYSTEM_BUS_ADDRESS at it. The daemon dies with the test process
 * (PR_SET_PDEATHSIG) and is stopped by its pid in Stop() or the destructor.
 */
class TestBus {
public:
    TestBus() = default;
    ~TestBus();
    TestBus(const TestBus&) = delete;
    TestBus& operator=(const TestBus&) = delete;

    /// Starts the daemon; false (with a message on stderr) if it did not come up.
    /// With exportAddress, DBUS_SYSTEM_BUS_ADDRESS names it afterwards. A
    /// configFile replaces the project's private-bus configuration.
    bool Start(bool exportAddress = true, const std::string& configFile = PrivateBusConfig());
    /// Starts the daemon listening on address (for example "unix:path=...")
    /// instead of a fresh temporary socket.
    bool StartAt(const std::string& address, bool exportAddress = true);
    /// Stops the daemon (SIGTERM, then SIGKILL after 5 s) and reaps it.
    void Stop();
    bool Running() const { return m_pid > 0; }

    const std::string& Address() const { return m_address; }
    pid_t Pid() const { return m_pid; }

private:
    bool Launch(const std::string& configFile, const std::string& address, bool exportAddress);

    pid_t m_pid = -1;
    std::string m_address;
};

}  // namespace lumora::test

#endif
