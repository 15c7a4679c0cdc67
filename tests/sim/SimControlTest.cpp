// lumora-sim's control object and `lumora-sim ctl`: every command changes
// what a plain GIO client then sees.
#include <chrono>
#include <future>
#include <thread>

#include "SimFixture.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;
using Clock = std::chrono::steady_clock;

long long MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class SimControlTest : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_TRUE(m_sim.Start());
    }
};

TEST_F(SimControlTest, EmitSendsResponseToEachSubscriberAndCountsThem) {
    auto first = Listener();
    auto second = Listener();
    ASSERT_TRUE(SubscribeFrom(first->Connection(), contract::kRequestSubscribe, "Ctx/Media/Source/Changed").Ok());
    ASSERT_TRUE(SubscribeFrom(second->Connection(), contract::kRequestSubscribe, "Ctx/Media/Source/Changed").Ok());
    CallResult result =
        Control(sim::kCtlEmit, g_variant_new("(ss)", "Ctx/Media/Source/Changed", "{\"Source\":\"HDMI1\"}"));
    EXPECT_EQ("(uint32 2,)", result.Print());
    for (auto* listener : {first.get(), second.get()}) {
        ASSERT_TRUE(listener->WaitForCount(1, 10000));
        EXPECT_EQ("(0, 'Ctx/Media/Source/Changed', '{\"Source\":\"HDMI1\"}')",
                  Printed(listener->Signals()[0].parameters.get()));
    }
}

TEST_F(SimControlTest, EmitWithoutSubscribersSendsNothing) {
    EXPECT_EQ("(uint32 0,)", Control(sim::kCtlEmit, g_variant_new("(ss)", "Ctx/App/Info/Changed", "{}")).Print());
}

TEST_F(SimControlTest, SetValueChangesTheAnswerAndClearValueRestoresNoData) {
    ASSERT_TRUE(Control(sim::kCtlSetValue, g_variant_new("(ss)", "Ctx/App/Info/Current", "{\"AppId\":\"x\"}")).Ok());
    EXPECT_EQ("(0, '{\"AppId\":\"x\"}')", Read("Ctx/App/Info/Current").Print());
    ASSERT_TRUE(Control(sim::kCtlClearValue, g_variant_new("(s)", "Ctx/App/Info/Current")).Ok());
    EXPECT_EQ("(0, '{}')", Read("Ctx/App/Info/Current").Print());
}

TEST_F(SimControlTest, AResultCodeIsAnsweredByReadsAndRequestsUntilResetToZero) {
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", "Data/Weather/Forecast", -7)).Ok());
    CallResult read = Read("Data/Weather/Forecast");
    ASSERT_TRUE(read.Ok());
    gint32 code = 0;
    g_variant_get_child(read.reply.get(), 0, "i", &code);
    EXPECT_EQ(-7, code);
    g_variant_get_child(RequestAsync("Data/Weather/Forecast").reply.get(), 0, "i", &code);
    EXPECT_EQ(-7, code);
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", "Data/Weather/Forecast", 0)).Ok());
    g_variant_get_child(Read("Data/Weather/Forecast").reply.get(), 0, "i", &code);
    EXPECT_EQ(0, code);
}

TEST_F(SimControlTest, ADelayedSubjectAnswersLateWithoutHoldingUpOtherCalls) {
    ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", "Data/Weather/Forecast", 1500u)).Ok());
    Clock::time_point start = Clock::now();
    std::future<CallResult> slow = ReadInBackground("Data/Weather/Forecast", 20000);
    ASSERT_TRUE(WaitForStatus("\"delayedAnswers\":1")) << Status();
    EXPECT_TRUE(ServiceEnable().Ok());
    EXPECT_TRUE(Read("Ctx/App/Info/Current").Ok());
    EXPECT_EQ(std::future_status::timeout, slow.wait_for(std::chrono::milliseconds(0)));
    CallResult result = slow.get();
    EXPECT_GE(MillisecondsSince(start), 1400);
    EXPECT_NE("{}", Text(result)) << result.Print();
    ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", "Data/Weather/Forecast", 0u)).Ok());
    start = Clock::now();
    EXPECT_TRUE(Read("Data/Weather/Forecast").Ok());
    EXPECT_LT(MillisecondsSince(start), 1400);
}

