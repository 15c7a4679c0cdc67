// settings_get_str / settings_set_str: a real SQLite file, several processes.
#include <gtest/gtest.h>
#include <lumora/lumora-platform.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "SettingsStatus.h"
#include "StoreAccess.h"

#include "ChildProcess.h"
#include "LogCapture.h"
#include "TempDir.h"

namespace {

using lumora::test::LogCapture;
using lumora::test::ReadToEnd;
using lumora::test::BecomeUserThatModesApplyTo;
using lumora::test::ScopedEnv;
using lumora::test::SqliteLockHolder;
using lumora::test::TempDir;

std::string Get(const char* key) {
    std::unique_ptr<char, decltype(&free)> value(settings_get_str(key), &free);
    return value ? std::string(value.get()) : std::string("<null>");
}

// The calling thread's last outcome as "<status>|<reason>".
std::string Status() {
    char reason[4096];
    lumora_settings_status status = settings_last_status(reason, sizeof reason);
    return std::to_string(static_cast<int>(status)) + "|" + reason;
}

// "<value> <status>|<reason>" of a get, and "<result> <status>|<reason>" of a
// set, in that order.
std::string GetAndStatus(const char* key) {
    std::string value = Get(key);
    return value + " " + Status();
}

std::string SetAndStatus(const char* key, const char* value) {
    std::string result = std::to_string(settings_set_str(key, value));
    return result + " " + Status();
}

std::string Failed(const std::string& reason) { return std::to_string(LUMORA_SETTINGS_FAILED) + "|" + reason; }
const std::string kOk = std::to_string(LUMORA_SETTINGS_OK) + "|";

// Runs fn in a child process and returns its exit status.
template <typename Fn>
int InChild(Fn fn) {
    pid_t pid = fork();
    if (pid == 0) _exit(fn());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

class SettingsTest : public testing::Test {
protected:
    SettingsTest() : m_db(m_dir.File("state/lumora/settings.db")), m_env("LUMORA_SETTINGS_DB", m_db) {}

    std::string QueryDirect(const char* sql) {
        sqlite3* db = nullptr;
        std::string result;
        if (sqlite3_open_v2(m_db.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
            sqlite3_stmt* stmt = nullptr;
            if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK && sqlite3_step(stmt) == SQLITE_ROW)
                result = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
            sqlite3_finalize(stmt);
        }
        sqlite3_close(db);
        return result;
    }

    // Runs fn in a child process that file modes apply to (as "nobody" when
    // the test runs as root) and returns what fn returned.
    template <typename Fn>
    std::string AsReader(Fn fn) {
        // The child's log lines go to the same file.
        chmod(m_log.Path().c_str(), 0666);
        int out[2];
        if (pipe(out) != 0) return "no pipe";
        pid_t pid = fork();
        if (pid == 0) {
            close(out[0]);
            if (!BecomeUserThatModesApplyTo()) _exit(125);
            std::string result = fn();
            (void)!write(out[1], result.data(), result.size());
            _exit(0);
        }
        close(out[1]);
        std::string result = ReadToEnd(out[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "reader failed, status " + std::to_string(status);
        return result;
    }

    // Makes the store's folders reachable by the reader, the store's files
    // read-only, and its own folder read-only unless writableFolder.
    void MakeStoreReadOnly(bool writableFolder) {
        for (const std::string& folder : {m_dir.Path(), m_dir.File("state")}) ASSERT_EQ(0, chmod(folder.c_str(), 0755));
        for (const char* suffix : {"", "-wal", "-shm"}) {
            std::string file = m_db + suffix;
            if (access(file.c_str(), F_OK) == 0) {
                ASSERT_EQ(0, chmod(file.c_str(), 0444));
            }
        }
        ASSERT_EQ(0, chmod(m_dir.File("state/lumora").c_str(), writableFolder ? 0777 : 0555));
        m_restoreModes = true;
    }

    void TearDown() override {
        // Lets the temporary folder be removed by a user that is not root.
        if (m_restoreModes) chmod(m_dir.File("state/lumora").c_str(), 0755);
    }

    TempDir m_dir;
    std::string m_db;
    ScopedEnv m_env;
    LogCapture m_log;
    bool m_restoreModes = false;
};

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(SettingsTest, SetCreatesTheDatabaseWithItsFolderAndGetReadsItBack) {
    ASSERT_EQ(0, settings_set_str("db/lumora-service/hintlist", "{\"a\":1}"));
    struct stat st;
    EXPECT_EQ(0, stat(m_db.c_str(), &st));
    EXPECT_EQ("{\"a\":1}", Get("db/lumora-service/hintlist"));
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.Dump();
}

TEST_F(SettingsTest, TheStoreIsOneTableInWalMode) {
    ASSERT_EQ(0, settings_set_str("k", "v"));
    EXPECT_EQ("wal", QueryDirect("PRAGMA journal_mode"));
    EXPECT_EQ("CREATE TABLE settings(key TEXT PRIMARY KEY, value TEXT NOT NULL)",
              QueryDirect("SELECT sql FROM sqlite_master WHERE name = 'settings'"));
    EXPECT_EQ("v", QueryDirect("SELECT value FROM settings WHERE key = 'k'"));
}

// Readers that may not create files beside the store need them (see below).
TEST_F(SettingsTest, TheStoreKeepsItsWriteAheadLogAndIndexBesideIt) {
    ASSERT_EQ(0, settings_set_str("k", "v"));
    struct stat wal;
    struct stat shm;
    ASSERT_EQ(0, stat((m_db + "-wal").c_str(), &wal));
    ASSERT_EQ(0, stat((m_db + "-shm").c_str(), &shm));
    EXPECT_EQ(0, wal.st_size);  // emptied into the store when the connection closed
}

TEST_F(SettingsTest, SetReplacesAnEarlierValue) {
    ASSERT_EQ(0, settings_set_str("k", "one"));
    ASSERT_EQ(0, settings_set_str("k", "two"));
    EXPECT_EQ("two", Get("k"));
    EXPECT_EQ("1", QueryDirect("SELECT count(*) FROM settings"));
}

// A store file past 2 GiB (sparse here: zeros after SQLite's own pages, which
// SQLite leaves alone) is read and written like any other. Its size does not
// fit the 32-bit off_t of 32-bit ARM, where a stat() built without large-file
// support fails with EOVERFLOW.
TEST_F(SettingsTest, AStoreFileLargerThanTwoGibibytesIsReadAndWritten) {
    ASSERT_EQ(0, settings_set_str("k", "before"));
    const off64_t kSize = off64_t{3} << 30;
    ASSERT_EQ(0, truncate64(m_db.c_str(), kSize)) << strerror(errno);
    struct stat64 st;
    ASSERT_EQ(0, stat64(m_db.c_str(), &st));
    ASSERT_EQ(kSize, st.st_size);
    EXPECT_EQ("before " + kOk, GetAndStatus("k"));
    EXPECT_EQ("0 " + kOk, SetAndStatus("k", "after"));
    EXPECT_EQ("after " + kOk, GetAndStatus("k"));
}

TEST_F(SettingsTest, AbsentKeyReadsAsNullWithoutALogLine) {
    ASSERT_EQ(0, settings_set_str("present", "x"));
    EXPECT_EQ("<null>", Get("absent"));
    EXPECT_EQ(kOk, Status());  // the store answered: the key is not set
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.Dump();
}

TEST_F(SettingsTest, EmptyValueIsStoredAsEmpty) {
    ASSERT_EQ(0, settings_set_str("k", ""));
    EXPECT_EQ("", Get("k"));
}

TEST_F(SettingsTest, MissingDatabaseReadsAsNullWithOneErrorLine) {
    EXPECT_EQ("<null>", Get("k"));
    ASSERT_EQ(1u, m_log.Lines().size()) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("there is no settings store at " + m_db, 'E')) << m_log.Dump();
    EXPECT_EQ(std::to_string(LUMORA_SETTINGS_NO_STORE) + "|there is no settings store at " + m_db, Status());
    struct stat st;
    EXPECT_NE(0, stat(m_db.c_str(), &st));  // a read does not create the store
}

TEST_F(SettingsTest, AFolderInPlaceOfTheStoreGivesNullAndNonZeroWithTheReason) {
    ScopedEnv env("LUMORA_SETTINGS_DB", m_dir.Path());
    const std::string reason = "cannot open the settings store " + m_dir.Path() + ": it is a directory";
    EXPECT_EQ("<null>", Get("k"));
    EXPECT_EQ(Failed(reason), Status());
    EXPECT_EQ(1u, m_log.Count(reason, 'E')) << m_log.Dump();
    m_log.Mark();
    EXPECT_NE(0, settings_set_str("k", "v"));
    EXPECT_EQ(Failed(reason), Status());
    auto records = m_log.Records();
    ASSERT_EQ(1u, records.size()) << m_log.Dump();
    EXPECT_EQ('E', records[0].level);
    EXPECT_EQ(reason, records[0].text);
}

TEST_F(SettingsTest, CorruptDatabaseGivesNullAndNonZeroAndIsNotOverwritten) {
    std::string garbage(8192, 'G');
    m_dir.Write("corrupt.db", garbage);
    const std::string path = m_dir.File("corrupt.db");
    ScopedEnv env("LUMORA_SETTINGS_DB", path);
    const std::string reason = "cannot open the settings store " + path + ": file is not a database";
    EXPECT_EQ("<null>", Get("k"));
    EXPECT_EQ(Failed(reason), Status());
    EXPECT_EQ(1u, m_log.Lines().size()) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(reason, 'E')) << m_log.Dump();
    m_log.Mark();
    EXPECT_NE(0, settings_set_str("k", "v"));
    EXPECT_EQ(Failed(reason), Status());
    EXPECT_EQ(1u, m_log.Lines().size()) << m_log.Dump();
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(static_cast<off_t>(garbage.size()), st.st_size);
}

TEST_F(SettingsTest, DatabaseOfAnotherShapeIsReportedNotChanged) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(m_dir.File("other.db").c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "CREATE TABLE t(x)", nullptr, nullptr, nullptr));
    sqlite3_close(db);
    m_db = m_dir.File("other.db");
    ScopedEnv env("LUMORA_SETTINGS_DB", m_db);
    const std::string reason = "cannot open the settings store " + m_db + ": no such table: settings";
    EXPECT_EQ("<null>", Get("k"));
    EXPECT_EQ(Failed(reason), Status());
    ASSERT_EQ(1u, m_log.Lines().size()) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(reason, 'E')) << m_log.Dump();
    // A write does not make someone else's database a settings store.
    EXPECT_NE(0, settings_set_str("k", "v"));
    EXPECT_EQ(Failed(reason), Status());
    EXPECT_EQ(2u, m_log.Count(reason, 'E')) << m_log.Dump();
    EXPECT_EQ("t", QueryDirect("SELECT group_concat(name) FROM sqlite_master"));
}

