// lumora settings and lumora hints, run as processes, against settings stores
// that cannot be used: each says the store's own reason, not "not set".
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "CliFixture.h"
#include "Emulator.h"
#include "StoreAccess.h"

namespace lumora::test {
namespace {

class CliSettingsTest : public CliNoServiceFixture {
protected:
    std::string Store() const { return m_dir.File("settings.db"); }

    void MakeDatabase(const std::string& path, const char* sql) {
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
        ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql, nullptr, nullptr, nullptr));
        sqlite3_close(db);
    }

    // get, set and hints each fail with status 1 and exactly "lumora: <reason>".
    void ExpectEveryCommandToSay(const std::string& reason) {
        RunResult get = Lumora({"settings", "get", "db/lumora-service/itemlist"});
        EXPECT_EQ(1, get.exitStatus);
        EXPECT_EQ("lumora: " + reason + "\n", get.err);
        EXPECT_EQ("", get.out);
        RunResult set = Lumora({"settings", "set", "db/lumora-service/itemlist", "{}"});
        EXPECT_EQ(1, set.exitStatus);
        EXPECT_EQ("lumora: " + reason + "\n", set.err);
        RunResult hints = Lumora({"hints", "source"});
        EXPECT_EQ(1, hints.exitStatus);
        EXPECT_EQ("lumora: " + reason + "\n", hints.err);
        EXPECT_EQ("", hints.out);
    }