TEST_F(SimControlTest, StoppedAnsweringLetsTheClientTimeOut) {
    ASSERT_TRUE(Control(sim::kCtlStopAnswering).Ok());
    Clock::time_point start = Clock::now();
    CallResult result = RequestSync(contract::kRequestRead, "Ctx/App/Info/Current", "", 1000);
    EXPECT_FALSE(result.Ok());
    EXPECT_GE(MillisecondsSince(start), 900);
    EXPECT_EQ("", result.errorName) << result.Print();  // GIO's own time-out, not a reply
    EXPECT_TRUE(StatusContains("\"heldCalls\":1")) << Status();
    EXPECT_TRUE(StatusContains("\"answering\":false")) << Status();
}

TEST_F(SimControlTest, ResumeAnsweringAnswersTheHeldCallsInOrder) {
    ASSERT_TRUE(Control(sim::kCtlStopAnswering).Ok());
    std::future<CallResult> waiting = ReadInBackground("Ctx/Sound/Output/Mode/Current", 20000);
    ASSERT_TRUE(WaitForStatus("\"heldCalls\":1")) << Status();
    EXPECT_EQ("(uint32 1,)", Control(sim::kCtlResumeAnswering).Print());
    EXPECT_EQ("(0, '{\"Mode\":\"Standard\",\"Surround\":false}')", waiting.get().Print());
    EXPECT_TRUE(StatusContains("\"heldCalls\":0")) << Status();
}

TEST_F(SimControlTest, DisableMakesServiceEnableAnswerFalseUntilEnabledAgain) {
    ASSERT_TRUE(Control(sim::kCtlSetEnabled, g_variant_new("(b)", FALSE)).Ok());
    EXPECT_EQ(0u, ServiceEnable().Print().find("(false, "));
    ASSERT_TRUE(Control(sim::kCtlSetEnabled, g_variant_new("(b)", TRUE)).Ok());
    EXPECT_EQ(0u, ServiceEnable().Print().find("(true, "));
}

TEST_F(SimControlTest, SetWhiteListReplacesTheList) {
    const gchar* names[] = {"myapp", "other", nullptr};
    ASSERT_TRUE(Control(sim::kCtlSetWhiteList, g_variant_new("(^as)", names)).Ok());
    EXPECT_EQ("(true, '{\"WhiteList\":[\"myapp\",\"other\"]}')", ServiceEnable().Print());
    ASSERT_TRUE(Control(sim::kCtlSetWhiteList, g_variant_new("(^as)", names + 2)).Ok());
    EXPECT_EQ("(true, '{\"WhiteList\":[]}')", ServiceEnable().Print());
}

TEST_F(SimControlTest, RestartSaysByeThenHelloAndForgetsSubscriptions) {
    auto listener = Listener();
    ASSERT_TRUE(SubscribeFrom(listener->Connection(), contract::kRequestSubscribe, "Ctx/App/Info/Changed").Ok());
    EXPECT_TRUE(StatusContains("\"subscriptions\":{\"Ctx/App/Info/Changed\":[\"" + listener->UniqueName() + "\"]}"))
        << Status();
    Clock::time_point start = Clock::now();
    CallResult restart = Control(sim::kCtlRestart, g_variant_new("(u)", 300u));
    ASSERT_TRUE(restart.Ok()) << restart.Print();
    EXPECT_GE(MillisecondsSince(start), 250);
    EXPECT_TRUE(ReadyMarkerExists());
    ASSERT_TRUE(listener->WaitForCount(2, 10000));
    std::vector<ReceivedSignal> signals = listener->Signals();
    ASSERT_EQ(2u, signals.size());
    EXPECT_EQ("(0, 'BYE', '')", Printed(signals[0].parameters.get()));
    EXPECT_EQ("(0, 'HELLO', '{\"WhiteList\":[\"lumora\",\"tv-launcher\",\"tv-settings\"]}')",
              Printed(signals[1].parameters.get()));
    EXPECT_TRUE(StatusContains("\"subscriptions\":{}")) << Status();
    EXPECT_EQ("(uint32 0,)", Control(sim::kCtlEmit, g_variant_new("(ss)", "Ctx/App/Info/Changed", "{}")).Print());
}

