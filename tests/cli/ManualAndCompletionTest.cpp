// The manual pages as man shows them, and the bash completion as bash runs
// it, beside a running lumora-sim.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CliFixture.h"
#include "Emulator.h"

namespace lumora::test {
namespace {

// man's rendering of a page file, and what it warned about (groff -ww).
RunResult Man(const std::string& page) {
    ScopedEnv width("MANWIDTH", "100");
    return RunProgram("/usr/bin/man", {"--warnings", "-l", page});
}

// The words bash completes for the command line words (the last one being
// completed), with the built tools first on PATH (through the emulator in a
// cross build).
std::vector<std::string> Complete(const std::vector<std::string>& words) {
    std::string array;
    for (const std::string& word : words) array += " '" + word + "'";
    std::string script = "PATH=" + ShellToolsPath(LUMORA_TOOLS_PATH) +
                         ":$PATH; source " LUMORA_COMPLETION "; COMP_WORDS=(" + array +
                         "); COMP_CWORD=" + std::to_string(words.size() - 1) + "; complete -p " + words[0] +
                         " >/dev/null && $(complete -p " + words[0] +
                         " | sed 's/.*-F \\([^ ]*\\).*/\\1/'); printf '%s\\n' \"${COMPREPLY[@]}\"";
    RunResult run = RunProgram("/bin/bash", {"-c", script});
    EXPECT_EQ(0, run.exitStatus) << run.err;
    std::vector<std::string> replies;
    size_t start = 0;
    for (size_t end; (end = run.out.find('\n', start)) != std::string::npos; start = end + 1)
        if (end > start) replies.push_back(run.out.substr(start, end - start));
    return replies;
}

bool Has(const std::vector<std::string>& words, const std::string& word) {
    for (const std::string& w : words)
        if (w == word) return true;
    return false;
}

class ManualTest : public CliNoServiceFixture {};

TEST_F(ManualTest, TheLumoraPageHasEveryCommandWithAnExampleAndNoWarning) {
    RunResult page = Man(LUMORA_MAN_DIR "/lumora.1.gz");
    ASSERT_EQ(0, page.exitStatus) << page.err;
    EXPECT_EQ("", page.err);
    EXPECT_NE(std::string::npos, page.out.find("lumora - command-line client of the television context service"));
    EXPECT_NE(std::string::npos, page.out.find("lumora " LUMORA_PROJECT_VERSION));
    for (const char* command :
         {"read", "write", "settings", "hints", "status", "request", "subscribe", "stats", "channels", "action"}) {
        std::string heading = std::string("lumora ") + command + " ";
        size_t at = page.out.find("\n       " + heading);
        ASSERT_NE(std::string::npos, at) << command << page.out;
        // Its text, up to the next command's heading, ends with its examples.
        size_t next = page.out.find("\n       lumora ", at + 1);
        std::string section = page.out.substr(at, next == std::string::npos ? std::string::npos : next - at);
        size_t example = section.find("Example");
        ASSERT_NE(std::string::npos, example) << command << section;
        EXPECT_NE(std::string::npos, section.find(std::string(command) + " ", example)) << command << section;
    }
}

TEST_F(ManualTest, TheSimulatorPageHasEveryCtlCommandWithAnExample) {
    RunResult page = Man(LUMORA_MAN_DIR "/lumora-sim.1.gz");
    ASSERT_EQ(0, page.exitStatus) << page.err;
    EXPECT_EQ("", page.err);
    for (const char* verb : {"emit", "set", "clear", "code", "delay", "stats", "stop-answering", "resume-answering",
                             "enable", "disable", "whitelist", "restart", "status", "event"})
        EXPECT_NE(std::string::npos, page.out.find(std::string("lumora-sim ctl ") + verb)) << verb;
    EXPECT_NE(std::string::npos, page.out.find("--scenario FILE"));
    // `lumora-sim run`, with the environment its command gets.
    EXPECT_NE(std::string::npos, page.out.find("lumora-sim run [SIMULATOR OPTIONS]"));
    for (const char* variable : {"DBUS_SYSTEM_BUS_ADDRESS", "LUMORA_SIM_BUS_ADDRESS", "LUMORA_SIM_PID",
                                 "LUMORA_SIM_HTTP_URL", "--shared-tmp"})
        EXPECT_NE(std::string::npos, page.out.find(variable)) << variable;
}

class CompletionTest : public CliServiceFixture {};

TEST_F(CompletionTest, CommandsOptionsAndTheRunningSimulatorsSubjectsAreCompleted) {
    EXPECT_EQ((std::vector<std::string>{"read", "request"}), Complete({"lumora", "re"}));
    EXPECT_TRUE(Has(Complete({"lumora", ""}), "subscribe"));
    EXPECT_TRUE(Has(Complete({"lumora", "status", "--w"}), "--watch"));
    EXPECT_EQ((std::vector<std::string>{"get", "set"}), Complete({"lumora", "settings", ""}));
    // A subject only the running simulator has.
    ASSERT_TRUE(Control(lumora::sim::kCtlSetValue, g_variant_new("(ss)", "Ctx/Only/In/This/Run", "{}")));
    EXPECT_EQ((std::vector<std::string>{"Ctx/Only/In/This/Run"}), Complete({"lumora", "read", "Ctx/Only/"}));
    EXPECT_TRUE(Has(Complete({"lumora", "subscribe", "--initial", "Ctx/Sound/Vol"}), "Ctx/Sound/Volume/Level/Current"));
    EXPECT_EQ((std::vector<std::string>{"ctl"}), Complete({"lumora-sim", "c"}));
    EXPECT_EQ((std::vector<std::string>{"run"}), Complete({"lumora-sim", "r"}));
    EXPECT_EQ((std::vector<std::string>{"--shared-tmp"}), Complete({"lumora-sim", "run", "--sh"}));
    EXPECT_TRUE(Has(Complete({"lumora-sim", "run", "--", "lumor"}), "lumora"));
    EXPECT_EQ((std::vector<std::string>{"stats", "stop-answering", "status"}), Complete({"lumora-sim", "ctl", "st"}));
    EXPECT_TRUE(Has(Complete({"lumora-sim", "ctl", "emit", "Ctx/App/"}), "Ctx/App/Info/Current"));
    EXPECT_EQ((std::vector<std::string>{"program"}), Complete({"lumora-sim", "ctl", "event", "pr"}));
}

}  // namespace
}  // namespace lumora::test
