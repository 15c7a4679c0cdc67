// Where `lumora-sim run` keeps the service's readiness marker, a fixed file in
// /tmp that every client tests: in a /tmp of the run's own where the process
// may make one, else in the machine's /tmp, which one run holds at a time.
#ifndef LUMORA_SIM_RUNTMP_H
#define LUMORA_SIM_RUNTMP_H

#include <sys/types.h>

#include <string>

namespace lumora::sim {

/// The lock of the machine-wide marker. Whoever starts a simulator on the
/// machine's /tmp holds it for as long as that simulator may run: `lumora-sim
/// run` without a private /tmp, and the test fixtures of Python
/// (lumora.testing) and C++ (<lumora/testing/LumoraSimFixture.h>), which
/// spell the same path.
constexpr const char* kMarkerLockFile = "/tmp/lmf_service_ready.lock";

/**
 * Gives this process, and every process it starts afterwards, a /tmp of its
 * own: a tmpfs mounted in a mount namespace of its own, entered directly by
 * root and through a user namespace (the caller's own uid and gid mapped to
 * themselves) by anyone else. Every entry of the machine's /tmp but the
 * marker and its lock is bound at its place in it, so that what the command
 * uses there stays reachable. Must be called while the process has one
 * thread. False, with why ("unshare(CLONE_NEWNS): Operation not permitted;
 * ..."), when the machine does not allow it; the machine's /tmp is still the
 * one seen then.
 */
bool MakePrivateTmp(std::string& why);

/**
 * Holds kMarkerLockFile (flock) from Acquire until the object goes; a child
 * forked meanwhile holds it too, through the descriptor it inherits, so the
 * lock lasts while any simulator of the run may.
 */
class MarkerLock {
public:
    MarkerLock() = default;
    ~MarkerLock();
    MarkerLock(const MarkerLock&) = delete;
    MarkerLock& operator=(const MarkerLock&) = delete;

    /// Takes the lock without waiting. False, with why, when another process
    /// holds it, or when a live simulator that took no lock serves the
    /// marker; a marker left by a process that is gone is removed.
    bool Acquire(std::string& why);
    /// Removes the marker when it names pid: a simulator of the run that was
    /// killed could not remove it itself.
    void RemoveMarkerOf(pid_t pid) const;

private:
    int m_fd = -1;
    bool m_held = false;
};

/// The pid written in the readiness marker, or -1 when there is none.
pid_t MarkerPid();

}  // namespace lumora::sim

#endif  // LUMORA_SIM_RUNTMP_H