TEST_F(SimControlTest, TheMarkerIsAbsentDuringARestartPause) {
    std::future<CallResult> restart = std::async(std::launch::async, [this] {
        GDBusConnection* connection = ConnectToBus(m_bus.Address());
        CallResult result = CallControl(connection, sim::kCtlRestart, g_variant_new("(u)", 3000u));
        g_object_unref(connection);
        return result;
    });
    EXPECT_TRUE(WaitUntil([] { return !ReadyMarkerExists(); }, 2500));
    EXPECT_TRUE(restart.get().Ok());
    EXPECT_TRUE(ReadyMarkerExists());
}

TEST_F(SimControlTest, SetStatisticsRefusesTuplesOfTheWrongShape) {
    CallResult wrong =
        Control(sim::kCtlSetStatistics, g_variant_new("(ss)", "I/TallyDB/Genre/Duration", "[[1, 2, \"News\", 4]]"));
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", wrong.errorName);
    EXPECT_EQ("tuples[0][3]: expected a string, found an integer", wrong.errorMessage);
    CallResult notJson = Control(sim::kCtlSetStatistics, g_variant_new("(ss)", "I/TallyDB/Genre/Duration", "[["));
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", notJson.errorName);
    CallResult unknown = Control(sim::kCtlSetStatistics, g_variant_new("(ss)", "Data/Statistic/App", "[]"));
    EXPECT_EQ("tuples: not a statistics subject", unknown.errorMessage);
}

TEST_F(SimControlTest, TextsNestedTooDeepAreRefusedWhereTheTooDeepLevelOpens) {
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    CallResult tuples =
        Control(sim::kCtlSetStatistics, g_variant_new("(ss)", "I/TallyDB/Genre/Duration", deep.c_str()));
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", tuples.errorName);
    EXPECT_EQ("tuples are not JSON: 1:513: nested more than 512 levels deep", tuples.errorMessage);
    // The brace is the first level: the 512th bracket, at column 517, opens level 513.
    CallResult event = Control(sim::kCtlEmitEvent, g_variant_new("(ss)", "program", ("{\"a\":" + deep + "}").c_str()));
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", event.errorName);
    EXPECT_EQ("data is not JSON: 1:517: nested more than 512 levels deep", event.errorMessage);
    CallResult wrongTypes = Control(sim::kCtlSetStatistics,
                                    g_variant_new("(ss)", "I/TallyDB/Onoff/Duration", "[[4294967296, 1], [{}, []]]"));
    EXPECT_EQ("tuples[0][0]: expected an unsigned 32-bit integer, found an integer", wrongTypes.errorMessage);
    EXPECT_TRUE(Control(sim::kCtlGetStatus).Ok());
}

TEST_F(SimControlTest, AControlCallWithTheWrongSignatureGetsADbusError) {
    CallResult result = Control(sim::kCtlSetDelay, g_variant_new("(si)", "x", -1));
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", result.errorName) << result.Print();
    EXPECT_TRUE(Control(sim::kCtlGetStatus).Ok());
}