TEST_F(SettingsTest, SettingsTableOfAnotherShapeIsReportedNotChanged) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(m_dir.File("shape.db").c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "CREATE TABLE settings(name TEXT, data BLOB)", nullptr, nullptr, nullptr));
    sqlite3_close(db);
    m_db = m_dir.File("shape.db");
    ScopedEnv env("LUMORA_SETTINGS_DB", m_db);
    const std::string reason =
        "cannot open the settings store " + m_db + ": table settings has the columns (name, data), not (key, value)";
    EXPECT_EQ("<null>", Get("k"));
    EXPECT_EQ(Failed(reason), Status());
    EXPECT_NE(0, settings_set_str("k", "v"));
    EXPECT_EQ(Failed(reason), Status());
    EXPECT_EQ(2u, m_log.Count(reason, 'E')) << m_log.Dump();
    EXPECT_EQ(2u, m_log.Lines().size()) << m_log.Dump();
    EXPECT_EQ("0", QueryDirect("SELECT count(*) FROM settings"));
}

// An empty file is an empty database: nothing set yet, and the first set
// makes it the store.
TEST_F(SettingsTest, AnEmptyFileIsAnEmptyStore) {
    m_db = m_dir.Write("empty.db", "");
    ScopedEnv env("LUMORA_SETTINGS_DB", m_db);
    EXPECT_EQ("<null>", Get("k"));
    EXPECT_EQ(kOk, Status());
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.Dump();
    ASSERT_EQ(0, settings_set_str("k", "v"));
    EXPECT_EQ("v", Get("k"));
    EXPECT_EQ("wal", QueryDirect("PRAGMA journal_mode"));
}

