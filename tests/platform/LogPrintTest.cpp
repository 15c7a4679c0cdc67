// log_print: line format, destination, level filter and whole lines under
// concurrent processes.
#include <gtest/gtest.h>
#include <lumora/lumora-platform.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <string>

#include "LogCapture.h"
#include "TempDir.h"
#include "internal/Log.h"

namespace {

using lumora::test::LogCapture;
using lumora::test::ScopedEnv;
using lumora::test::TempDir;

std::string Pid() { return std::to_string(getpid()); }

TEST(LogPrintTest, WritesOneLineInThePlatformFormat) {
    LogCapture log;
    log_print(LUMORA_PRIO_ERROR, "MYTAG", "value %d of %s", 7, "x");
    ASSERT_EQ(1u, log.Lines().size());
    EXPECT_EQ("E/MYTAG(" + Pid() + "): value 7 of x", log.Lines()[0]);
}

TEST(LogPrintTest, EachPriorityHasItsLetter) {
    LogCapture log;
    log_print(LUMORA_PRIO_DEBUG, "T", "d");
    log_print(LUMORA_PRIO_INFO, "T", "i");
    log_print(LUMORA_PRIO_WARN, "T", "w");
    log_print(LUMORA_PRIO_ERROR, "T", "e");
    auto lines = log.Lines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ("D/T(" + Pid() + "): d", lines[0]);
    EXPECT_EQ("I/T(" + Pid() + "): i", lines[1]);
    EXPECT_EQ("W/T(" + Pid() + "): w", lines[2]);
    EXPECT_EQ("E/T(" + Pid() + "): e", lines[3]);
}

TEST(LogPrintTest, LibraryHelperWritesFileFunctionAndLinePrefix) {
    LogCapture log;
    int line = __LINE__ + 1;
    LMF_LOGE("[%s] Dbus is not connected", "myapp");
    ASSERT_EQ(1u, log.Lines().size());
    EXPECT_EQ("E/LMF_API(" + Pid() + "): LogPrintTest.cpp: TestBody(" + std::to_string(line) +
                  ") > [myapp] Dbus is not connected",
              log.Lines()[0]);
}

TEST(LogPrintTest, LibraryHelperHasFourPriorities) {
    LogCapture log;
    LMF_LOGD("d");
    LMF_LOGI("i");
    LMF_LOGW("w");
    LMF_LOGE("e");
    auto records = log.Records();
    ASSERT_EQ(4u, records.size());
    EXPECT_EQ('D', records[0].level);
    EXPECT_EQ('I', records[1].level);
    EXPECT_EQ('W', records[2].level);
    EXPECT_EQ('E', records[3].level);
    for (const auto& record : records) {
        EXPECT_EQ("LMF_API", record.tag);
        EXPECT_EQ("LogPrintTest.cpp", record.file);
        EXPECT_EQ("TestBody", record.function);
    }
}

TEST(LogPrintTest, LevelFilterDropsLowerPriorities) {
    LogCapture log;
    {
        ScopedEnv level("LUMORA_LOG_LEVEL", "warning");
        EXPECT_EQ(0, log_print(LUMORA_PRIO_DEBUG, "T", "dropped"));
        EXPECT_EQ(0, log_print(LUMORA_PRIO_INFO, "T", "dropped"));
        EXPECT_GT(log_print(LUMORA_PRIO_WARN, "T", "kept w"), 0);
        EXPECT_GT(log_print(LUMORA_PRIO_ERROR, "T", "kept e"), 0);
    }
    auto lines = log.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("kept w"));
    EXPECT_NE(std::string::npos, lines[1].find("kept e"));
}

TEST(LogPrintTest, LevelNoneDropsEverything) {
    LogCapture log;
    ScopedEnv level("LUMORA_LOG_LEVEL", "none");
    log_print(LUMORA_PRIO_ERROR, "T", "dropped");
    EXPECT_TRUE(log.Lines().empty());
}

