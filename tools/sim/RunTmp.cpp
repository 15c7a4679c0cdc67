// RunTmp: a private /tmp through mount (and user) namespaces, or the lock of
// the machine's marker.
#include "RunTmp.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "SimLog.h"
#include "internal/ServiceContract.h"

namespace lumora::sim {

namespace {

std::string Failed(const char* what) { return std::string(what) + ": " + strerror(errno); }

bool WriteFile(const char* path, const std::string& text, std::string& why) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    bool written = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!written) why = Failed(path);
    if (fd >= 0) close(fd);
    return written;
}

// A user namespace in which this process keeps its own uid and gid (what
// files and the bus daemon see of it stay the same) and holds the
// capabilities to mount in the mount namespace made with it.
bool EnterUserNamespace(std::string& why) {
    uid_t uid = geteuid();
    gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        why = Failed("unshare(CLONE_NEWUSER|CLONE_NEWNS)");
        return false;
    }
    // An unprivileged process may map its gid only once setgroups is denied.
    return WriteFile("/proc/self/setgroups", "deny", why) &&
           WriteFile("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1\n", why) &&
           WriteFile("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1\n", why);
}

bool EnterMountNamespace(std::string& why) {
    if (unshare(CLONE_NEWNS) == 0) return true;
    std::string direct = Failed("unshare(CLONE_NEWNS)");
    std::string throughUser;
    if (EnterUserNamespace(throughUser)) return true;
    why = direct + "; " + throughUser;
    return false;
}

bool Alive(pid_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

pid_t PidIn(int fd) {
    char text[32] = {};
    ssize_t n = pread(fd, text, sizeof text - 1, 0);
    if (n <= 0) return -1;
    char* end = nullptr;
    long pid = strtol(text, &end, 10);
    return end != text && pid > 0 ? static_cast<pid_t>(pid) : -1;
}

}  // namespace

bool MakePrivateTmp(std::string& why) {
    if (!EnterMountNamespace(why)) return false;
    // Nothing mounted here may reach the namespace this one was copied from.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        why = Failed("mount --make-rprivate /");
        return false;
    }
    if (mount("lumora-sim-tmp", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0) {
        why = Failed("mount tmpfs on /tmp");
        return false;
    }
    return true;
}

pid_t MarkerPid() {
    int fd = open(lumora::contract::kReadyMarkerFile, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    pid_t pid = PidIn(fd);
    close(fd);
    return pid;
}

// The file stays: a lock file removed while another process opens it would
// let two runs hold two different locks. It is emptied, so that it names no
// pid once the run is gone.
MarkerLock::~MarkerLock() {
    if (m_fd < 0) return;
    if (m_held && ftruncate(m_fd, 0) != 0) SIM_LOGD("run: %s not emptied (read-only)", kMarkerLockFile);
    close(m_fd);
}

bool MarkerLock::Acquire(std::string& why) {
    // Another user's lock file in the sticky /tmp cannot be opened for
    // writing (fs.protected_regular); a lock needs only a descriptor.
    m_fd = open(kMarkerLockFile, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (m_fd < 0) m_fd = open(kMarkerLockFile, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (m_fd < 0) {
        why = Failed(kMarkerLockFile);
        return false;
    }
    if (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        pid_t holder = PidIn(m_fd);
        why = errno == EWOULDBLOCK ? std::string("another run") + (holder > 0 ? " (pid " + std::to_string(holder) + ")" : "") +
                                         " holds " + kMarkerLockFile
                                   : Failed("flock");
        return false;
    }
    pid_t server = MarkerPid();
    if (Alive(server)) {
        why = "a simulator (pid " + std::to_string(server) + ") serves " + lumora::contract::kReadyMarkerFile;
        return false;
    }
    if (server > 0 || access(lumora::contract::kReadyMarkerFile, F_OK) == 0) {
        SIM_LOGW("run: removing %s, left by a process that is gone", lumora::contract::kReadyMarkerFile);
        if (unlink(lumora::contract::kReadyMarkerFile) != 0 && errno != ENOENT) {
            why = Failed("cannot remove the stale marker");
            return false;
        }
    }
    m_held = true;
    std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(m_fd, 0) != 0 || pwrite(m_fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        SIM_LOGD("run: %s holds no pid (read-only)", kMarkerLockFile);
    }
    return true;
}

void MarkerLock::RemoveMarkerOf(pid_t pid) const {
    if (m_fd < 0 || pid <= 0 || MarkerPid() != pid) return;
    SIM_LOGW("run: removing %s, left by the simulator (pid %d)", lumora::contract::kReadyMarkerFile, pid);
    unlink(lumora::contract::kReadyMarkerFile);
}

}  // namespace lumora::sim