TEST_F(SettingsTest, AStoreThatIsNotARegularFileIsRefusedWithoutWaiting) {
    const std::string fifo = m_dir.File("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    for (const std::string& path : {fifo, std::string("/dev/null")}) {
        ScopedEnv env("LUMORA_SETTINGS_DB", path);
        const std::string reason = "cannot open the settings store " + path + ": it is not a regular file";
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ("<null>", Get("k"));
        EXPECT_EQ(Failed(reason), Status());
        EXPECT_NE(0, settings_set_str("k", "v"));
        EXPECT_EQ(Failed(reason), Status());
        EXPECT_LT(SecondsSince(start), 2.0);
    }
}

TEST_F(SettingsTest, AStoreBelowAFileGivesTheSystemsReason) {
    const std::string path = m_dir.Write("plain", "x") + "/settings.db";
    ScopedEnv env("LUMORA_SETTINGS_DB", path);
    EXPECT_NE(0, settings_set_str("k", "v"));
    EXPECT_EQ(Failed("cannot open the settings store " + path + ": Not a directory"), Status());
    EXPECT_EQ("<null>", Get("k"));
    EXPECT_EQ(Failed("cannot open the settings store " + path + ": Not a directory"), Status());
}

TEST_F(SettingsTest, NullArgumentsAreRefusedWithALogLine) {
    EXPECT_EQ("<null>", Get(nullptr));
    EXPECT_EQ(Failed("settings_get_str: null key"), Status());
    EXPECT_NE(0, settings_set_str(nullptr, "v"));
    EXPECT_EQ(Failed("settings_set_str: null key"), Status());
    EXPECT_NE(0, settings_set_str("k", nullptr));
    EXPECT_EQ(Failed("settings_set_str: null value"), Status());
    EXPECT_EQ(3u, m_log.Lines().size()) << m_log.Dump();
}

