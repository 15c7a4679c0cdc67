// Off-target settings store: one SQLite table shared by every process.
#include <lumora/lumora-platform.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "PlatformLog.h"
#include "SqliteLoader.h"

namespace {

using lumora::platform::SqliteApi;

// Long enough for another process's write to finish, short enough that a
// stuck writer is reported instead of hanging the caller.
constexpr int kBusyTimeoutMs = 5000;

std::string DatabasePath() {
    const char* path = getenv("LUMORA_SETTINGS_DB");
    if (path != nullptr && *path != '\0') return path;
    const char* state = getenv("XDG_STATE_HOME");
    if (state != nullptr && *state != '\0') return std::string(state) + "/lumora/settings.db";
    const char* home = getenv("HOME");
    if (home == nullptr || *home == '\0') {
        struct passwd* pw = getpwuid(getuid());
        home = (pw != nullptr && pw->pw_dir != nullptr) ? pw->pw_dir : "/tmp";
    }
    return std::string(home) + "/.local/state/lumora/settings.db";
}

bool MakeParentFolders(const std::string& file) {
    size_t slash = file.find('/', 1);
    while (slash != std::string::npos) {
        std::string folder = file.substr(0, slash);
        if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
            PLATFORM_LOGE("settings: cannot create folder %s: %s", folder.c_str(), strerror(errno));
            return false;
        }
        slash = file.find('/', slash + 1);
    }
    return true;
}

// One connection per call: the store is small and rarely used, and a fresh
// connection always sees the file that the environment names now.
class Database {
public:
    explicit Database(const SqliteApi& sql) : m_sql(sql) {}
    ~Database() { m_sql.close_v2(m_db); }

    // The one place where SQLite's failures become a log line.
    bool Fail(int rc, const char* what) {
        PLATFORM_LOGE("settings: %s %s failed: %s", what, m_path.c_str(),
                      m_db != nullptr ? m_sql.errmsg(m_db) : m_sql.errstr(rc));
        return false;
    }

    bool Open(bool create) {
        m_path = DatabasePath();
        if (!create && access(m_path.c_str(), F_OK) != 0) {
            PLATFORM_LOGE("settings: database %s does not exist", m_path.c_str());
            return false;
        }
        if (create && !MakeParentFolders(m_path)) return false;
        int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
        int rc = m_sql.open_v2(m_path.c_str(), &m_db, flags, nullptr);
        if (rc != SQLITE_OK) return Fail(rc, "open");
        m_sql.busy_timeout(m_db, kBusyTimeoutMs);
        if (!create) return true;
        // WAL lets readers of other processes go on during a write; FULL sync
        // makes a returned set survive a power cut.
        rc = m_sql.exec(m_db,
                          "PRAGMA journal_mode=WAL;"
                          "PRAGMA synchronous=FULL;"
                          "CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY, value TEXT NOT NULL);",
                          nullptr, nullptr, nullptr);
        return rc == SQLITE_OK || Fail(rc, "prepare");
    }

    sqlite3* Handle() { return m_db; }
    const SqliteApi& Sql() const { return m_sql; }

private:
    const SqliteApi& m_sql;
    sqlite3* m_db = nullptr;
    std::string m_path;
};

class Statement {
public:
    explicit Statement(const SqliteApi& sql) : m_sql(sql) {}
    ~Statement() { m_sql.finalize(m_stmt); }
    int Prepare(sqlite3* db, const char* text) { return m_sql.prepare_v2(db, text, -1, &m_stmt, nullptr); }
    void Bind(int index, const char* text) { m_sql.bind_text(m_stmt, index, text, -1, SQLITE_TRANSIENT); }
    int Step() { return m_sql.step(m_stmt); }
    const unsigned char* Text(int column) { return m_sql.column_text(m_stmt, column); }

private:
    const SqliteApi& m_sql;
    sqlite3_stmt* m_stmt = nullptr;
};

}  // namespace

extern "C" char* settings_get_str(const char* key) {
    if (key == nullptr) {
        PLATFORM_LOGE("settings_get_str: null key");
        return nullptr;
    }
    const SqliteApi* sql = lumora::platform::Sqlite();
    if (sql == nullptr) return nullptr;
    Database db(*sql);
    if (!db.Open(false)) return nullptr;
    Statement stmt(*sql);
    int rc = stmt.Prepare(db.Handle(), "SELECT value FROM settings WHERE key = ?1");
    if (rc != SQLITE_OK) {
        db.Fail(rc, "read");
        return nullptr;
    }
    stmt.Bind(1, key);
    rc = stmt.Step();
    if (rc == SQLITE_DONE) return nullptr;
    if (rc != SQLITE_ROW) {
        db.Fail(rc, "read");
        return nullptr;
    }
    const unsigned char* text = stmt.Text(0);
    return text != nullptr ? strdup(reinterpret_cast<const char*>(text)) : nullptr;
}

extern "C" int settings_set_str(const char* key, const char* value) {
    if (key == nullptr || value == nullptr) {
        PLATFORM_LOGE("settings_set_str: null %s", key == nullptr ? "key" : "value");
        return -1;
    }
    const SqliteApi* sql = lumora::platform::Sqlite();
    if (sql == nullptr) return -1;
    Database db(*sql);
    if (!db.Open(true)) return -1;
    Statement stmt(*sql);
    int rc = stmt.Prepare(db.Handle(),
                          "INSERT INTO settings(key, value) VALUES(?1, ?2) "
                          "ON CONFLICT(key) DO UPDATE SET value = excluded.value");
    if (rc != SQLITE_OK) {
        db.Fail(rc, "write");
        return -1;
    }
    stmt.Bind(1, key);
    stmt.Bind(2, value);
    rc = stmt.Step();
    if (rc != SQLITE_DONE) {
        db.Fail(rc, "write");
        return -1;
    }
    return 0;
}