TEST_F(SimControlTest, TheCtlCommandDrivesTheControlObject) {
    RunResult set = SimProcess::Run({"ctl", "set", "Ctx/App/Info/Current", "{\"AppId\":\"ctl\"}"});
    EXPECT_EQ(0, set.exitStatus) << set.err;
    EXPECT_EQ("(0, '{\"AppId\":\"ctl\"}')", Read("Ctx/App/Info/Current").Print());
    RunResult code = SimProcess::Run({"ctl", "code", "Ctx/App/Info/Current", "-3"});
    EXPECT_EQ(0, code.exitStatus) << code.err;
    EXPECT_EQ("(-3, '{\"AppId\":\"ctl\"}')", Read("Ctx/App/Info/Current").Print());
    RunResult emit = SimProcess::Run({"ctl", "--address", m_bus.Address(), "emit", "Ctx/App/Info/Changed", "{}"});
    EXPECT_EQ(0, emit.exitStatus) << emit.err;
    EXPECT_EQ("sent 0\n", emit.out);
    RunResult disable = SimProcess::Run({"ctl", "disable"});
    EXPECT_EQ(0, disable.exitStatus) << disable.err;
    RunResult status = SimProcess::Run({"ctl", "status"});
    EXPECT_EQ(0, status.exitStatus) << status.err;
    EXPECT_NE(std::string::npos, status.out.find("\"enabled\":false")) << status.out;
    RunResult whiteList = SimProcess::Run({"ctl", "whitelist", "a", "b"});
    EXPECT_EQ(0, whiteList.exitStatus) << whiteList.err;
    EXPECT_EQ("(false, '{\"WhiteList\":[\"a\",\"b\"]}')", ServiceEnable().Print());
}

TEST_F(SimControlTest, TheCtlCommandListsItsCommandsOnHelp) {
    RunResult help = SimProcess::Run({"ctl", "--help"});
    EXPECT_EQ(0, help.exitStatus);
    for (const char* usage :
         {"emit SUBJECT DATA", "set SUBJECT DATA", "clear SUBJECT", "code SUBJECT CODE", "delay SUBJECT MILLISECONDS",
          "stats SUBJECT TUPLES_JSON", "stop-answering", "resume-answering", "enable", "disable", "whitelist [NAME...]",
          "restart [PAUSE_MS]", "status", "event list|current|program|stb [DATA]"}) {
        EXPECT_NE(std::string::npos, help.out.find("  " + std::string(usage) + "\n")) << usage;
    }
}

TEST_F(SimControlTest, TheCtlCommandRefusesBadUsageWithStatus2) {
    EXPECT_EQ(2, SimProcess::Run({"ctl", "frobnicate"}).exitStatus);
    EXPECT_EQ(2, SimProcess::Run({"ctl", "set", "only-subject"}).exitStatus);
    RunResult notNumber = SimProcess::Run({"ctl", "delay", "x", "soon"});
    EXPECT_EQ(2, notNumber.exitStatus);
    EXPECT_NE(std::string::npos, notNumber.err.find("usage: delay SUBJECT MILLISECONDS")) << notNumber.err;
}

TEST_F(SimControlTest, TheCtlCommandReportsARefusalWithStatus1) {
    RunResult refused = SimProcess::Run({"ctl", "stats", "I/TallyDB/Onoff/Duration", "[[-1, 2]]"});
    EXPECT_EQ(1, refused.exitStatus);
    EXPECT_NE(std::string::npos, refused.err.find("tuples[0][0]: expected an unsigned 32-bit integer")) << refused.err;
}