// ---- what the tools learn: settings_last_status -----------------------------------

TEST_F(SettingsTest, ASuccessfulCallClearsAnEarlierFailure) {
    ASSERT_EQ(0, settings_set_str("k", "v"));
    EXPECT_EQ(kOk, Status());
    {
        ScopedEnv env("LUMORA_SETTINGS_DB", m_dir.Path());
        EXPECT_EQ("<null>", Get("k"));
        EXPECT_NE(kOk, Status());
    }
    EXPECT_EQ("v", Get("k"));
    EXPECT_EQ(kOk, Status());
}

TEST_F(SettingsTest, TheStatusIsTheCallingThreadsOwn) {
    ScopedEnv env("LUMORA_SETTINGS_DB", m_dir.Path());
    EXPECT_EQ("<null>", Get("k"));
    const std::string failed = Status();
    ASSERT_NE(kOk, failed);
    std::string other;
    std::thread([&] { other = Status(); }).join();
    EXPECT_EQ(kOk, other);  // a thread that has not used the store
    EXPECT_EQ(failed, Status());
}

TEST_F(SettingsTest, TheReasonIsCutToTheCallersBuffer) {
    ScopedEnv env("LUMORA_SETTINGS_DB", m_dir.Path());
    EXPECT_EQ("<null>", Get("k"));
    char small[8];
    memset(small, 'z', sizeof small);
    EXPECT_EQ(LUMORA_SETTINGS_FAILED, settings_last_status(small, sizeof small));
    EXPECT_EQ(std::string("cannot "), small);
    EXPECT_EQ(LUMORA_SETTINGS_FAILED, settings_last_status(nullptr, 0));
}

// ---- a process that may read the store but not write it --------------------------

