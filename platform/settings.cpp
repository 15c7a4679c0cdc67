// Off-target settings store: one SQLite table shared by every process.
#include <lumora/lumora-platform.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "PlatformLog.h"
#include "SettingsStatus.h"

namespace {

// Long enough for another process's write to finish, short enough that a
// stuck writer is reported instead of hanging the caller.
constexpr int kBusyTimeoutMs = 5000;

constexpr const char* kCreateTable = "CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY, value TEXT NOT NULL)";

// What the calling thread's last call found out about the store, for the
// tools (settings_last_status): the library's own results cannot tell an
// absent key from a store that cannot be used.
struct Outcome {
    lumora_settings_status status = LUMORA_SETTINGS_OK;
    std::string reason;
};

thread_local Outcome t_outcome;

void Succeed() {
    t_outcome.status = LUMORA_SETTINGS_OK;
    t_outcome.reason.clear();
}

// The one place where the store's failures become a log line; the same text
// is kept for settings_last_status.
void Report(lumora_settings_status status, std::string reason) {
    PLATFORM_LOGE("%s", reason.c_str());
    t_outcome.status = status;
    t_outcome.reason = std::move(reason);
}

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
            Report(LUMORA_SETTINGS_FAILED,
                   "cannot create the folder " + folder + " of the settings store " + file + ": " + strerror(errno));
            return false;
        }
        slash = file.find('/', slash + 1);
    }
    return true;
}

// What a failure stopped: the verb of its reason.
enum class Step { kOpen, kCreate, kRead, kWrite };

const char* Verb(Step step) {
    switch (step) {
        case Step::kOpen:
            return "open";
        case Step::kCreate:
            return "create";
        case Step::kRead:
            return "read";
        case Step::kWrite:
            return "write";
    }
    return "use";
}

class Statement {
public:
    Statement() = default;
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    int Prepare(sqlite3* db, const char* text) { return sqlite3_prepare_v2(db, text, -1, &m_stmt, nullptr); }
    void Bind(int index, const char* text) { sqlite3_bind_text(m_stmt, index, text, -1, SQLITE_TRANSIENT); }
    int Step() { return sqlite3_step(m_stmt); }
    const char* Text(int column) { return reinterpret_cast<const char*>(sqlite3_column_text(m_stmt, column)); }

private:
    sqlite3_stmt* m_stmt = nullptr;
};

// One connection per call: the store is small and rarely used, and a fresh
// connection always sees the file that the environment names now.
class Store {
public:
    Store() : m_path(DatabasePath()) {}
    ~Store() { sqlite3_close_v2(m_db); }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // A read never writes, so it opens the store read-only, and never creates
    // or sets it up: a process that may read the store but not write it (a
    // read-only file or folder) reads it all the same. False, reported, when
    // the store cannot be used; true with Empty() for a database that holds
    // nothing yet.
    bool OpenForReading() {
        struct stat st;
        if (stat(m_path.c_str(), &st) != 0) {
            if (errno == ENOENT) {
                Report(LUMORA_SETTINGS_NO_STORE, "there is no settings store at " + m_path);
                return false;
            }
            return Fail(Step::kOpen, strerror(errno));
        }
        if (!IsRegularFile(st)) return false;
        return Connect(SQLITE_OPEN_READONLY) && CheckShape();
    }

