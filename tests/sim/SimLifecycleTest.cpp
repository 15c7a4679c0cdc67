// lumora-sim's life: the readiness marker, "HELLO" at start, "BYE" at
// SIGTERM and SIGINT, calls left open at exit, a second simulator, --help.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <future>

#include "BusMonitor.h"
#include "ChildProcess.h"
#include "SimFixture.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;

class SimLifecycleTest : public SimTest {};

TEST_F(SimLifecycleTest, TheMarkerExistsWhileTheSimulatorRunsAndGoesWhenItStops) {
    ASSERT_TRUE(m_sim.Start());
    EXPECT_TRUE(ReadyMarkerExists());
    EXPECT_EQ(0, m_sim.Stop());
    EXPECT_FALSE(ReadyMarkerExists());
}

TEST_F(SimLifecycleTest, HelloWithTheWhiteListIsBroadcastAtStart) {
    auto listener = Listener();
    ASSERT_TRUE(m_sim.Start());
    ASSERT_TRUE(listener->WaitForCount(1, 10000));
    std::vector<ReceivedSignal> signals = listener->Signals();
    EXPECT_EQ("(0, 'HELLO', '{\"WhiteList\":[\"lumora\",\"tv-launcher\",\"tv-settings\"]}')",
              Printed(signals[0].parameters.get()));
    EXPECT_EQ(contract::kObjectPath, signals[0].path);
}

TEST_F(SimLifecycleTest, ByeIsBroadcastOnSigtermAndTheExitStatusIsZero) {
    ASSERT_TRUE(m_sim.Start());
    auto listener = Listener();
    EXPECT_EQ(0, m_sim.Stop());
    ASSERT_TRUE(listener->WaitForCount(1, 10000));
    EXPECT_EQ("(0, 'BYE', '')", Printed(listener->Signals()[0].parameters.get()));
}

TEST_F(SimLifecycleTest, ByeIsBroadcastOnSigint) {
    ASSERT_TRUE(m_sim.Start());
    auto listener = Listener();
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGINT));
    ASSERT_TRUE(listener->WaitForCount(1, 10000));
    EXPECT_EQ("(0, 'BYE', '')", Printed(listener->Signals()[0].parameters.get()));
    EXPECT_EQ(0, m_sim.WaitForExit(20000));
    EXPECT_FALSE(ReadyMarkerExists());
}

TEST_F(SimLifecycleTest, CallsHeldUnansweredAreReleasedAtExit) {
    ASSERT_TRUE(m_sim.Start());
    ASSERT_TRUE(Control(sim::kCtlStopAnswering).Ok());
    std::future<CallResult> held = ReadInBackground("Ctx/App/Info/Current", 20000);
    ASSERT_TRUE(WaitForStatus("\"heldCalls\":1"));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, m_sim.Stop());
    CallResult result = held.get();
    EXPECT_FALSE(result.Ok());
    // The bus answers for the vanished service, long before the client's 20 s.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_EQ("org.freedesktop.DBus.Error.NoReply", result.errorName) << result.Print();
}

TEST_F(SimLifecycleTest, DelayedAnswersFailWithStoppingBeforeByeAtSigterm) {
    ASSERT_TRUE(m_sim.Start());
    BusMonitor monitor(m_bus.Address());
    ASSERT_TRUE(monitor.Ok());
    ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", "Ctx/App/Info/Current", 600000u)).Ok());
    std::future<CallResult> delayed = ReadInBackground("Ctx/App/Info/Current", 20000);
    ASSERT_TRUE(WaitForStatus("\"delayedAnswers\":1"));
    EXPECT_EQ(0, m_sim.Stop());
    CallResult result = delayed.get();
    EXPECT_EQ("org.verdin.tv.lumora2.Error.Stopping", result.errorName) << result.Print();
    // On the bus, the failed answer comes before "BYE".
    int error = -1, bye = -1, index = 0;
    for (const BusMessage& message : monitor.Messages()) {
        if (message.errorName == "org.verdin.tv.lumora2.Error.Stopping") error = index;
        if (message.type == "signal" && message.body == "(0, 'BYE', '')") bye = index;
        ++index;
    }
    EXPECT_GE(error, 0);
    EXPECT_GT(bye, error);
}

