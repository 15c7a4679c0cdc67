// settings_get_str / settings_set_str: a real SQLite file, several processes.
#include <gtest/gtest.h>
#include <lumora/lumora-platform.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "LogCapture.h"
#include "TempDir.h"

namespace {

using lumora::test::LogCapture;
using lumora::test::ScopedEnv;
using lumora::test::TempDir;

std::string Get(const char* key) {
    std::unique_ptr<char, decltype(&free)> value(settings_get_str(key), &free);
    return value ? std::string(value.get()) : std::string("<null>");
}

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

    TempDir m_dir;
    std::string m_db;
    ScopedEnv m_env;
    LogCapture m_log;
};

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

TEST_F(SettingsTest, SetReplacesAnEarlierValue) {
    ASSERT_EQ(0, settings_set_str("k", "one"));
    ASSERT_EQ(0, settings_set_str("k", "two"));
    EXPECT_EQ("two", Get("k"));
    EXPECT_EQ("1", QueryDirect("SELECT count(*) FROM settings"));
}

TEST_F(SettingsTest, AbsentKeyReadsAsNullWithoutALogLine) {
    ASSERT_EQ(0, settings_set_str("present", "x"));
    EXPECT_EQ("<null>", Get("absent"));
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.Dump();
}

TEST_F(SettingsTest, EmptyValueIsStoredAsEmpty) {
    ASSERT_EQ(0, settings_set_str("k", ""));
    EXPECT_EQ("", Get("k"));
}

TEST_F(SettingsTest, MissingDatabaseReadsAsNullWithOneErrorLine) {
    EXPECT_EQ("<null>", Get("k"));
    ASSERT_EQ(1u, m_log.Lines().size()) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("settings: database " + m_db + " does not exist", 'E')) << m_log.Dump();
    struct stat st;
    EXPECT_NE(0, stat(m_db.c_str(), &st));  // a read does not create the store
}

TEST_F(SettingsTest, UnreadableDatabaseGivesNullAndNonZeroWithOneErrorLineEach) {
    // A folder where the file should be cannot be opened as a database.
    ScopedEnv env("LUMORA_SETTINGS_DB", m_dir.Path());
    EXPECT_EQ("<null>", Get("k"));
    EXPECT_EQ(1u, m_log.Lines().size()) << m_log.Dump();
    m_log.Mark();
    EXPECT_NE(0, settings_set_str("k", "v"));
    auto records = m_log.Records();
    ASSERT_EQ(1u, records.size()) << m_log.Dump();
    EXPECT_EQ('E', records[0].level);
    EXPECT_EQ(0u, records[0].text.find("settings: open " + m_dir.Path() + " failed: ")) << records[0].text;
}

TEST_F(SettingsTest, CorruptDatabaseGivesNullAndNonZeroAndIsNotOverwritten) {
    std::string garbage(8192, 'G');
    m_dir.Write("corrupt.db", garbage);
    ScopedEnv env("LUMORA_SETTINGS_DB", m_dir.File("corrupt.db"));
    EXPECT_EQ("<null>", Get("k"));
    EXPECT_EQ(1u, m_log.Lines().size()) << m_log.Dump();
    EXPECT_NE(std::string::npos, m_log.Dump().find("file is not a database")) << m_log.Dump();
    m_log.Mark();
    EXPECT_NE(0, settings_set_str("k", "v"));
    EXPECT_EQ(1u, m_log.Lines().size()) << m_log.Dump();
    struct stat st;
    ASSERT_EQ(0, stat(m_dir.File("corrupt.db").c_str(), &st));
    EXPECT_EQ(static_cast<off_t>(garbage.size()), st.st_size);
}

TEST_F(SettingsTest, DatabaseOfAnotherShapeIsReportedNotChanged) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(m_dir.File("other.db").c_str(), &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, "CREATE TABLE t(x)", nullptr, nullptr, nullptr));
    sqlite3_close(db);
    ScopedEnv env("LUMORA_SETTINGS_DB", m_dir.File("other.db"));
    EXPECT_EQ("<null>", Get("k"));
    ASSERT_EQ(1u, m_log.Lines().size()) << m_log.Dump();
    EXPECT_NE(std::string::npos, m_log.Dump().find("no such table: settings")) << m_log.Dump();
}

TEST_F(SettingsTest, NullArgumentsAreRefusedWithALogLine) {
    EXPECT_EQ("<null>", Get(nullptr));
    EXPECT_NE(0, settings_set_str(nullptr, "v"));
    EXPECT_NE(0, settings_set_str("k", nullptr));
    EXPECT_EQ(3u, m_log.Lines().size()) << m_log.Dump();
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