    // Creates the store with its folder when it is missing. A database that
    // already holds other tables is left as it is and reported.
    bool OpenForWriting() {
        if (!MakeParentFolders(m_path)) return false;
        struct stat st;
        if (stat(m_path.c_str(), &st) == 0) {
            if (!IsRegularFile(st)) return false;
        } else if (errno != ENOENT) {
            return Fail(Step::kOpen, strerror(errno));
        }
        if (!Connect(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) return false;
        // The write-ahead log and its index stay beside the store when the
        // last connection closes (emptied): a reader that may not create files
        // in the folder needs them to read a store in WAL mode. FULL sync
        // makes a returned set survive a power cut.
        int keep = 1;
        sqlite3_file_control(m_db, "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
        int rc = sqlite3_exec(m_db, "PRAGMA synchronous=FULL; PRAGMA journal_size_limit=0;", nullptr, nullptr, nullptr);
        if (rc != SQLITE_OK) return Fail(Step::kOpen, rc);
        if (!CheckShape()) return false;
        if (!m_empty) return true;
        // WAL lets readers of other processes go on during a write. Another
        // process creating the store at the same time is harmless: both
        // statements then change nothing.
        std::string setup = std::string("PRAGMA journal_mode=WAL; ") + kCreateTable;
        rc = sqlite3_exec(m_db, setup.c_str(), nullptr, nullptr, nullptr);
        if (rc != SQLITE_OK) return Fail(Step::kCreate, rc);
        m_empty = false;
        return true;
    }

    bool Empty() const { return m_empty; }

    // Reads key's value into *value: a copy, or null for an absent key.
    bool Get(const char* key, char** value) {
        *value = nullptr;
        Statement stmt;
        int rc = stmt.Prepare(m_db, "SELECT value FROM settings WHERE key = ?1");
        if (rc != SQLITE_OK) return Fail(Step::kRead, rc);
        stmt.Bind(1, key);
        rc = stmt.Step();
        if (rc == SQLITE_DONE) return true;
        if (rc != SQLITE_ROW) return Fail(Step::kRead, rc);
        const char* text = stmt.Text(0);
        if (text != nullptr) *value = strdup(text);
        return true;
    }

    bool Set(const char* key, const char* value) {
        Statement stmt;
        int rc = stmt.Prepare(m_db,
                              "INSERT INTO settings(key, value) VALUES(?1, ?2) "
                              "ON CONFLICT(key) DO UPDATE SET value = excluded.value");
        if (rc != SQLITE_OK) return Fail(Step::kWrite, rc);
        stmt.Bind(1, key);
        stmt.Bind(2, value);
        rc = stmt.Step();
        return rc == SQLITE_DONE || Fail(Step::kWrite, rc);
    }

private:
    bool Fail(Step step, const std::string& why) {
        Report(LUMORA_SETTINGS_FAILED,
               std::string("cannot ") + Verb(step) + " the settings store " + m_path + ": " + why);
        return false;
    }

    bool Fail(Step step, int rc) {
        std::string why = m_db != nullptr ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc);
        if ((rc & 0xff) == SQLITE_BUSY)
            why += " (another connection held it for longer than the " + std::to_string(kBusyTimeoutMs / 1000) +
                   " s busy time-out)";
        // SQLite cannot read a store in WAL mode without its -wal and -shm
        // files when it may not create them: a store last written before
        // they were kept, in a folder this process may not write.
        if ((rc & 0xff) == SQLITE_READONLY && m_readOnly)
            why += " (reading it without write access needs its -wal and -shm files, which a set leaves beside it)";
        return Fail(step, why);
    }

    // SQLite would open a folder and fail later with a vague reason, and would
    // wait forever on a FIFO: only a regular file can be the store.
    bool IsRegularFile(const struct stat& st) {
        if (S_ISREG(st.st_mode)) return true;
        return Fail(Step::kOpen, S_ISDIR(st.st_mode) ? "it is a directory" : "it is not a regular file");
    }

    bool Connect(int flags) {
        m_readOnly = (flags & SQLITE_OPEN_READONLY) != 0;
        int rc = sqlite3_open_v2(m_path.c_str(), &m_db, flags | SQLITE_OPEN_NOMUTEX, nullptr);
        if (rc != SQLITE_OK) return Fail(Step::kOpen, rc);
        sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
        return true;
    }

    // Whether the database is a settings store (a table "settings" with the
    // columns key and value) or still empty (m_empty); anything else is
    // reported, and so is a file that is not a database at all.
    bool CheckShape() {
        Statement table;
        int rc = table.Prepare(m_db,
                               "SELECT (SELECT type FROM sqlite_master WHERE name = 'settings'),"
                               " (SELECT count(*) FROM sqlite_master)");
        if (rc != SQLITE_OK) return Fail(Step::kOpen, rc);
        rc = table.Step();
        if (rc != SQLITE_ROW) return Fail(Step::kOpen, rc);
        const char* type = table.Text(0);
        const char* objects = table.Text(1);
        if (type == nullptr) {
            if (objects != nullptr && strcmp(objects, "0") == 0) {
                m_empty = true;
                return true;
            }
            return Fail(Step::kOpen, "no such table: settings");
        }
        if (strcmp(type, "table") != 0) return Fail(Step::kOpen, std::string("settings is a ") + type + ", not a table");

        Statement columns;
        rc = columns.Prepare(m_db, "PRAGMA table_info(settings)");
        if (rc != SQLITE_OK) return Fail(Step::kOpen, rc);
        std::string names;
        bool hasKey = false;
        bool hasValue = false;
        while ((rc = columns.Step()) == SQLITE_ROW) {
            const char* name = columns.Text(1);
            if (name == nullptr) continue;
            hasKey = hasKey || strcmp(name, "key") == 0;
            hasValue = hasValue || strcmp(name, "value") == 0;
            names += (names.empty() ? "" : ", ") + std::string(name);
        }
        if (rc != SQLITE_DONE) return Fail(Step::kOpen, rc);
        if (!hasKey || !hasValue)
            return Fail(Step::kOpen, "table settings has the columns (" + names + "), not (key, value)");
        return true;
    }

    std::string m_path;
    sqlite3* m_db = nullptr;
    bool m_empty = false;
    bool m_readOnly = false;
};

}  // namespace

extern "C" char* settings_get_str(const char* key) {
    if (key == nullptr) {
        Report(LUMORA_SETTINGS_FAILED, "settings_get_str: null key");
        return nullptr;
    }
    Store store;
    if (!store.OpenForReading()) return nullptr;
    char* value = nullptr;
    if (!store.Empty() && !store.Get(key, &value)) return nullptr;
    Succeed();
    return value;
}

extern "C" int settings_set_str(const char* key, const char* value) {
    if (key == nullptr || value == nullptr) {
        Report(LUMORA_SETTINGS_FAILED, std::string("settings_set_str: null ") + (key == nullptr ? "key" : "value"));
        return -1;
    }
    Store store;
    if (!store.OpenForWriting() || !store.Set(key, value)) return -1;
    Succeed();
    return 0;
}

extern "C" lumora_settings_status settings_last_status(char* reason, size_t size) {
    if (reason != nullptr && size > 0) {
        size_t length = std::min(size - 1, t_outcome.reason.size());
        memcpy(reason, t_outcome.reason.data(), length);
        reason[length] = '\0';
    }
    return t_outcome.status;
}
