// lumora, the command-line client, run as a process against lumora-sim.
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "CliFixture.h"
#include "Emulator.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;

size_t LineCount(const std::string& text) {
    size_t lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

class CliUsageTest : public CliNoServiceFixture {};

TEST_F(CliUsageTest, HelpGoesToStandardOutputWithStatusZero) {
    RunResult help = Lumora({"--help"});
    EXPECT_EQ(0, help.exitStatus);
    EXPECT_EQ(0u, help.out.find("usage: lumora [-v] [--pretty] COMMAND [ARGS...]")) << help.out;
    for (const char* command : {"read", "write", "settings", "hints", "status"})
        EXPECT_NE(std::string::npos, help.out.find(std::string("  ") + command + " ")) << command;
    EXPECT_EQ("", help.err);
}

TEST_F(CliUsageTest, BothToolsTellTheirVersion) {
    RunResult lumora = Lumora({"--version"});
    EXPECT_EQ(0, lumora.exitStatus);
    EXPECT_EQ("lumora " LUMORA_PROJECT_VERSION "\n", lumora.out);
    EXPECT_EQ("", lumora.err);
    RunResult sim = SimProcess::Run({"--version"});
    EXPECT_EQ(0, sim.exitStatus);
    EXPECT_EQ("lumora-sim " LUMORA_PROJECT_VERSION "\n", sim.out);
    EXPECT_NE(std::string::npos, Lumora({"--help"}).out.find("  --version "));
    EXPECT_NE(std::string::npos, SimProcess::Run({"--help"}).out.find("  --version "));
}

TEST_F(CliUsageTest, EveryCommandHasItsHelp) {
    for (const char* command : {"read", "write", "settings", "hints", "status"}) {
        RunResult help = Lumora({command, "--help"});
        EXPECT_EQ(0, help.exitStatus) << command;
        EXPECT_EQ(0u, help.out.find(std::string("usage: lumora ") + command)) << help.out;
    }
}

TEST_F(CliUsageTest, UsageErrorsPrintTheUsageWithStatusTwo) {
    RunResult none = Lumora({});
    EXPECT_EQ(2, none.exitStatus);
    EXPECT_EQ(0u, none.err.find("usage: lumora")) << none.err;
    EXPECT_EQ("", none.out);

    RunResult missing = Lumora({"read"});
    EXPECT_EQ(2, missing.exitStatus);
    EXPECT_EQ(0u, missing.err.find("usage: lumora read SUBJECT [INPUT]")) << missing.err;

    RunResult extra = Lumora({"write", "a", "b", "c"});
    EXPECT_EQ(2, extra.exitStatus);

    RunResult unknown = Lumora({"frobnicate"});
    EXPECT_EQ(2, unknown.exitStatus);
    EXPECT_EQ(0u, unknown.err.find("lumora: unknown command frobnicate\n")) << unknown.err;

    RunResult option = Lumora({"--bogus", "status"});
    EXPECT_EQ(2, option.exitStatus);
    EXPECT_EQ(0u, option.err.find("lumora: unknown option --bogus\n")) << option.err;

    RunResult settings = Lumora({"settings", "remove", "k"});
    EXPECT_EQ(2, settings.exitStatus);
    EXPECT_EQ(0u, settings.err.find("usage: lumora settings get KEY")) << settings.err;
}

TEST_F(CliUsageTest, SettingsSetThenGetRoundTrips) {
    EXPECT_EQ(0, Lumora({"settings", "set", "db/lumora-service/itemlist", "{\"HomeApps\":[1]}"}).exitStatus);
    RunResult get = Lumora({"settings", "get", "db/lumora-service/itemlist"});
    EXPECT_EQ(0, get.exitStatus);
    EXPECT_EQ("{\"HomeApps\":[1]}\n", get.out);
    EXPECT_EQ("", get.err);
}

TEST_F(CliUsageTest, SettingsGetOfAnAbsentKeyFailsWithOneLine) {
    ASSERT_EQ(0, Lumora({"settings", "set", "other", "x"}).exitStatus);
    RunResult get = Lumora({"settings", "get", "absent/key"});
    EXPECT_EQ(1, get.exitStatus);
    EXPECT_EQ("lumora: absent/key is not set\n", get.err);
    EXPECT_EQ("", get.out);
}

TEST_F(CliUsageTest, HintsReadTheListOfTheirType) {
    ASSERT_EQ(0, Lumora({"settings", "set", "db/lumora-service/source_hintlist", "[\"HDMI1\"]"}).exitStatus);
    RunResult hints = Lumora({"--pretty", "hints", "source"});
    EXPECT_EQ(0, hints.exitStatus);
    EXPECT_EQ("[\n  \"HDMI1\"\n]\n", hints.out);
    RunResult none = Lumora({"hints", "channel"});
    EXPECT_EQ(1, none.exitStatus);
    EXPECT_EQ("lumora: no hint list for channel\n", none.err);
}

TEST_F(CliUsageTest, ReadWithoutABusFailsWithOneLine) {
    RunResult read = Lumora({"read", "Ctx/App/Info/Current"});
    EXPECT_EQ(1, read.exitStatus);
    EXPECT_EQ("lumora: cannot connect to the system bus (DBUS_SYSTEM_BUS_ADDRESS)\n", read.err);
}

TEST_F(CliUsageTest, ReadWhenTheFeatureIsOffFailsWithOneLine) {
    ScopedEnv features("LUMORA_FEATURE_FILE",
                       m_dir.Write("features.conf", "com.kaldor/featureconf/lumora.service_enable=false\n"));
    RunResult read = Lumora({"read", "Ctx/App/Info/Current"});
    EXPECT_EQ(1, read.exitStatus);
    EXPECT_EQ(1u, LineCount(read.err));
    EXPECT_EQ(0u, read.err.find("lumora: the context service is disabled on this device")) << read.err;
}

TEST_F(CliUsageTest, StatusWithoutABusSaysSoAndFailsWithStatusThree) {
    RunResult status = Lumora({"status"});
    EXPECT_EQ(3, status.exitStatus);
    EXPECT_NE(std::string::npos, status.out.find("feature switch: enabled\n")) << status.out;
    EXPECT_NE(std::string::npos, status.out.find("bus: unreachable (unix:path=")) << status.out;
    EXPECT_NE(std::string::npos, status.out.find("Could not connect")) << status.out;
    EXPECT_NE(std::string::npos, status.out.find("\nservice: unknown (the bus is unreachable)\n")) << status.out;
    // No answer, so no decision: not "denied".
    EXPECT_NE(std::string::npos, status.out.find("\nwhitelist: unknown for lumora (the service did not answer)\n"))
        << status.out;
}

TEST_F(CliUsageTest, StatusHelpListsItsExitStatuses) {
    RunResult help = Lumora({"status", "--help"});
    EXPECT_EQ(0, help.exitStatus);
    for (const char* line :
         {"  3  the bus is unreachable", "  4  the service is not running", "  5  the service does not answer",
          "  6  the service is disabled", "  7  the service is not ready", "  8  the feature switch disables"}) {
        EXPECT_NE(std::string::npos, help.out.find(line)) << line << "\n" << help.out;
    }
}

// Text that is not UTF-8 could never travel as a D-Bus string.
TEST_F(CliUsageTest, ArgumentsThatAreNotUtf8AreRefusedWithOneLineNamingThem) {
    const struct {
        std::vector<std::string> args;
        const char* name;
    } refusals[] = {
        {{"read", "Ctx/\xff"}, "SUBJECT"},
        {{"read", "Ctx/App/Info/Current", "{\"a\":\"\xc3\x28\"}"}, "INPUT"},
        {{"write", "Ctx/\xff", "{}"}, "SUBJECT"},
        {{"write", "Ctx/Test/X", "\xe2\x82"}, "DATA"},
        {{"request", "--timeout", "3", "Ctx/\xff"}, "SUBJECT"},
        {{"subscribe", "Ctx/A", "Ctx/\xff"}, "SUBJECT"},
        {{"stats", "\xff"}, "KIND"},
        {{"stats", "app", "\xff"}, "INPUT"},
        {{"channels", "reorder", "[\xff]"}, "JSON_ARRAY"},
        {{"channels", "remove", "9", "1", "air", "--service-id", "\xff"}, "--service-id"},
        {{"channels", "--source", "\xff"}, "--source"},
        {{"channels", "\xff"}, "argument 1"},
        {{"action", "firstscreen", "\xff", "{}"}, "COMPONENT"},
        {{"action", "firstscreen", "home", "{\"t\":\"\xff\"}"}, "JSON"},
    };
    for (const auto& refusal : refusals) {
        RunResult run = Lumora(refusal.args);
        EXPECT_EQ(1, run.exitStatus) << refusal.name;
        EXPECT_EQ(std::string("lumora: ") + refusal.name + " is not valid UTF-8\n", run.err);
        EXPECT_EQ("", run.out);
    }
}

// A bus on which no service runs.
class CliBusWithoutServiceTest : public CliNoServiceFixture {
protected:
    void SetUp() override { ASSERT_TRUE(m_privateBus.Start()); }
    TestBus m_privateBus;
};

TEST_F(CliBusWithoutServiceTest, StatusSaysTheServiceIsNotRunningWithStatusFour) {
    RunResult status = Lumora({"status"});
    EXPECT_EQ(4, status.exitStatus);
    EXPECT_EQ("feature switch: enabled\nbus: connected (" + m_privateBus.Address() +
                  ")\nservice: not running (org.verdin.tv.lumora2 has no owner on the bus)\n"
                  "whitelist: unknown for lumora (the service did not answer)\n",
              status.out);
    RunResult read = Lumora({"read", "Ctx/App/Info/Current"});
    EXPECT_EQ(1, read.exitStatus);
    EXPECT_EQ("lumora: the context service is not running (org.verdin.tv.lumora2 has no owner on the bus)\n", read.err);
}

// Commands against the simulator.
class CliServiceTest : public CliServiceFixture {};

TEST_F(CliServiceTest, ReadPrintsTheValueAndNothingElse) {
    RunResult read = Lumora({"read", "Ctx/Media/Source/Info/Current"});
    EXPECT_EQ(0, read.exitStatus);
    EXPECT_EQ(SimValue("Ctx/Media/Source/Info/Current") + "\n", read.out);
    EXPECT_EQ("", read.err);
}

TEST_F(CliServiceTest, PrettyIndentsJsonValues) {
    RunResult read = Lumora({"--pretty", "read", "Ctx/Media/Broadcast/Program/Current"});
    EXPECT_EQ(0, read.exitStatus);
    EXPECT_NE(std::string::npos, read.out.find("{\n  \"")) << read.out;
    Json::Value pretty, plain;
    ASSERT_TRUE(Json::Reader().parse(read.out, pretty));
    ASSERT_TRUE(Json::Reader().parse(SimValue("Ctx/Media/Broadcast/Program/Current"), plain));
    EXPECT_EQ(plain, pretty);
}

TEST_F(CliServiceTest, ReadSendsItsInput) {
    RunResult read = Lumora({"read", "Pref/Channel/List/Reorder",
                             "{\"reorder\":[{\"major\":9,\"minor\":1},{\"major\":7,\"minor\":1}],\"source\":0}"});
    EXPECT_EQ(0, read.exitStatus) << read.err;
    EXPECT_NE(std::string::npos, read.out.find("\"major\":7")) << read.out;
}

TEST_F(CliServiceTest, VerboseShowsTheLibrarysLogOnStandardError) {
    RunResult read = Lumora({"-v", "read", "Ctx/App/Info/Current"});
    EXPECT_EQ(0, read.exitStatus);
    EXPECT_NE(std::string::npos, read.err.find("/LMF_API(")) << read.err;
    EXPECT_NE(std::string::npos, read.err.find("[lumora] type:1, reqId:1, szSubject:Ctx/App/Info/Current, input:"))
        << read.err;
}

TEST_F(CliServiceTest, ReadOfASubjectWithoutDataFailsWithOneLine) {
    RunResult read = Lumora({"read", "Ctx/No/Such/Subject"});
    EXPECT_EQ(1, read.exitStatus);
    EXPECT_EQ("lumora: the service has no data for Ctx/No/Such/Subject\n", read.err);
    EXPECT_EQ("", read.out);
}

TEST_F(CliServiceTest, ReadReportsTheServicesOwnCode) {
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", "Data/Weather/Forecast", -5)));
    RunResult read = Lumora({"read", "Data/Weather/Forecast"});
    EXPECT_EQ(1, read.exitStatus);
    EXPECT_EQ("lumora: the context service is not available (code -5)\n", read.err);
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", "Data/Weather/Forecast", 7)));
    read = Lumora({"read", "Data/Weather/Forecast"});
    EXPECT_EQ("lumora: the service answered Data/Weather/Forecast with code 7\n", read.err);
}

TEST_F(CliServiceTest, InternalSubjectIsRefusedWhenTheClientIsNotWhitelisted) {
    const gchar* names[] = {"tv-launcher", nullptr};
    ASSERT_TRUE(Control(sim::kCtlSetWhiteList, g_variant_new("(^as)", names)));
    RunResult read = Lumora({"read", "I/TallyDB/App/Duration"});
    EXPECT_EQ(1, read.exitStatus);
    EXPECT_EQ(
        "lumora: I/TallyDB/App/Duration is internal and this process (lumora) is not on the service's whitelist\n",
        read.err);
}

TEST_F(CliServiceTest, WriteSendsTheValue) {
    RunResult write = Lumora({"write", "Ctx/Test/FromCli", "{\"a\":1}"});
    EXPECT_EQ(0, write.exitStatus) << write.err;
    EXPECT_EQ("", write.out);
    EXPECT_TRUE(WaitUntil([&] { return SimValue("Ctx/Test/FromCli") == "{\"a\":1}"; }, 5000));
}

TEST_F(CliServiceTest, ADisabledServiceIsSaidToBeDisabled) {
    ASSERT_TRUE(Control(sim::kCtlSetEnabled, g_variant_new("(b)", FALSE)));
    RunResult read = Lumora({"read", "Ctx/App/Info/Current"});
    EXPECT_EQ(1, read.exitStatus);
    EXPECT_EQ("lumora: the context service is disabled (it answers ServiceEnable with false)\n", read.err);
    RunResult status = Lumora({"status"});
    EXPECT_EQ(6, status.exitStatus);
    EXPECT_EQ("feature switch: enabled\nbus: connected (" + m_bus.Address() +
                  ")\nservice: disabled (it answers ServiceEnable with false)\nwhitelist: granted for lumora\n",
              status.out);
}

TEST_F(CliServiceTest, AServiceThatDoesNotAnswerIsSaidNotToAnswer) {
    ASSERT_TRUE(Control(sim::kCtlStopAnswering));
    RunResult status = Lumora({"status"});
    EXPECT_EQ(5, status.exitStatus);
    EXPECT_EQ("feature switch: enabled\nbus: connected (" + m_bus.Address() +
                  ")\nservice: not answering (no answer to ServiceEnable within 1 s)\n"
                  "whitelist: unknown for lumora (the service did not answer)\n",
              status.out);
    RunResult read = Lumora({"read", "Ctx/App/Info/Current"});
    EXPECT_EQ(1, read.exitStatus);
    EXPECT_EQ("lumora: the context service is not answering (no answer to ServiceEnable within 1 s)\n", read.err);
}

TEST_F(CliServiceTest, AServiceWithoutItsReadinessMarkerIsSaidNotToBeReady) {
    ASSERT_EQ(0, unlink("/tmp/lmf_service_ready"));
    RunResult status = Lumora({"status"});
    EXPECT_EQ(7, status.exitStatus);
    EXPECT_NE(std::string::npos,
              status.out.find("\nservice: not ready (it answers, but /tmp/lmf_service_ready is missing)\n"))
        << status.out;
}

TEST_F(CliServiceTest, AWhiteListDenialIsShownButTheServiceIsAvailable) {
    const gchar* names[] = {"tv-launcher", nullptr};
    ASSERT_TRUE(Control(sim::kCtlSetWhiteList, g_variant_new("(^as)", names)));
    RunResult status = Lumora({"status"});
    EXPECT_EQ(0, status.exitStatus);
    EXPECT_NE(
        std::string::npos,
        status.out.find("\nservice: available\nwhitelist: denied for lumora (internal subjects I... are refused)\n"))
        << status.out;
}

TEST_F(CliServiceTest, TheFeatureSwitchOffFailsTheStatusWithStatusEight) {
    ScopedEnv features("LUMORA_FEATURE_FILE",
                       m_dir.Write("features.conf", "com.kaldor/featureconf/lumora.service_enable=false\n"));
    RunResult status = Lumora({"status"});
    EXPECT_EQ(8, status.exitStatus);
    EXPECT_EQ(0u, status.out.find("feature switch: disabled (com.kaldor/featureconf/lumora.service_enable)\n"))
        << status.out;
    EXPECT_NE(std::string::npos, status.out.find("\nservice: available\n")) << status.out;
}

// Over the command line's limit for one argument (128 KiB).
TEST_F(CliServiceTest, WriteTakesALargeValueFromStandardInputAndReadGivesItBack) {
    const std::string value = "{\"blob\":\"" + std::string(1 << 20, 'x') + "\"}";
    const std::string file = m_dir.Write("big.json", value);
    RunResult write =
        RunProgram("/bin/sh", {"-c", "exec \"$0\" write Ctx/Test/Big - < \"$1\"", ShellProgram(CliExecutable()), file});
    EXPECT_EQ(0, write.exitStatus) << write.err;
    EXPECT_EQ("", write.err);
    EXPECT_TRUE(WaitUntil([&] { return SimValue("Ctx/Test/Big").size() == value.size(); }, 5000));
    RunResult read = Lumora({"read", "Ctx/Test/Big"});
    EXPECT_EQ(0, read.exitStatus) << read.err;
    EXPECT_TRUE(read.out == value + "\n") << read.out.size() << " bytes read back";
}

TEST_F(CliServiceTest, WriteFromStandardInputLeavesOutOneFinalNewline) {
    RunResult write = RunProgram(
        "/bin/sh", {"-c", "echo '{\"a\":1}' | \"$0\" write Ctx/Test/Piped -", ShellProgram(CliExecutable())});
    EXPECT_EQ(0, write.exitStatus) << write.err;
    EXPECT_TRUE(WaitUntil([&] { return SimValue("Ctx/Test/Piped") == "{\"a\":1}"; }, 5000))
        << SimValue("Ctx/Test/Piped");
}

TEST_F(CliServiceTest, WriteRefusesStandardInputThatIsNotUtf8) {
    RunResult write =
        RunProgram("/bin/sh", {"-c", "printf '\\377' | \"$0\" write Ctx/Test/Piped -", ShellProgram(CliExecutable())});
    EXPECT_EQ(1, write.exitStatus);
    EXPECT_EQ("lumora: DATA (standard input) is not valid UTF-8\n", write.err);
    g_usleep(200 * 1000);
    EXPECT_EQ("(0, '{}')", CallMethod(m_control, "org.verdin.tv.lumora2", "/org/verdin/tv/lumora2",
                                      "org.verdin.tv.lumora.interface2", "RequestSync",
                                      g_variant_new("(iiiss)", 0, 1, 0, "Ctx/Test/Piped", ""))
                               .Print());
}

TEST_F(CliServiceTest, StatusShowsEverythingAvailable) {
    RunResult status = Lumora({"status"});
    EXPECT_EQ(0, status.exitStatus) << status.out << status.err;
    EXPECT_EQ("feature switch: enabled\nbus: connected (" + m_bus.Address() +
                  ")\nservice: available\nwhitelist: granted for lumora\n",
              status.out);
}

}  // namespace
}  // namespace lumora::test