    // Runs lumora as a process that file modes apply to (see StoreAccess.h).
    RunResult LumoraAsReader(const std::vector<std::string>& args) {
        RunResult result;
        int out[2];
        int err[2];
        if (pipe(out) != 0 || pipe(err) != 0) return result;
        Launch launch = LaunchOf(CliExecutable(), args);
        std::vector<char*> argv = launch.Argv();
        pid_t pid = fork();
        if (pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            close(out[0]);
            close(err[0]);
            if (!BecomeUserThatModesApplyTo()) _exit(125);
            execv(launch.file.c_str(), argv.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        int status = 0;
        waitpid(pid, &status, 0);  // the outputs are a line or two: the pipes never fill
        result.out = ReadToEnd(out[0]);
        result.err = ReadToEnd(err[0]);
        result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return result;
    }
};

TEST_F(CliSettingsTest, AStoreThatIsNotADatabaseIsNamedWithSQLitesReason) {
    m_dir.Write("settings.db", std::string(8192, 'G'));
    ExpectEveryCommandToSay("cannot open the settings store " + Store() + ": file is not a database");
}

TEST_F(CliSettingsTest, AFolderInPlaceOfTheStoreIsNamed) {
    ScopedEnv db("LUMORA_SETTINGS_DB", m_dir.Path());
    ExpectEveryCommandToSay("cannot open the settings store " + m_dir.Path() + ": it is a directory");
}

TEST_F(CliSettingsTest, ADatabaseWithoutTheTableIsNamed) {
    MakeDatabase(Store(), "CREATE TABLE t(x)");
    ExpectEveryCommandToSay("cannot open the settings store " + Store() + ": no such table: settings");
}

TEST_F(CliSettingsTest, ATableOfAnotherShapeIsNamed) {
    MakeDatabase(Store(), "CREATE TABLE settings(k, v)");
    ExpectEveryCommandToSay("cannot open the settings store " + Store() +
                            ": table settings has the columns (k, v), not (key, value)");
}

TEST_F(CliSettingsTest, WithoutAStoreNothingIsSetAndTheMissingStoreIsNamed) {
    RunResult get = Lumora({"settings", "get", "k"});
    EXPECT_EQ(1, get.exitStatus);
    EXPECT_EQ("lumora: k is not set (there is no settings store at " + Store() + ")\n", get.err);
    RunResult hints = Lumora({"hints", "source"});
    EXPECT_EQ(1, hints.exitStatus);
    EXPECT_EQ("lumora: no hint list for source (there is no settings store at " + Store() + ")\n", hints.err);
}

TEST_F(CliSettingsTest, AnAbsentKeyOfAWorkingStoreIsStillNotSet) {
    ASSERT_EQ(0, Lumora({"settings", "set", "other", "x"}).exitStatus);
    RunResult get = Lumora({"settings", "get", "k"});
    EXPECT_EQ(1, get.exitStatus);
    EXPECT_EQ("lumora: k is not set\n", get.err);
    RunResult hints = Lumora({"hints", "source"});
    EXPECT_EQ(1, hints.exitStatus);
    EXPECT_EQ("lumora: no hint list for source\n", hints.err);
}

TEST_F(CliSettingsTest, SetTakesAValueOverTheArgumentLimitFromStandardInput) {
    const std::string value = "[\"" + std::string(200 * 1024, 'h') + "\"]";
    const std::string file = m_dir.Write("hints.json", value + "\n");
    RunResult set =
        RunProgram("/bin/sh", {"-c", "exec \"$0\" settings set db/lumora-service/source_hintlist - < \"$1\"",
                               ShellProgram(CliExecutable()), file});
    EXPECT_EQ(0, set.exitStatus) << set.err;
    RunResult get = Lumora({"settings", "get", "db/lumora-service/source_hintlist"});
    EXPECT_EQ(0, get.exitStatus) << get.err;
    EXPECT_TRUE(get.out == value + "\n") << get.out.size() << " bytes read back";
    RunResult bad =
        RunProgram("/bin/sh", {"-c", "printf '\\377' | \"$0\" settings set k -", ShellProgram(CliExecutable())});
    EXPECT_EQ(1, bad.exitStatus);
    EXPECT_EQ("lumora: VALUE (standard input) is not valid UTF-8\n", bad.err);
}

// The store, its files and its folder may be read but not written.
TEST_F(CliSettingsTest, AReadOnlyStoreIsReadButNotWritten) {
    ASSERT_EQ(0, Lumora({"settings", "set", "db/lumora-service/source_hintlist", "[\"HDMI1\"]"}).exitStatus);
    for (const char* suffix : {"", "-wal", "-shm"}) ASSERT_EQ(0, chmod((Store() + suffix).c_str(), 0444));
    ASSERT_EQ(0, chmod(m_dir.Path().c_str(), 0555));
    RunResult get = LumoraAsReader({"settings", "get", "db/lumora-service/source_hintlist"});
    RunResult hints = LumoraAsReader({"hints", "source"});
    RunResult set = LumoraAsReader({"settings", "set", "db/lumora-service/source_hintlist", "[]"});
    ASSERT_EQ(0, chmod(m_dir.Path().c_str(), 0755));  // so that the folder can be removed
    EXPECT_EQ(0, get.exitStatus) << get.err;
    EXPECT_EQ("[\"HDMI1\"]\n", get.out);
    EXPECT_EQ("", get.err);
    EXPECT_EQ(0, hints.exitStatus) << hints.err;
    EXPECT_EQ("[\"HDMI1\"]\n", hints.out);
    EXPECT_EQ(1, set.exitStatus);
    EXPECT_EQ("lumora: cannot write the settings store " + Store() + ": attempt to write a readonly database\n",
              set.err);
    EXPECT_EQ("[\"HDMI1\"]\n", Lumora({"settings", "get", "db/lumora-service/source_hintlist"}).out);
}

TEST_F(CliSettingsTest, AStoreHeldByAnotherProcessFailsAfterTheBusyTimeOut) {
    ASSERT_EQ(0, Lumora({"settings", "set", "k", "before"}).exitStatus);
    const std::string locked = "database is locked (another connection held it for longer than the 5 s busy time-out)";
    {
        SqliteLockHolder holder;
        ASSERT_TRUE(holder.Start(Store(), "BEGIN EXCLUSIVE; UPDATE settings SET value = 'held' WHERE key = 'k';"));
        // A reader is not kept out by a writer in WAL mode.
        RunResult get = Lumora({"settings", "get", "k"});
        EXPECT_EQ(0, get.exitStatus);
        EXPECT_EQ("before\n", get.out);
        auto start = std::chrono::steady_clock::now();
        RunResult set = Lumora({"settings", "set", "k", "after"});
        double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_EQ(1, set.exitStatus);
        EXPECT_EQ("lumora: cannot write the settings store " + Store() + ": " + locked + "\n", set.err);
        EXPECT_GE(waited, 4.5);
        EXPECT_LT(waited, 15.0);
    }
    {
        SqliteLockHolder holder;
        ASSERT_TRUE(holder.Start(Store(),
                                 "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE;"
                                 "UPDATE settings SET value = 'held' WHERE key = 'k';"));
        auto start = std::chrono::steady_clock::now();
        RunResult get = Lumora({"settings", "get", "k"});
        double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_EQ(1, get.exitStatus);
        EXPECT_EQ("lumora: cannot open the settings store " + Store() + ": " + locked + "\n", get.err);
        EXPECT_GE(waited, 4.5);
        EXPECT_LT(waited, 15.0);
    }
    RunResult get = Lumora({"settings", "get", "k"});
    EXPECT_EQ("before\n", get.out);
}

}  // namespace
}  // namespace lumora::test