TEST_F(SimControlTest, AProgrammeEventStoresAndSignalsBothProgrammeSubjects) {
    auto changed = Listener();
    auto current = Listener();
    ASSERT_TRUE(
        SubscribeFrom(changed->Connection(), contract::kRequestSubscribe, "Ctx/Media/Broadcast/Program/Changed").Ok());
    ASSERT_TRUE(
        SubscribeFrom(current->Connection(), contract::kRequestSubscribe, "Ctx/Media/Broadcast/Program/Current").Ok());
    RunResult event = SimProcess::Run({"ctl", "event", "program", "{\"ProgramTitle\":\"X\"}"});
    EXPECT_EQ(0, event.exitStatus) << event.err;
    EXPECT_EQ("sent 2\n", event.out);
    EXPECT_EQ("(0, '{\"ProgramTitle\":\"X\"}')", Read("Ctx/Media/Broadcast/Program/Changed").Print());
    EXPECT_EQ("(0, '{\"ProgramTitle\":\"X\"}')", Read("Ctx/Media/Broadcast/Program/Current").Print());
    for (const auto& [listener, subject] : {std::make_pair(changed.get(), "Ctx/Media/Broadcast/Program/Changed"),
                                            std::make_pair(current.get(), "Ctx/Media/Broadcast/Program/Current")}) {
        ASSERT_TRUE(listener->WaitForCount(1, 10000)) << subject;
        // A round trip through the simulator: a second signal would have arrived by now.
        ASSERT_TRUE(ServiceEnable().Ok());
        NameHasOwner(listener->Connection(), contract::kBusName);
        std::vector<ReceivedSignal> signals = listener->Signals();
        ASSERT_EQ(1u, signals.size()) << subject;
        EXPECT_EQ("(0, '" + std::string(subject) + "', '{\"ProgramTitle\":\"X\"}')",
                  Printed(signals[0].parameters.get()));
    }
}

TEST_F(SimControlTest, AnEventWithoutDataSignalsTheStoredValue) {
    auto listener = Listener();
    ASSERT_TRUE(
        SubscribeFrom(listener->Connection(), contract::kRequestSubscribe, "Ctx/Media/Broadcast/Status/STB").Ok());
    std::string stored = Text(Read("Ctx/Media/Broadcast/Status/STB"));
    ASSERT_NE("{}", stored);
    RunResult event = SimProcess::Run({"ctl", "event", "stb"});
    EXPECT_EQ(0, event.exitStatus) << event.err;
    EXPECT_EQ("sent 1\n", event.out);
    ASSERT_TRUE(listener->WaitForCount(1, 10000));
    const gchar* data = nullptr;
    g_variant_get_child(listener->Signals()[0].parameters.get(), 2, "&s", &data);
    EXPECT_EQ(stored, data);
    EXPECT_EQ(stored, Text(Read("Ctx/Media/Broadcast/Status/STB")));
}

TEST_F(SimControlTest, AnEventOfASubjectWithoutAValueSignalsNoData) {
    auto listener = Listener();
    ASSERT_TRUE(SubscribeFrom(listener->Connection(), contract::kRequestSubscribe, "Pref/Channel/List/Current").Ok());
    ASSERT_TRUE(Control(sim::kCtlClearValue, g_variant_new("(s)", "Pref/Channel/List/Current")).Ok());
    EXPECT_EQ("(uint32 1,)", Control(sim::kCtlEmitEvent, g_variant_new("(ss)", "current", "")).Print());
    ASSERT_TRUE(listener->WaitForCount(1, 10000));
    EXPECT_EQ("(0, 'Pref/Channel/List/Current', '{}')", Printed(listener->Signals()[0].parameters.get()));
}

TEST_F(SimControlTest, EmitEventRefusesAnUnknownKindAndDataThatIsNotJson) {
    CallResult unknown = Control(sim::kCtlEmitEvent, g_variant_new("(ss)", "weather", "{}"));
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", unknown.errorName) << unknown.Print();
    EXPECT_EQ("unknown event kind 'weather' (one of list, current, program, stb)", unknown.errorMessage);
    std::string before = Text(Read("Pref/Channel/List"));
    CallResult notJson = Control(sim::kCtlEmitEvent, g_variant_new("(ss)", "list", "{\"ChList\":["));
    EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", notJson.errorName) << notJson.Print();
    EXPECT_EQ(0u, notJson.errorMessage.find("data is not JSON: ")) << notJson.errorMessage;
    EXPECT_EQ(before, Text(Read("Pref/Channel/List")));
}