TEST_F(SettingsTest, AReadOnlyStoreInAReadOnlyFolderIsReadButNotWritten) {
    ASSERT_EQ(0, settings_set_str("k", "v"));
    MakeStoreReadOnly(false);
    m_log.Mark();
    std::string db = m_db;
    EXPECT_EQ("v " + kOk, AsReader([] { return GetAndStatus("k"); }));
    EXPECT_EQ("<null> " + kOk, AsReader([] { return GetAndStatus("absent"); }));
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.Dump();
    const std::string reason = "cannot write the settings store " + m_db + ": attempt to write a readonly database";
    EXPECT_EQ("-1 " + Failed(reason),
              AsReader([] { return SetAndStatus("k", "w"); }));
    EXPECT_EQ(1u, m_log.Count(reason, 'E')) << m_log.Dump();
    EXPECT_EQ("v", QueryDirect("SELECT value FROM settings WHERE key = 'k'"));
}

TEST_F(SettingsTest, AReadOnlyStoreInAWritableFolderIsReadButNotWritten) {
    ASSERT_EQ(0, settings_set_str("k", "v"));
    MakeStoreReadOnly(true);
    m_log.Mark();
    EXPECT_EQ("v " + kOk, AsReader([] { return GetAndStatus("k"); }));
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.Dump();
    const std::string reason = "cannot write the settings store " + m_db + ": attempt to write a readonly database";
    EXPECT_EQ("-1 " + Failed(reason),
              AsReader([] { return SetAndStatus("k", "w"); }));
    EXPECT_EQ("v", QueryDirect("SELECT value FROM settings WHERE key = 'k'"));
}

// SQLite cannot read a WAL store without its -wal and -shm files when it may
// not create them. A store written by this library keeps them; one without
// them (written by another program) is reported with what it lacks.
TEST_F(SettingsTest, AReadOnlyStoreWithoutItsWalFilesInAReadOnlyFolderSaysWhatItLacks) {
    ASSERT_EQ(0, mkdir(m_dir.File("state").c_str(), 0755));
    ASSERT_EQ(0, mkdir(m_dir.File("state/lumora").c_str(), 0755));
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(m_db.c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db,
                                      "PRAGMA journal_mode=WAL;"
                                      "CREATE TABLE settings(key TEXT PRIMARY KEY, value TEXT NOT NULL);"
                                      "INSERT INTO settings VALUES('k', 'v');",
                                      nullptr, nullptr, nullptr));
    sqlite3_close(db);
    ASSERT_NE(0, access((m_db + "-shm").c_str(), F_OK));
    MakeStoreReadOnly(false);
    const std::string reason = "cannot open the settings store " + m_db +
                               ": attempt to write a readonly database (reading it without write access needs its "
                               "-wal and -shm files, which a set leaves beside it)";
    EXPECT_EQ("<null> " + Failed(reason), AsReader([] { return GetAndStatus("k"); }));
    EXPECT_EQ(1u, m_log.Count(reason, 'E')) << m_log.Dump();
}

// ---- another connection holding the store -----------------------------------------

// In WAL mode a writer does not keep readers out: they read the last
// committed value, at once.
TEST_F(SettingsTest, AReadGoesOnWhileAnotherProcessHoldsAnExclusiveTransaction) {
    ASSERT_EQ(0, settings_set_str("k", "committed"));
    SqliteLockHolder holder;
    ASSERT_TRUE(holder.Start(m_db, "BEGIN EXCLUSIVE; UPDATE settings SET value = 'uncommitted' WHERE key = 'k';"));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("committed", Get("k"));
    EXPECT_LT(SecondsSince(start), 1.0);
    EXPECT_EQ(kOk, Status());
}

TEST_F(SettingsTest, AWriteWaitsForTheBusyTimeOutThenFailsWithTheReason) {
    ASSERT_EQ(0, settings_set_str("k", "before"));
    SqliteLockHolder holder;
    ASSERT_TRUE(holder.Start(m_db, "BEGIN EXCLUSIVE; UPDATE settings SET value = 'held' WHERE key = 'k';"));
    auto start = std::chrono::steady_clock::now();
    EXPECT_NE(0, settings_set_str("k", "after"));
    double waited = SecondsSince(start);
    EXPECT_GE(waited, 4.5);
    EXPECT_LT(waited, 10.0);
    const std::string reason = "cannot write the settings store " + m_db +
                               ": database is locked (another connection held it for longer than the 5 s busy "
                               "time-out)";
    EXPECT_EQ(Failed(reason), Status());
    EXPECT_EQ(1u, m_log.Count(reason, 'E')) << m_log.Dump();
    holder.Release();
    EXPECT_EQ("before", Get("k"));
    EXPECT_EQ(0, settings_set_str("k", "after"));
    EXPECT_EQ("after", Get("k"));
}