TEST_F(SimLifecycleTest, ASecondSimulatorCannotOwnTheNameAndExitsWithStatusOne) {
    ASSERT_TRUE(m_sim.Start());
    RunResult second = SimProcess::Run({"--scenario", SampleScenario()});
    EXPECT_EQ(1, second.exitStatus) << second.err;
    // Said once: the bus is there, the name is another's.
    EXPECT_EQ("lumora-sim: could not own org.verdin.tv.lumora2 on the system bus (is another service running?)\n",
              second.err);
    EXPECT_TRUE(ReadyMarkerExists());
    EXPECT_TRUE(ServiceEnable().Ok());
}

TEST_F(SimLifecycleTest, WithoutAScenarioEverySubjectAnswersNoData) {
    ASSERT_TRUE(m_sim.Start(ScenarioFile("{}")));
    EXPECT_EQ("(true, '{\"WhiteList\":[]}')", ServiceEnable().Print());
    EXPECT_EQ("(0, '{}')", Read("Ctx/Media/Source/Info/Current").Print());
}

TEST_F(SimLifecycleTest, AScenarioSetsTheFlagCodesAndDelays) {
    ASSERT_TRUE(m_sim.Start(ScenarioFile(R"({
        "enabled": false,
        "whiteList": ["only-me"],
        "values": {"Ctx/App/Info/Current": {"AppId": "a"}, "Raw/Text": "plain text", "Ctx/Null": null},
        "resultCodes": {"Ctx/App/Info/Current": 5},
        "delaysMs": {"Raw/Text": 700}
    })")));
    EXPECT_EQ("(false, '{\"WhiteList\":[\"only-me\"]}')", ServiceEnable().Print());
    EXPECT_EQ("(5, '{\"AppId\":\"a\"}')", Read("Ctx/App/Info/Current").Print());
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("(0, 'plain text')", Read("Raw/Text").Print());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(600));
    EXPECT_EQ("(0, '{}')", Read("Ctx/Null").Print());
}

TEST_F(SimLifecycleTest, BroadcastModeSendsResponseToEveryListener) {
    ASSERT_TRUE(m_sim.Start(SampleScenario(), {"--broadcast"}));
    auto listener = Listener();
    EXPECT_EQ("(uint32 1,)", Control(sim::kCtlEmit, g_variant_new("(ss)", "Ctx/App/Info/Changed", "{}")).Print());
    ASSERT_TRUE(listener->WaitForCount(1, 10000));
    EXPECT_EQ("(0, 'Ctx/App/Info/Changed', '{}')", Printed(listener->Signals()[0].parameters.get()));
}

TEST_F(SimLifecycleTest, TheSimulatorLogsThroughThePlatformLog) {
    ASSERT_TRUE(m_sim.Start());
    EXPECT_EQ(0, m_sim.Stop());
    EXPECT_TRUE(m_log.Has("HELLO {\"WhiteList\":[\"lumora\",\"tv-launcher\",\"tv-settings\"]}", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("BYE", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("stopped, exit status 0", 'I')) << m_log.Dump();
    for (const LogRecord& record : m_log.Find("BYE")) EXPECT_EQ("LUMORA_SIM", record.tag);
}

TEST_F(SimLifecycleTest, LosingTheBusIsSaidOnceAsSuchAndEndsWithStatusOne) {
    ChildProcess sim;
    ASSERT_TRUE(sim.Start(SimExecutable(), {"--scenario", SampleScenario()}));
    ASSERT_TRUE(WaitUntil([&] { return NameHasOwner(m_client, contract::kBusName) && ReadyMarkerExists(); }, 10000));
    m_bus.Stop();
    EXPECT_EQ(1, sim.Wait(10000));
    std::string err = sim.Err();
    EXPECT_EQ(0u, err.find("lumora-sim: lost the bus connection (")) << err;
    EXPECT_EQ(1u, std::count(err.begin(), err.end(), '\n')) << err;
    EXPECT_EQ(std::string::npos, err.find("another service")) << err;
    EXPECT_FALSE(ReadyMarkerExists());
}

TEST_F(SimLifecycleTest, WithoutABusTheSimulatorSaysItCannotConnect) {
    TempDir dir;
    const std::string nowhere = "unix:path=" + dir.File("no-bus");
    ScopedEnv address("DBUS_SYSTEM_BUS_ADDRESS", nowhere);
    RunResult run = SimProcess::Run({"--scenario", SampleScenario()});
    EXPECT_EQ(1, run.exitStatus);
    EXPECT_EQ("lumora-sim: cannot connect to the system bus (" + nowhere + ")\n", run.err);
    EXPECT_FALSE(ReadyMarkerExists());
}

}  // namespace
}  // namespace lumora::test
