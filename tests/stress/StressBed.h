// The world a stress run drives the library in: a private dbus-daemon at a
// fixed address (so that it can be restarted under the library), lumora-sim
// on it, the faults, and the views from outside the library: what the
// service has registered and which match rules the bus daemon holds.
#ifndef LUMORA_TESTS_STRESS_STRESSBED_H
#define LUMORA_TESTS_STRESS_STRESSBED_H

#include <gio/gio.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "LogCapture.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"

namespace lumora::test {

/// The seed of this run: LUMORA_STRESS_SEED, or the clock.
uint64_t StressSeed();
/// How long the whole run may take: LUMORA_STRESS_SECONDS (5 to 60), or 40.
int StressSeconds();

class StressBed {
public:
    StressBed();
    ~StressBed();
    StressBed(const StressBed&) = delete;
    StressBed& operator=(const StressBed&) = delete;

    /// The bus, the service and the test's own connections; false when any of
    /// them did not come up.
    bool Start();

    /// @name Faults
    /// Each returns once the service is up again (owns its name and has made
    /// its readiness marker); false when it did not come back. Called from
    /// one thread at a time.
    /// @{
    bool TerminateService(int downMs);             // SIGTERM: the service says "BYE"
    bool KillService(int downMs);                  // SIGKILL: the name just loses its owner
    bool RestartThroughControl(unsigned pauseMs);  // "BYE", a pause, "HELLO"
    bool RestartBus(int downMs);                   // the daemon at the same address, and a new service
    /// @}

    /// @name Views and notifications for the checking thread
    /// @{
    /// Sends the service's "Response" for subject to its subscribers.
    bool Emit(const std::string& subject, const std::string& data);
    /// Whether the service holds a subscriber of subject.
    bool ServiceKnows(const std::string& subject);
    /// Whether a connection of this process other than the test's own holds
    /// a match rule for the service's "Response" signal: the library listens.
    bool LibraryListens();
    /// @}

    /// @name The notification feed
    /// Safe from one other thread while faults happen; failures (the service
    /// or the bus away) are normal there and only counted by the caller.
    /// @{
    bool Feed(const std::string& subject, const std::string& data);
    bool FeedEvent(const char* kind);
    /// @}

private:
    bool ConnectOwn();
    void DropOwn();

    TempDir m_dir;
    LogCapture m_log;  // the library's and the simulator's lines go to a file, not the terminal
    std::string m_address;
    ScopedEnv m_busAddress;
    TestBus m_bus;
    SimProcess m_sim;
    GDBusConnection* m_control = nullptr;
    std::mutex m_feedMutex;  // held by RestartBus while the feed's connection is replaced
    GDBusConnection* m_feed = nullptr;
};

}  // namespace lumora::test

#endif