// A connection in exclusive locking mode keeps readers out as well.
TEST_F(SettingsTest, AReadWaitsForTheBusyTimeOutThenFailsWithTheReason) {
    ASSERT_EQ(0, settings_set_str("k", "before"));
    SqliteLockHolder holder;
    ASSERT_TRUE(holder.Start(m_db,
                             "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE;"
                             "UPDATE settings SET value = 'held' WHERE key = 'k';"));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("<null>", Get("k"));
    double waited = SecondsSince(start);
    EXPECT_GE(waited, 4.5);
    EXPECT_LT(waited, 10.0);
    const std::string reason = "cannot open the settings store " + m_db +
                               ": database is locked (another connection held it for longer than the 5 s busy "
                               "time-out)";
    EXPECT_EQ(Failed(reason), Status());
    EXPECT_EQ(1u, m_log.Count(reason, 'E')) << m_log.Dump();
    holder.Release();
    EXPECT_EQ("before", Get("k"));
}

TEST_F(SettingsTest, ValueSetByOneProcessIsReadByAnother) {
    EXPECT_EQ(0, InChild([] { return settings_set_str("memory/lumora-agent/STAction", "{\"uri\":\"u\"}"); }));
    EXPECT_EQ("{\"uri\":\"u\"}", Get("memory/lumora-agent/STAction"));
    ASSERT_EQ(0, settings_set_str("from-parent", "p"));
    EXPECT_EQ(0, InChild([] {
        char* v = settings_get_str("from-parent");
        int rc = (v != nullptr && std::string(v) == "p") ? 0 : 1;
        free(v);
        return rc;
    }));
}

TEST_F(SettingsTest, ConcurrentWritersOfSeveralProcessesLoseNothing) {
    ASSERT_EQ(0, settings_set_str("init", "1"));
    constexpr int kWriters = 4;
    constexpr int kKeys = 100;
    pid_t pids[kWriters];
    for (int w = 0; w < kWriters; ++w) {
        pids[w] = fork();
        if (pids[w] == 0) {
            for (int k = 0; k < kKeys; ++k) {
                std::string key = "w" + std::to_string(w) + "/" + std::to_string(k);
                if (settings_set_str(key.c_str(), key.c_str()) != 0) _exit(1);
            }
            _exit(0);
        }
    }
    for (pid_t pid : pids) {
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(std::to_string(kWriters * kKeys + 1), QueryDirect("SELECT count(*) FROM settings"));
    EXPECT_EQ("w3/99", Get("w3/99"));
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.Dump();
}

TEST_F(SettingsTest, WriterWaitsForALockHeldByAnotherProcessForAWhile) {
    ASSERT_EQ(0, settings_set_str("k", "before"));
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    pid_t holder = fork();
    if (holder == 0) {
        sqlite3* db = nullptr;
        sqlite3_open(m_db.c_str(), &db);
        sqlite3_exec(db, "BEGIN IMMEDIATE; UPDATE settings SET value = 'held' WHERE key = 'k';", nullptr, nullptr, nullptr);
        (void)!write(ready[1], "x", 1);
        usleep(700 * 1000);  // holds the write lock for 0.7 s
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(db);
        _exit(0);
    }
    char c;
    ASSERT_EQ(1, read(ready[0], &c, 1));
    EXPECT_EQ(0, settings_set_str("k", "after"));
    waitpid(holder, nullptr, 0);
    EXPECT_EQ("after", Get("k"));
}

TEST_F(SettingsTest, DefaultLocationFollowsXdgStateHome) {
    unsetenv("LUMORA_SETTINGS_DB");
    ScopedEnv state("XDG_STATE_HOME", m_dir.File("xdg"));
    ASSERT_EQ(0, settings_set_str("k", "v"));
    struct stat st;
    EXPECT_EQ(0, stat(m_dir.File("xdg/lumora/settings.db").c_str(), &st));
    EXPECT_EQ("v", Get("k"));
}

}  // namespace