TEST_F(SimControlTest, TheEventCommandRefusesAnUnknownKindWithStatus2) {
    RunResult bogus = SimProcess::Run({"ctl", "event", "bogus"});
    EXPECT_EQ(2, bogus.exitStatus);
    EXPECT_EQ("lumora-sim ctl: unknown event kind 'bogus': usage: event list|current|program|stb [DATA]\n", bogus.err);
    EXPECT_EQ(2, SimProcess::Run({"ctl", "event"}).exitStatus);
    EXPECT_EQ(2, SimProcess::Run({"ctl", "event", "list", "{}", "extra"}).exitStatus);
}

TEST_F(SimControlTest, TheEventCommandReportsDataThatIsNotJsonWithStatus1) {
    std::string before = Text(Read("Pref/Channel/List"));
    RunResult refused = SimProcess::Run({"ctl", "event", "list", "not json"});
    EXPECT_EQ(1, refused.exitStatus);
    EXPECT_EQ(0u, refused.err.find("lumora-sim ctl: event: ")) << refused.err;
    EXPECT_NE(std::string::npos, refused.err.find("data is not JSON: ")) << refused.err;
    EXPECT_EQ("", refused.out);
    EXPECT_EQ(before, Text(Read("Pref/Channel/List")));
}

TEST_F(SimControlTest, TheCtlCommandFailsWithStatus1WhenNoSimulatorRuns) {
    ASSERT_EQ(0, m_sim.Stop());
    RunResult status = SimProcess::Run({"ctl", "status"});
    EXPECT_EQ(1, status.exitStatus);
    EXPECT_EQ(0u, status.err.find("lumora-sim ctl: status: ")) << status.err;
}

// Every ctl argument travels as a D-Bus string: one that is not UTF-8 is a
// usage error, named by the usage, and nothing reaches the simulator.
TEST_F(SimControlTest, TheCtlCommandRefusesArgumentsThatAreNotUtf8WithStatus2) {
    const struct {
        std::vector<std::string> args;
        const char* reason;
    } refusals[] = {
        {{"ctl", "set", "Ctx/\xff", "{}"}, "SUBJECT"},
        {{"ctl", "set", "Ctx/A", "{\"a\":\"\xc3\x28\"}"}, "DATA"},
        {{"ctl", "emit", "Ctx/A", "\xe2\x82"}, "DATA"},
        {{"ctl", "whitelist", "tv-launcher", "tv-\xff"}, "NAME"},
        {{"ctl", "event", "\xff"}, "argument 1"},
        {{"ctl", "--address", "unix:path=/tmp/\xff", "status"}, "ADDRESS"},
    };
    for (const auto& refusal : refusals) {
        RunResult run = SimProcess::Run(refusal.args);
        EXPECT_EQ(2, run.exitStatus) << refusal.reason;
        EXPECT_EQ(std::string("lumora-sim ctl: ") + refusal.reason + " is not valid UTF-8\n", run.err);
        EXPECT_EQ("", run.out);
    }
    EXPECT_EQ("(0, '{}')", Read("Ctx/A").Print());
    // The scenario's whitelist, unchanged.
    EXPECT_EQ("(true, '{\"WhiteList\":[\"lumora\",\"tv-launcher\",\"tv-settings\"]}')", ServiceEnable().Print());
}

// A \u escape can still make a string that is not UTF-8 out of valid text.
TEST_F(SimControlTest, StatisticsWithAnEscapeOfALoneSurrogateAreRefused) {
    RunResult refused = SimProcess::Run({"ctl", "stats", "I/TallyDB/Genre/Duration", "[[1, 2, \"\\udc80\", \"x\"]]"});
    EXPECT_EQ(1, refused.exitStatus);
    EXPECT_NE(std::string::npos, refused.err.find("tuples[0][2]: not valid UTF-8 (a \\u escape of a lone surrogate)"))
        << refused.err;
    // Still serving, with the statistics as they were.
    EXPECT_TRUE(RequestAsync("I/TallyDB/Genre/Duration").Ok());
    EXPECT_TRUE(ServiceEnable().Ok());
}

}  // namespace
}  // namespace lumora::test