TEST(LogPrintTest, LevelsInfoAndErrorFilterAsNamed) {
    LogCapture log;
    {
        ScopedEnv level("LUMORA_LOG_LEVEL", "info");
        log_print(LUMORA_PRIO_DEBUG, "T", "no");
        log_print(LUMORA_PRIO_INFO, "T", "yes-info");
    }
    {
        ScopedEnv level("LUMORA_LOG_LEVEL", "error");
        log_print(LUMORA_PRIO_WARN, "T", "no");
        log_print(LUMORA_PRIO_ERROR, "T", "yes-error");
    }
    auto lines = log.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("yes-info"));
    EXPECT_NE(std::string::npos, lines[1].find("yes-error"));
}

TEST(LogPrintTest, LineBreaksInTheTextStayOnOneLine) {
    LogCapture log;
    log_print(LUMORA_PRIO_INFO, "T", "Set %s for m_vWhiteList", "{\n  \"WhiteList\" : []\n}");
    auto lines = log.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("I/T(" + Pid() + "): Set {\\n  \"WhiteList\" : []\\n} for m_vWhiteList", lines[0]);
}

TEST(LogPrintTest, LongRecordsAreWrittenWhole) {
    LogCapture log;
    std::string big(100000, 'x');
    log_print(LUMORA_PRIO_ERROR, "T", "%s", big.c_str());
    auto lines = log.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("E/T(" + Pid() + "): " + big, lines[0]);
}

TEST(LogPrintTest, FollowsTheLogFileVariableWhenItChanges) {
    LogCapture first;
    log_print(LUMORA_PRIO_ERROR, "T", "one");
    {
        LogCapture second;
        log_print(LUMORA_PRIO_ERROR, "T", "two");
        EXPECT_EQ(1u, second.Lines().size());
    }
    log_print(LUMORA_PRIO_ERROR, "T", "three");
    auto lines = first.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[1].find("three"));
}

TEST(LogPrintTest, CreatesAMissingLogFile) {
    TempDir dir;
    std::string path = dir.File("new.log");
    {
        ScopedEnv file("LUMORA_LOG_FILE", path);
        log_print(LUMORA_PRIO_ERROR, "T", "created");
    }
    std::ifstream in(path);
    std::string line;
    ASSERT_TRUE(std::getline(in, line));
    EXPECT_EQ("E/T(" + Pid() + "): created", line);
}

TEST(LogPrintTest, UnopenableLogFileFallsBackToStandardError) {
    TempDir dir;
    ScopedEnv file("LUMORA_LOG_FILE", dir.File("no/such/folder/x.log"));
    testing::internal::CaptureStderr();
    log_print(LUMORA_PRIO_ERROR, "T", "not lost");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ("E/T(" + Pid() + "): not lost\n", err);
}

TEST(LogPrintTest, TwoProcessesWritingConcurrentlyLeaveWholeLines) {
    LogCapture log;
    constexpr int kRecords = 2000;
    // Records longer than a pipe buffer, so that a split write would show.
    const std::string payload(5000, 'p');
    pid_t children[2];
    for (int c = 0; c < 2; ++c) {
        children[c] = fork();
        ASSERT_GE(children[c], 0);
        if (children[c] == 0) {
            for (int i = 0; i < kRecords; ++i) log_print(LUMORA_PRIO_INFO, "CONC", "child%d record %d %s", c, i, payload.c_str());
            _exit(0);
        }
    }
    for (pid_t child : children) {
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    auto lines = log.Lines();
    ASSERT_EQ(static_cast<size_t>(2 * kRecords), lines.size());
    const std::regex head("^I/CONC\\((\\d+)\\): child([01]) record (\\d+)$");
    int next[2] = {0, 0};
    for (const std::string& line : lines) {
        size_t blank = line.rfind(' ');
        ASSERT_NE(std::string::npos, blank);
        ASSERT_EQ(payload, line.substr(blank + 1)) << line.substr(0, 80);
        std::string front = line.substr(0, blank);
        std::smatch m;
        ASSERT_TRUE(std::regex_match(front, m, head)) << front;
        int c = std::stoi(m[2].str());
        EXPECT_EQ(std::to_string(children[c]), m[1].str());
        EXPECT_EQ(next[c]++, std::stoi(m[3].str()));  // each process's records stay in order
    }
    EXPECT_EQ(kRecords, next[0]);
    EXPECT_EQ(kRecords, next[1]);
}

}  // namespace
