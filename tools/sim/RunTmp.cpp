// RunTmp: a private /tmp through mount (and user) namespaces, or the lock of
// the machine's marker.
#include "RunTmp.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
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

// What of the machine's /tmp the run's own leaves out: the marker and its lock.
bool KeptApart(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0 || strcmp(name, "lmf_service_ready") == 0 ||
           strcmp(name, "lmf_service_ready.lock") == 0;
}

// Makes the machine's /tmp/name (machineTmp is its folder, now covered)
// the run's /tmp/name too: a directory or a file bound there, a symbolic
// link copied.
bool ShowEntry(int machineTmp, const char* name) {
    struct stat entry;
    if (fstatat(machineTmp, name, &entry, AT_SYMLINK_NOFOLLOW) != 0) return false;
    std::string target = std::string("/tmp/") + name;
    if (S_ISLNK(entry.st_mode)) {
        char link[PATH_MAX];
        ssize_t n = readlinkat(machineTmp, name, link, sizeof link - 1);
        if (n < 0) return false;
        link[n] = '\0';
        return symlink(link, target.c_str()) == 0;
    }
    if (S_ISDIR(entry.st_mode)) {
        if (mkdir(target.c_str(), 0700) != 0) return false;
    } else {
        int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) return false;
        close(fd);
    }
    // The descriptor's path still leads to the covered folder.
    std::string source = "/proc/self/fd/" + std::to_string(machineTmp) + "/" + name;
    return mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

// The command's files, build trees and sockets under the machine's /tmp stay
// where it looks for them, and what it writes into them stays there after
// the run; only the marker, and what is made at the top of /tmp from now
// on, are the run's own.
void ShowMachineEntries(int machineTmp) {
    DIR* folder = fdopendir(dup(machineTmp));
    if (folder == nullptr) {
        SIM_LOGW("run: the machine's /tmp not listed: %s", strerror(errno));
        return;
    }
    unsigned shown = 0;
    while (const dirent* entry = readdir(folder)) {
        if (KeptApart(entry->d_name)) continue;
        if (ShowEntry(machineTmp, entry->d_name)) {
            ++shown;
        } else if (errno != ENOENT) {  // gone meanwhile: nothing to show
            SIM_LOGW("run: /tmp/%s not reachable in the run's /tmp: %s", entry->d_name, strerror(errno));
        }
    }
    closedir(folder);
    SIM_LOGD("run: %u entries of the machine's /tmp reachable in the run's own", shown);
}

}  // namespace

bool MakePrivateTmp(std::string& why) {
    if (!EnterMountNamespace(why)) return false;
    // Nothing mounted here may reach the namespace this one was copied from.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        why = Failed("mount --make-rprivate /");
        return false;
    }
    int machineTmp = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (machineTmp < 0) {
        why = Failed("/tmp");
        return false;
    }
    bool mounted = mount("lumora-sim-tmp", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") == 0;
    if (mounted) {
        ShowMachineEntries(machineTmp);
    } else {
        why = Failed("mount tmpfs on /tmp");
    }
    close(machineTmp);
    return mounted;
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
