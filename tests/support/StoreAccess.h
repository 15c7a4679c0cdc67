// Ways other processes use a settings store, for the tests of the store and
// of the tools that read it: a connection that holds a transaction open, and
// a process that may read the store's files but not write them.
#ifndef LUMORA_TESTS_STOREACCESS_H
#define LUMORA_TESTS_STOREACCESS_H

#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace lumora::test {

/// Another process's SQLite connection that holds a transaction open on a
/// store until Release() (or 30 s at most).
class SqliteLockHolder {
public:
    SqliteLockHolder() = default;
    ~SqliteLockHolder() { Release(); }
    SqliteLockHolder(const SqliteLockHolder&) = delete;
    SqliteLockHolder& operator=(const SqliteLockHolder&) = delete;

    /// Runs sql on path in a child process; true once its transaction is held.
    bool Start(const std::string& path, const std::string& sql) {
        int ready[2];
        if (pipe(ready) != 0) return false;
        if (pipe(m_release) != 0) {
            close(ready[0]);
            close(ready[1]);
            return false;
        }
        m_pid = fork();
        if (m_pid == 0) {
            close(ready[0]);
            close(m_release[1]);
            sqlite3* db = nullptr;
            int rc = sqlite3_open(path.c_str(), &db);
            if (rc == SQLITE_OK) rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
            (void)!write(ready[1], rc == SQLITE_OK ? "R" : "E", 1);
            struct pollfd released = {m_release[0], POLLIN, 0};
            poll(&released, 1, 30000);
            sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
            sqlite3_close(db);
            _exit(0);
        }
        close(ready[1]);
        close(m_release[0]);
        char answer = 0;
        bool held = m_pid > 0 && read(ready[0], &answer, 1) == 1 && answer == 'R';
        close(ready[0]);
        return held;
    }

    void Release() {
        if (m_pid <= 0) return;
        (void)!write(m_release[1], "x", 1);
        close(m_release[1]);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

private:
    pid_t m_pid = -1;
    int m_release[2] = {-1, -1};
};

/// Called in a child process: makes it one that file modes apply to. Root is
/// not stopped by them, so root becomes "nobody"; anyone else stays as is.
inline bool BecomeUserThatModesApplyTo() {
    if (geteuid() != 0) return true;
    struct passwd* nobody = getpwnam("nobody");
    return nobody != nullptr && setgroups(0, nullptr) == 0 && setgid(nobody->pw_gid) == 0 &&
           setuid(nobody->pw_uid) == 0 && geteuid() != 0;
}

}  // namespace lumora::test

#endif
