// lumora-sim refuses a malformed scenario before it touches the bus: exit
// status 2 and one line naming the file, the line and what is wrong.
#include <gtest/gtest.h>

#include <string>

#include "LogCapture.h"
#include "SimProcess.h"
#include "TempDir.h"

namespace lumora::test {
namespace {

class SimScenarioTest : public testing::Test {
protected:
    // Runs the simulator on a scenario with this text; returns its stderr,
    // after checking that the log holds the same reason.
    std::string Refusal(const std::string& json) {
        m_path = m_dir.Write("tv.json", json);
        RunResult result = SimProcess::Run({"--scenario", m_path});
        EXPECT_EQ(2, result.exitStatus) << result.err;
        const std::string prefix = "lumora-sim: ";
        if (result.err.rfind(prefix, 0) == 0 && !result.err.empty()) {
            std::string reason = result.err.substr(prefix.size(), result.err.size() - prefix.size() - 1);
            EXPECT_TRUE(m_log.Has("scenario refused: " + reason, 'E')) << m_log.Dump();
        }
        return result.err;
    }
    std::string At(const std::string& position, const std::string& what) const {
        return "lumora-sim: " + m_path + ":" + position + ": " + what + "\n";
    }

    LogCapture m_log;
    TempDir m_dir;
    // Known before Refusal writes it: the tests compare At(...) with
    // Refusal(...) in one expression, whose operands C++ evaluates in no
    // fixed order (GCC's x86-64 build happened to run Refusal first, its
    // ARM build runs At first).
    std::string m_path = m_dir.File("tv.json");
};

TEST_F(SimScenarioTest, AMissingCommaIsReportedWithItsLineAndColumn) {
    std::string err = Refusal("{\n  \"enabled\": true\n  \"whiteList\": []\n}\n");
    EXPECT_EQ(0u, err.find("lumora-sim: " + m_path + ":3:3: ")) << err;
    EXPECT_NE(std::string::npos, err.find("Missing ',' or '}' in object declaration")) << err;
}

TEST_F(SimScenarioTest, AWrongTypeIsReportedWithItsJsonPath) {
    std::string err = Refusal("{\n  \"resultCodes\": {\n    \"Ctx/App/Info/Current\": \"bad\"\n  }\n}\n");
    EXPECT_EQ(At("3:29", "resultCodes[\"Ctx/App/Info/Current\"]: expected a 32-bit integer, found a string"), err);
}

TEST_F(SimScenarioTest, AStatisticsTupleOfTheWrongShapeIsReportedAtTheElement) {
    std::string err = Refusal(
        "{\"statistics\": {\n"
        "  \"I/TallyDB/Onoff/Duration\": [[1, 2],\n"
        "                               [3, \"four\"]]}}\n");
    EXPECT_EQ(At("3:36",
                 "statistics[\"I/TallyDB/Onoff/Duration\"][1][1]: expected an unsigned 32-bit integer, "
                 "found a string"),
              err);
}

TEST_F(SimScenarioTest, ANegativeUnsignedStatisticIsRefused) {
    std::string err = Refusal("{\"statistics\": {\"I/TallyDB/Genre/Duration\": [[-1, 2, \"a\", \"b\"]]}}");
    EXPECT_NE(std::string::npos,
              err.find("[\"I/TallyDB/Genre/Duration\"][0][0]: expected an unsigned 32-bit integer, found an integer"))
        << err;
}

TEST_F(SimScenarioTest, ATupleOfTheWrongLengthIsRefused) {
    std::string err = Refusal("{\"statistics\": {\"I/TallyDB/App/Duration\": [[1, 2, \"a\"]]}}");
    EXPECT_EQ(At("1:44", "statistics[\"I/TallyDB/App/Duration\"][0]: expected an array of 6 elements (uusssi)"), err);
}

TEST_F(SimScenarioTest, StatisticsOfAnotherSubjectAreRefused) {
    std::string err = Refusal("{\"statistics\": {\"Data/Statistic/App\": []}}");
    EXPECT_EQ(At("1:39", "statistics[\"Data/Statistic/App\"]: not a statistics subject"), err);
}

TEST_F(SimScenarioTest, AnUnknownKeyIsRefused) {
    // Placed at the member's value, where the parser keeps positions.
    EXPECT_EQ(At("1:32", "whitelist: unknown key"), Refusal("{\"enabled\": true, \"whitelist\": []}"));
}

TEST_F(SimScenarioTest, ARootThatIsNotAnObjectIsRefused) {
    EXPECT_EQ(At("1:1", "scenario: expected an object, found an array"), Refusal("[]"));
}

TEST_F(SimScenarioTest, AFlagThatIsNotABooleanIsRefused) {
    EXPECT_EQ(At("1:13", "enabled: expected true or false, found a string"), Refusal("{\"enabled\": \"yes\"}"));
}

TEST_F(SimScenarioTest, AWhiteListEntryThatIsNotAStringIsRefused) {
    EXPECT_EQ(At("1:21", "whiteList[1]: expected a string, found an integer"), Refusal("{\"whiteList\": [\"a\", 2]}"));
}

TEST_F(SimScenarioTest, ADelayBeyondTenMinutesIsRefused) {
    EXPECT_EQ(At("1:20", "delaysMs[\"X\"]: a delay above 600000 ms is not served"),
              Refusal("{\"delaysMs\": {\"X\": 600001}}"));
}

TEST_F(SimScenarioTest, ANegativeDelayIsRefusedAsOneThatMustBeZeroOrMore) {
    EXPECT_EQ(At("1:20", "delaysMs[\"X\"]: must be zero or more"), Refusal("{\"delaysMs\": {\"X\": -5}}"));
    EXPECT_EQ(At("1:20", "delaysMs[\"X\"]: must be zero or more"), Refusal("{\"delaysMs\": {\"X\": -0.5}}"));
}

TEST_F(SimScenarioTest, AMemberNameWithALineBreakIsReportedOnOneLine) {
    EXPECT_EQ(At("1:10", "a\\nb: unknown key"), Refusal("{\"a\\nb\": 1}"));
    // A raw line break inside the name, which jsoncpp takes.
    EXPECT_EQ(At("2:5", "enablenable: 1}\\nd: unknown key"), Refusal("{\"enablenable: 1}\nd\": 1}\n"));
}

TEST_F(SimScenarioTest, NestingTooDeepIsReportedWhereItStarts) {
    std::string deep = "{\"values\": {\"X\": " + std::string(600, '[') + std::string(600, ']') + "}}";
    // The 511th bracket opens the 513th level, after the two braces.
    EXPECT_EQ(At("1:528", "nested more than 512 levels deep"), Refusal(deep));
    // Brackets inside comments and strings do not count: this file is refused
    // only for its unknown key.
    std::string quoted =
        "// " + std::string(600, '[') + "\n{\"values\": {\"X\": \"" + std::string(600, '{') + "\"}, \"zz\": 1}";
    EXPECT_EQ(At("2:629", "zz: unknown key"), Refusal(quoted));
}

TEST_F(SimScenarioTest, NumbersOutOfRangeAreNamedAsSuch) {
    EXPECT_EQ(At("1:23", "resultCodes[\"X\"]: 4294967296 is out of range for a 32-bit integer"),
              Refusal("{\"resultCodes\": {\"X\": 4294967296}}"));
    EXPECT_EQ(At("1:23", "resultCodes[\"X\"]: -2147483649 is out of range for a 32-bit integer"),
              Refusal("{\"resultCodes\": {\"X\": -2147483649}}"));
    // Past the unsigned 32-bit range too: too long a delay, not "no number".
    EXPECT_EQ(At("1:20", "delaysMs[\"X\"]: a delay above 600000 ms is not served"),
              Refusal("{\"delaysMs\": {\"X\": 5000000000}}"));
}

TEST_F(SimScenarioTest, AFlagGivenAsNullIsRefused) {
    EXPECT_EQ(At("1:24", "broadcastResponses: expected true or false, found null"),
              Refusal("{\"broadcastResponses\": null}"));
}

TEST_F(SimScenarioTest, ADelayThatIsNoWholeNumberIsRefusedAsSuch) {
    EXPECT_EQ(At("1:20", "delaysMs[\"X\"]: expected a number of milliseconds, found a string"),
              Refusal("{\"delaysMs\": {\"X\": \"5\"}}"));
}

TEST_F(SimScenarioTest, ADirectoryIsRefusedAsADirectory) {
    RunResult result = SimProcess::Run({"--scenario", m_dir.Path()});
    EXPECT_EQ(2, result.exitStatus);
    EXPECT_EQ("lumora-sim: " + m_dir.Path() + ": is a directory\n", result.err);
    EXPECT_TRUE(m_log.Has("scenario refused: " + m_dir.Path() + ": is a directory", 'E')) << m_log.Dump();
}

// Every string of a scenario becomes a D-Bus string, which must be UTF-8.
TEST_F(SimScenarioTest, AByteThatIsNotUtf8IsRefusedWhereItStands) {
    EXPECT_EQ(At("2:26", "not valid UTF-8"), Refusal("{\n  \"values\": {\"Ctx/A\": \"ab\xff\"}\n}\n"));
    EXPECT_EQ(At("1:18", "not valid UTF-8"), Refusal("{\"values\": {\"Ctx/\xff\": 1}}"));
    EXPECT_EQ(At("1:20", "not valid UTF-8"), Refusal("{\"whiteList\": [\"tv-\xc3\x28\"]}"));
    // Also where jsoncpp would never look: in a comment.
    EXPECT_EQ(At("2:6", "not valid UTF-8"), Refusal("{\n  // \xe2\x82 the den\n}\n"));
    EXPECT_EQ(At("1:2", "a NUL byte"), Refusal(std::string("{\0}", 3)));
}

TEST_F(SimScenarioTest, AnEscapeOfALoneSurrogateIsRefusedAtItsString) {
    EXPECT_EQ(At("1:22", "values[\"Ctx/A\"]: not valid UTF-8 (a \\u escape of a lone surrogate)"),
              Refusal("{\"values\": {\"Ctx/A\": \"\\udc80\"}}"));
    EXPECT_EQ(At("1:23", "values: a member name is not valid UTF-8"), Refusal("{\"values\": {\"\\udc80\": 1}}"));
    EXPECT_EQ(At("2:39",
                 "statistics[\"I/TallyDB/Genre/Duration\"][0][2]: not valid UTF-8 (a \\u escape of a "
                 "lone surrogate)"),
              Refusal("{\"statistics\": {\n  \"I/TallyDB/Genre/Duration\": [[1, 2, \"\\udc80\", \"x\"]]}}"));
}

TEST_F(SimScenarioTest, ADuplicateKeyIsRefused) {
    std::string err = Refusal("{\"enabled\": true,\n \"enabled\": false}");
    EXPECT_EQ(0u, err.find("lumora-sim: " + m_path + ":2:")) << err;
    EXPECT_NE(std::string::npos, err.find("Duplicate key: 'enabled'")) << err;
}

TEST_F(SimScenarioTest, TrailingTextIsRefused) {
    std::string err = Refusal("{}\n{}\n");
    EXPECT_EQ(0u, err.find("lumora-sim: " + m_path + ":2:1: ")) << err;
}

TEST_F(SimScenarioTest, AnEmptyFileIsRefused) {
    std::string err = Refusal("");
    EXPECT_EQ(0u, err.find("lumora-sim: " + m_path + ":1:1: ")) << err;
}

TEST_F(SimScenarioTest, AMissingFileIsRefused) {
    std::string missing = m_dir.File("absent.json");
    RunResult result = SimProcess::Run({"--scenario", missing});
    EXPECT_EQ(2, result.exitStatus);
    EXPECT_EQ("lumora-sim: " + missing + ": cannot open: No such file or directory\n", result.err);
}

TEST_F(SimScenarioTest, CommentsAreAllowed) {
    // Refused for the unknown key on line 3, so the comment itself passed.
    std::string err = Refusal("{\n  // the living room\n  \"colour\": 1\n}\n");
    EXPECT_EQ(At("3:13", "colour: unknown key"), err);
}

TEST_F(SimScenarioTest, HelpDescribesTheProtocolTheControlInterfaceAndTheScenario) {
    RunResult help = SimProcess::Run({"--help"});
    EXPECT_EQ(0, help.exitStatus);
    for (const char* part : {"org.verdin.tv.lumora2", "org.verdin.tv.lumora.interface2",
                             "org.verdin.tv.lumora2.SimControl", "/org/verdin/tv/lumora2/control", "lumora-sim ctl",
                             "/tmp/lmf_service_ready", "\"statistics\"", "stop-answering", "restart"}) {
        EXPECT_NE(std::string::npos, help.out.find(part)) << part;
    }
}

TEST_F(SimScenarioTest, AnUnknownOptionIsAUsageError) {
    RunResult result = SimProcess::Run({"--frobnicate"});
    EXPECT_EQ(2, result.exitStatus);
    EXPECT_EQ("lumora-sim: unexpected argument '--frobnicate' (see lumora-sim --help)\n", result.err);
}

}  // namespace
}  // namespace lumora::test
