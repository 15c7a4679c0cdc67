// log_print: line format, destination, level filter and whole lines under
// concurrent processes.
#include <gtest/gtest.h>
#include <lumora/lumora-platform.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
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

// ---- the 4 KiB cap on a record ---------------------------------------------------

constexpr size_t kCap = 4096;  // bytes of a whole line, its newline included

// A cut line: the kept front of the text and the count its marker reports.
struct CutLine {
    std::string kept;
    size_t count = 0;
};

// Splits "<head><kept>... [N bytes cut]"; false when line is not of that shape.
bool SplitCut(const std::string& line, const std::string& head, CutLine& out) {
    const std::string close = " bytes cut]";
    if (line.compare(0, head.size(), head) != 0 || line.size() < close.size() ||
        line.compare(line.size() - close.size(), close.size(), close) != 0)
        return false;
    size_t open = line.rfind("... [");
    if (open == std::string::npos || open < head.size()) return false;
    std::string digits = line.substr(open + 5, line.size() - close.size() - open - 5);
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) return false;
    out.kept = line.substr(head.size(), open - head.size());
    out.count = std::stoul(digits);
    return true;
}

// The log file as written, with every newline.
std::string RawLog(const LogCapture& log) {
    std::ifstream in(log.Path(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

size_t Newlines(const std::string& text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

TEST(LogPrintTest, ARecordOfExactlyTheCapIsWrittenWhole) {
    LogCapture log;
    const std::string head = "E/T(" + Pid() + "): ";
    const std::string text(kCap - 1 - head.size(), 'x');
    EXPECT_EQ(static_cast<int>(kCap), log_print(LUMORA_PRIO_ERROR, "T", "%s", text.c_str()));
    std::string raw = RawLog(log);
    EXPECT_EQ(kCap, raw.size());
    EXPECT_EQ(head + text + "\n", raw);
}

TEST(LogPrintTest, ARecordOneByteOverTheCapIsCutWithItsCount) {
    LogCapture log;
    const std::string head = "E/T(" + Pid() + "): ";
    const std::string text(kCap - head.size(), 'x');  // one byte too many for the line
    int written = log_print(LUMORA_PRIO_ERROR, "T", "%s", text.c_str());
    std::string raw = RawLog(log);
    EXPECT_EQ(static_cast<size_t>(written), raw.size());
    EXPECT_LE(raw.size(), kCap);
    ASSERT_EQ(1u, Newlines(raw));
    CutLine cut;
    ASSERT_TRUE(SplitCut(raw.substr(0, raw.size() - 1), head, cut)) << raw.substr(raw.size() - 40);
    EXPECT_EQ(text.substr(0, cut.kept.size()), cut.kept);
    EXPECT_EQ(text.size(), cut.kept.size() + cut.count);
    // The marker takes the room of the cut text and no more than it needs.
    EXPECT_GE(raw.size(), kCap - 3);
}

TEST(LogPrintTest, AHugeTextBecomesOneLineOfAtMostTheCap) {
    LogCapture log;
    const std::string head = "W/BIG(" + Pid() + "): ";
    std::string text(20 * 1024 * 1024, 'y');
    text.replace(0, 6, "begin ");
    int written = log_print(LUMORA_PRIO_WARN, "BIG", "%s", text.c_str());
    std::string raw = RawLog(log);
    EXPECT_EQ(static_cast<size_t>(written), raw.size());
    EXPECT_LE(raw.size(), kCap);
    ASSERT_EQ(1u, Newlines(raw));
    EXPECT_EQ('\n', raw.back());
    CutLine cut;
    ASSERT_TRUE(SplitCut(raw.substr(0, raw.size() - 1), head, cut)) << raw.substr(raw.size() - 40);
    EXPECT_EQ(0u, cut.kept.find("begin yyy"));
    EXPECT_EQ(text.substr(0, cut.kept.size()), cut.kept);
    EXPECT_EQ(text.size() - cut.kept.size(), cut.count);
    EXPECT_GT(cut.kept.size(), kCap - 64);  // the cap is used, not wasted
}

TEST(LogPrintTest, TheCountIsOfTheFormattedTextWithArgumentsAndFormat) {
    LogCapture log;
    const std::string head = "I/T(" + Pid() + "): ";
    const std::string value(10000, 'v');
    log_print(LUMORA_PRIO_INFO, "T", "value=%s;n=%d;end", value.c_str(), 12345);
    const std::string formatted = "value=" + value + ";n=12345;end";
    auto lines = log.Lines();
    ASSERT_EQ(1u, lines.size());
    CutLine cut;
    ASSERT_TRUE(SplitCut(lines[0], head, cut)) << lines[0].substr(lines[0].size() - 40);
    EXPECT_EQ(formatted.substr(0, cut.kept.size()), cut.kept);
    EXPECT_EQ(formatted.size() - cut.kept.size(), cut.count);
}

// Each character of width 2, 3 and 4 bytes, starting at every offset against
// the cut: the kept text always ends on a whole character.
TEST(LogPrintTest, AMultiByteCharacterAtTheCutIsNeverSplit) {
    const std::string head = "E/T(" + Pid() + "): ";
    for (const std::string& character : {std::string("\xC3\xA9"), std::string("\xE2\x82\xAC"),
                                        std::string("\xF0\x9F\x93\xBA")}) {
        for (size_t shift = 0; shift < character.size(); ++shift) {
            LogCapture log;
            std::string text(shift, 'a');
            while (text.size() < 2 * kCap) text += character;
            log_print(LUMORA_PRIO_ERROR, "T", "%s", text.c_str());
            auto lines = log.Lines();
            ASSERT_EQ(1u, lines.size());
            CutLine cut;
            ASSERT_TRUE(SplitCut(lines[0], head, cut)) << lines[0].substr(lines[0].size() - 40);
            ASSERT_GE(cut.kept.size(), shift);
            EXPECT_EQ(0u, (cut.kept.size() - shift) % character.size())
                << character.size() << "-byte character, shift " << shift << ": kept " << cut.kept.size();
            EXPECT_EQ(text.substr(0, cut.kept.size()), cut.kept);
            EXPECT_EQ(text.size() - cut.kept.size(), cut.count);
            EXPECT_LE(lines[0].size() + 1, kCap);
        }
    }
}

TEST(LogPrintTest, LineBreaksCountOnceInTheCutCountAndTwiceInTheCap) {
    LogCapture log;
    const std::string head = "E/T(" + Pid() + "): ";
    std::string text;
    while (text.size() < 3 * kCap) text += "ab\n";
    log_print(LUMORA_PRIO_ERROR, "T", "%s", text.c_str());
    auto lines = log.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_LE(lines[0].size() + 1, kCap);
    CutLine cut;
    ASSERT_TRUE(SplitCut(lines[0], head, cut)) << lines[0].substr(lines[0].size() - 40);
    std::string unescaped;
    for (size_t i = 0; i < cut.kept.size(); ++i) {
        if (cut.kept[i] == '\\' && i + 1 < cut.kept.size() && cut.kept[i + 1] == 'n') {
            unescaped += '\n';
            ++i;
        } else {
            unescaped += cut.kept[i];
        }
    }
    EXPECT_EQ(text.substr(0, unescaped.size()), unescaped);
    EXPECT_EQ(text.size() - unescaped.size(), cut.count);
}

TEST(LogPrintTest, EveryRecordIsOneLineWhateverItsSize) {
    LogCapture log;
    const std::string big(50000, 'b');
    const std::string atCap(kCap - 1 - ("E/T(" + Pid() + "): ").size(), 'c');
    log_print(LUMORA_PRIO_ERROR, "T", "%s", big.c_str());
    log_print(LUMORA_PRIO_ERROR, "T", "small");
    log_print(LUMORA_PRIO_ERROR, "T", "%s", atCap.c_str());
    log_print(LUMORA_PRIO_ERROR, "T", "%s\n%s", big.c_str(), big.c_str());
    std::string raw = RawLog(log);
    EXPECT_EQ(4u, Newlines(raw));
    auto lines = log.Lines();
    ASSERT_EQ(4u, lines.size());
    for (const std::string& line : lines) EXPECT_LE(line.size() + 1, kCap);
    EXPECT_EQ("E/T(" + Pid() + "): small", lines[1]);
    EXPECT_EQ("E/T(" + Pid() + "): " + atCap, lines[2]);
}

TEST(LogPrintTest, ATextThatCannotBeFormattedStillLeavesALineSayingSo) {
    LogCapture log;
    // No multibyte form in the C locale: vsnprintf fails with EILSEQ.
    EXPECT_GT(log_print(LUMORA_PRIO_ERROR, "T", "wide %ls", L"\u00e9t\u00e9"), 0);
    log_print(LUMORA_PRIO_ERROR, "T", "next");
    auto lines = log.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("E/T(" + Pid() + "): [the text of this record could not be formatted: " + strerror(EILSEQ) + "]",
              lines[0]);
    EXPECT_EQ("E/T(" + Pid() + "): next", lines[1]);
}

// The cap keeps a record within one atomic write to a pipe too (PIPE_BUF):
// a reader of standard error gets each line in one piece.
TEST(LogPrintTest, ACutRecordToStandardErrorIsOneWholeLine) {
    testing::internal::CaptureStderr();
    const std::string big(100000, 'e');
    log_print(LUMORA_PRIO_ERROR, "T", "%s", big.c_str());
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_LE(err.size(), kCap);
    EXPECT_EQ(1u, Newlines(err));
    CutLine cut;
    ASSERT_TRUE(SplitCut(err.substr(0, err.size() - 1), "E/T(" + Pid() + "): ", cut));
    EXPECT_EQ(big.size() - cut.kept.size(), cut.count);
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

// Each process writes records just under the cap and records cut down to it;
// every line in the file is one whole record of one process.
TEST(LogPrintTest, TwoProcessesWritingConcurrentlyLeaveWholeLines) {
    LogCapture log;
    constexpr int kRecords = 2000;
    const std::string payload(4000, 'p');  // whole: the line stays under the cap
    const std::string huge(20000, 'h');    // cut to the cap
    pid_t children[2];
    for (int c = 0; c < 2; ++c) {
        children[c] = fork();
        ASSERT_GE(children[c], 0);
        if (children[c] == 0) {
            for (int i = 0; i < kRecords; ++i) {
                const std::string& text = i % 2 == 0 ? payload : huge;
                log_print(LUMORA_PRIO_INFO, "CONC", "child%d record %d %s", c, i, text.c_str());
            }
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
        ASSERT_LE(line.size() + 1, kCap);
        size_t blank = line.find(' ', line.find(" record ") + 8);
        ASSERT_NE(std::string::npos, blank) << line.substr(0, 80);
        std::string front = line.substr(0, blank);
        std::smatch m;
        ASSERT_TRUE(std::regex_match(front, m, head)) << front;
        int c = std::stoi(m[2].str());
        int i = std::stoi(m[3].str());
        EXPECT_EQ(std::to_string(children[c]), m[1].str());
        EXPECT_EQ(next[c]++, i);  // each process's records stay in order
        std::string rest = line.substr(blank + 1);
        if (i % 2 == 0) {
            ASSERT_EQ(payload, rest) << line.substr(0, 80);
        } else {
            CutLine cut;
            ASSERT_TRUE(SplitCut(line, front + " ", cut)) << line.substr(line.size() - 40);
            ASSERT_EQ(huge.substr(0, cut.kept.size()), cut.kept);
            ASSERT_EQ(huge.size() - cut.kept.size(), cut.count);
        }
    }
    EXPECT_EQ(kRecords, next[0]);
    EXPECT_EQ(kRecords, next[1]);
}

}  // namespace
