// lumora request, stats and subscribe, run as processes against lumora-sim.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <vector>

#include "BusMonitor.h"
#include "ChildProcess.h"
#include "CliFixture.h"
#include "JsonText.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;
using Clock = std::chrono::steady_clock;

constexpr int kLineWaitMs = 10000;

long MillisecondsSince(Clock::time_point start) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// The line subscribe prints for one notification, built independently.
Json::Value Event(const std::string& subject, const Json::Value& data) {
    Json::Value event(Json::objectValue);
    event["subject"] = subject;
    event["data"] = data;
    return event;
}

// Where each field of a statistics record comes from: the 1-based element of
// the wire tuple, as the record structs of lumora-c.h declare.
struct KindLayout {
    const char* kind;
    const char* subject;
    std::vector<int> elementOfField;
};

const std::vector<KindLayout>& Layouts() {
    static const std::vector<KindLayout> layouts = {
        {"onoff", "I/TallyDB/Onoff/Duration", {1, 2}},
        {"app", "I/TallyDB/App/Duration", {1, 2, 4, 3, 6, 5}},
        {"channel", "I/TallyDB/Channel/Duration", {1, 2, 5, 3, 4, 6, 7}},
        {"genre", "I/TallyDB/Genre/Duration", {1, 2, 3, 4}},
        {"content", "I/TallyDB/Content/Duration", {1, 2, 6, 5, 3, 4, 7, 11, 10, 8, 9}},
    };
    return layouts;
}

// The records expected for tuples in wire order.
Json::Value ExpectedRecords(const KindLayout& layout, const Json::Value& tuples) {
    Json::Value records(Json::arrayValue);
    for (const Json::Value& tuple : tuples) {
        Json::Value record(Json::objectValue);
        for (size_t field = 0; field < layout.elementOfField.size(); ++field)
            record["field" + std::to_string(field + 1)] = tuple[layout.elementOfField[field] - 1];
        records.append(record);
    }
    return records;
}

// RequestSync calls of one request type for subject, as the bus saw them.
size_t CountRequests(const BusMonitor& monitor, int type, const std::string& subject) {
    std::vector<BusMessage> calls = monitor.Calls("RequestSync");
    return static_cast<size_t>(std::count_if(calls.begin(), calls.end(), [&](const BusMessage& call) {
        return call.requestType == type && call.subject == subject;
    }));
}

constexpr int kSubscribe = 3;
constexpr int kUnsubscribe = 4;

Json::Value SampleStatistics() {
    std::ifstream file(SampleScenario());
    std::stringstream text;
    text << file.rdbuf();
    return ParseJson(text.str())["statistics"];
}

class CliEventsUsageTest : public CliNoServiceFixture {};

TEST_F(CliEventsUsageTest, TheNewCommandsAreListedAndHaveTheirHelp) {
    RunResult help = Lumora({"--help"});
    for (const char* command : {"request", "subscribe", "stats"}) {
        EXPECT_NE(std::string::npos, help.out.find(std::string("\n  ") + command + " ")) << command << help.out;
        RunResult own = Lumora({command, "--help"});
        EXPECT_EQ(0, own.exitStatus) << command;
        EXPECT_EQ(0u, own.out.find(std::string("usage: lumora ") + command + " ")) << own.out;
    }
    EXPECT_NE(std::string::npos, Lumora({"request", "--help"}).out.find("--timeout SECONDS"));
    EXPECT_NE(std::string::npos, Lumora({"subscribe", "--help"}).out.find("[--initial] SUBJECT..."));
}

TEST_F(CliEventsUsageTest, TimeoutTakesWholeSecondsAboveZero) {
    for (const char* value : {"0", "-1", "2.5", "abc", "86401"}) {
        RunResult request = Lumora({"request", "--timeout", value, "Ctx/App/Info/Current"});
        EXPECT_EQ(2, request.exitStatus) << value;
        EXPECT_EQ(0u, request.err.find("lumora: --timeout takes whole seconds from 1 to 86400\n")) << request.err;
    }
    RunResult missing = Lumora({"request", "Ctx/App/Info/Current", "--timeout"});
    EXPECT_EQ(2, missing.exitStatus);
}

TEST_F(CliEventsUsageTest, AnOptionOfAnotherCommandIsAUsageError) {
    RunResult read = Lumora({"read", "--timeout", "5", "Ctx/App/Info/Current"});
    EXPECT_EQ(2, read.exitStatus);
    EXPECT_EQ(0u, read.err.find("lumora: --timeout does not apply to read\nusage: lumora read ")) << read.err;
    RunResult request = Lumora({"request", "--initial", "Ctx/App/Info/Current"});
    EXPECT_EQ(2, request.exitStatus);
    EXPECT_EQ(0u, request.err.find("lumora: --initial does not apply to request\n")) << request.err;
    RunResult subscribe = Lumora({"subscribe", "--initial", "--timeout", "3", "Ctx/App/Info/Changed"});
    EXPECT_EQ(2, subscribe.exitStatus);
    EXPECT_EQ(0u, subscribe.err.find("lumora: --timeout does not apply to subscribe\n")) << subscribe.err;
    RunResult none = Lumora({"subscribe", "--initial"});
    EXPECT_EQ(2, none.exitStatus);
    EXPECT_EQ(0u, none.err.find("usage: lumora subscribe [--initial] SUBJECT...")) << none.err;
}

TEST_F(CliEventsUsageTest, AnUnknownStatisticsKindIsAUsageError) {
    RunResult stats = Lumora({"stats", "weather"});
    EXPECT_EQ(2, stats.exitStatus);
    EXPECT_EQ(
        "lumora: unknown statistics kind weather (onoff, app, channel, genre or content)\n"
        "usage: lumora stats [--timeout SECONDS] KIND [INPUT]\n",
        stats.err);
    EXPECT_EQ("", stats.out);
}

TEST_F(CliEventsUsageTest, SubscribeRefusesTheServicesOwnAnnouncements) {
    for (const char* word : {"HELLO", "BYE"}) {
        RunResult subscribe = Lumora({"subscribe", "Ctx/App/Info/Changed", word});
        EXPECT_EQ(2, subscribe.exitStatus) << word;
        EXPECT_EQ(std::string("lumora: ") + word + " is the service's own announcement, not a subject\n" +
                      "usage: lumora subscribe [--initial] SUBJECT...\n",
                  subscribe.err);
    }
}

TEST_F(CliEventsUsageTest, RequestAndSubscribeWithoutABusFailWithOneLine) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"request", "Ctx/App/Info/Current"}, {"stats", "app"}, {"subscribe", "Ctx/App/Info/Changed"}}) {
        RunResult run = Lumora(args);
        EXPECT_EQ(1, run.exitStatus) << args[0];
        EXPECT_EQ("lumora: cannot connect to the system bus (DBUS_SYSTEM_BUS_ADDRESS)\n", run.err) << args[0];
    }
}

// Commands against the simulator.
class CliEventsTest : public CliServiceFixture {
protected:
    bool SetValue(const std::string& subject, const std::string& data) {
        return Control(sim::kCtlSetValue, g_variant_new("(ss)", subject.c_str(), data.c_str()));
    }
    bool Emit(const std::string& subject, const std::string& data) {
        CallResult sent = CallControl(m_control, sim::kCtlEmit, g_variant_new("(ss)", subject.c_str(), data.c_str()));
        return sent.Ok() && sent.Print() == "(uint32 1,)";
    }

    size_t Subscribers(const std::string& subject) {
        CallResult status = CallControl(m_control, sim::kCtlGetStatus);
        if (!status.Ok()) return 0;
        const gchar* text = nullptr;
        g_variant_get(status.reply.get(), "(&s)", &text);
        return ParseJson(text)["subscriptions"][subject].size();
    }
    // The service has the subscription of the running client.
    bool WaitForSubscription(const std::string& subject) {
        return WaitUntil([&] { return Subscribers(subject) == 1; }, kLineWaitMs);
    }

    bool StartSubscribe(const std::vector<std::string>& args) {
        std::vector<std::string> command = {"subscribe"};
        command.insert(command.end(), args.begin(), args.end());
        return m_subscribe.Start(CliExecutable(), command);
    }
    Json::Value NextEvent() {
        std::string line;
        if (!m_subscribe.ReadLine(line, kLineWaitMs)) {
            ADD_FAILURE() << "no line from lumora subscribe; stderr: " << m_subscribe.Err();
            return Json::Value();
        }
        EXPECT_EQ(std::string::npos, line.find('\n'));
        return ParseJson(line);
    }

    // The unique bus names of the connections of process pid.
    std::vector<std::string> BusNamesOf(pid_t pid) {
        std::vector<std::string> names;
        CallResult listed = CallMethod(m_control, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", "ListNames", nullptr);
        if (!listed.Ok()) return names;
        GVariantIter* iter = nullptr;
        const gchar* name = nullptr;
        g_variant_get(listed.reply.get(), "(as)", &iter);
        while (g_variant_iter_next(iter, "&s", &name)) {
            if (name[0] != ':') continue;
            CallResult owner =
                CallMethod(m_control, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", g_variant_new("(s)", name));
            guint32 ownerPid = 0;
            if (owner.Ok()) g_variant_get(owner.reply.get(), "(u)", &ownerPid);
            if (owner.Ok() && static_cast<pid_t>(ownerPid) == pid) names.emplace_back(name);
        }
        g_variant_iter_free(iter);
        return names;
    }

    // lumora under another process name, for the service's whitelist.
    std::string CliNamed(const std::string& name) {
        std::string path = m_dir.File(name);
        std::filesystem::create_symlink(CliExecutable(), path);
        return path;
    }

    ChildProcess m_subscribe;
};

// ---- request -------------------------------------------------------------------

TEST_F(CliEventsTest, RequestPrintsTheServicesValue) {
    RunResult request = Lumora({"request", "Ctx/Media/Source/Info/Current"});
    EXPECT_EQ(0, request.exitStatus) << request.err;
    EXPECT_EQ(SimValue("Ctx/Media/Source/Info/Current") + "\n", request.out);
    EXPECT_EQ("", request.err);
}

TEST_F(CliEventsTest, RequestGoesOutAsAnAsynchronousRequestWithItsInput) {
    BusMonitor monitor(m_bus.Address());
    ASSERT_TRUE(monitor.Ok());
    const std::string input = "{\"reorder\":[{\"major\":9,\"minor\":1}],\"source\":0}";
    RunResult request = Lumora({"request", "Data/Weather/Forecast", input});
    EXPECT_EQ(0, request.exitStatus) << request.err;
    EXPECT_EQ(SimValue("Data/Weather/Forecast") + "\n", request.out);
    ASSERT_TRUE(monitor.WaitForCalls(1, 5000, "RequestAsync"));
    std::vector<BusMessage> calls = monitor.Calls("RequestAsync");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ("Data/Weather/Forecast", calls[0].subject);
    EXPECT_EQ(input, calls[0].input);
    for (const BusMessage& call : monitor.Calls("RequestSync")) EXPECT_NE(calls[0].sender, call.sender) << call.body;
}

TEST_F(CliEventsTest, PrettyRequestIndentsTheValue) {
    RunResult request = Lumora({"--pretty", "request", "Ctx/Media/Broadcast/Program/Current"});
    EXPECT_EQ(0, request.exitStatus) << request.err;
    EXPECT_NE(std::string::npos, request.out.find("{\n  \"")) << request.out;
    EXPECT_EQ(ParseJson(SimValue("Ctx/Media/Broadcast/Program/Current")), ParseJson(request.out));
}

TEST_F(CliEventsTest, RequestAnsweredWithAnErrorFailsWithOneLine) {
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", "Data/Weather/Forecast", -5)));
    RunResult request = Lumora({"request", "Data/Weather/Forecast"});
    EXPECT_EQ(1, request.exitStatus);
    EXPECT_EQ(
        "lumora: the context service failed the request for Data/Weather/Forecast "
        "(an error answer, or none within the bus's 25 s)\n",
        request.err);
    EXPECT_EQ("", request.out);
}

TEST_F(CliEventsTest, RequestGivesUpAfterItsTimeout) {
    ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", "Ctx/App/Info/Current", 60000u)));
    Clock::time_point start = Clock::now();
    RunResult request = Lumora({"request", "--timeout", "2", "Ctx/App/Info/Current"});
    long elapsed = MillisecondsSince(start);
    EXPECT_EQ(1, request.exitStatus);
    EXPECT_EQ("lumora: no answer from the context service within 2 s\n", request.err);
    EXPECT_EQ("", request.out);
    EXPECT_GE(elapsed, 1900);
    EXPECT_LT(elapsed, 10000);
}

// By default the request waits longer than the bus, whose own time-out comes
// back as the library's error answer.
TEST_F(CliEventsTest, ByDefaultTheBusTimesOutFirst) {
    ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", "Ctx/App/Info/Current", 60000u)));
    Clock::time_point start = Clock::now();
    RunResult request = Lumora({"request", "Ctx/App/Info/Current"}, 60000);
    long elapsed = MillisecondsSince(start);
    EXPECT_EQ(1, request.exitStatus);
    EXPECT_EQ(
        "lumora: the context service failed the request for Ctx/App/Info/Current "
        "(an error answer, or none within the bus's 25 s)\n",
        request.err);
    EXPECT_GE(elapsed, 24000);
    EXPECT_LT(elapsed, 29500);
}

TEST_F(CliEventsTest, InternalSubjectsAreRefusedToAProcessOffTheWhitelist) {
    BusMonitor monitor(m_bus.Address());
    ASSERT_TRUE(monitor.Ok());
    std::string guide = CliNamed("tv-guide");
    RunResult request = RunProgram(guide, {"request", "I/TallyDB/App/Duration"});
    EXPECT_EQ(1, request.exitStatus);
    EXPECT_EQ(
        "lumora: I/TallyDB/App/Duration is internal and this process (tv-guide) is not on the service's "
        "whitelist\n",
        request.err);
    RunResult stats = RunProgram(guide, {"stats", "genre"});
    EXPECT_EQ(1, stats.exitStatus);
    EXPECT_EQ(
        "lumora: I/TallyDB/Genre/Duration is internal and this process (tv-guide) is not on the service's "
        "whitelist\n",
        stats.err);
    RunResult subscribe = RunProgram(guide, {"subscribe", "Ctx/App/Info/Changed", "I/Private/Changed"});
    EXPECT_EQ(1, subscribe.exitStatus);
    EXPECT_EQ(
        "lumora: I/Private/Changed is internal and this process (tv-guide) is not on the service's "
        "whitelist\n",
        subscribe.err);
    EXPECT_TRUE(monitor.Calls("RequestAsync").empty());

    // The same program under a whitelisted name is served.
    RunResult launcher = RunProgram(CliNamed("tv-launcher"), {"stats", "genre"});
    EXPECT_EQ(0, launcher.exitStatus) << launcher.err;
    EXPECT_EQ(ExpectedRecords(Layouts()[3], SampleStatistics()["I/TallyDB/Genre/Duration"]), ParseJson(launcher.out));
}

// ---- stats -------------------------------------------------------------------------

TEST_F(CliEventsTest, StatsDecodeEveryKindOfTheSampleScenario) {
    Json::Value statistics = SampleStatistics();
    for (const KindLayout& layout : Layouts()) {
        SCOPED_TRACE(layout.kind);
        ASSERT_GT(statistics[layout.subject].size(), 0u);
        RunResult stats = Lumora({"stats", layout.kind});
        EXPECT_EQ(0, stats.exitStatus) << stats.err;
        EXPECT_EQ("", stats.err);
        EXPECT_EQ(1u, std::count(stats.out.begin(), stats.out.end(), '\n')) << stats.out;
        EXPECT_EQ(ExpectedRecords(layout, statistics[layout.subject]), ParseJson(stats.out)) << stats.out;
    }
}

TEST_F(CliEventsTest, StatsKeepTheFieldsInTheRecordsOrder) {
    RunResult stats = Lumora({"stats", "content"});
    ASSERT_EQ(0, stats.exitStatus) << stats.err;
    size_t previous = 0;
    for (int field = 1; field <= 11; ++field) {
        size_t at = stats.out.find("\"field" + std::to_string(field) + "\":");
        ASSERT_NE(std::string::npos, at) << field;
        EXPECT_GT(at, previous) << "field" << field << " out of order in " << stats.out;
        previous = at;
    }
}

TEST_F(CliEventsTest, StatsOfTuplesSetWhileRunning) {
    const std::string tuples =
        "[[7, 8, \"e3\", \"e4\", \"e5\", -6], [4294967295, 2147483648, \"\", \"x y\", \"\\u00e9\", 2147483647]]";
    ASSERT_TRUE(Control(sim::kCtlSetStatistics, g_variant_new("(ss)", "I/TallyDB/App/Duration", tuples.c_str())));
    RunResult stats = Lumora({"stats", "app"});
    EXPECT_EQ(0, stats.exitStatus) << stats.err;
    EXPECT_EQ(
        "[{\"field1\":7,\"field2\":8,\"field3\":\"e4\",\"field4\":\"e3\",\"field5\":-6,\"field6\":\"e5\"},"
        "{\"field1\":-1,\"field2\":-2147483648,\"field3\":\"x y\",\"field4\":\"\",\"field5\":2147483647,"
        "\"field6\":\"\xc3\xa9\"}]\n",
        stats.out);
}

TEST_F(CliEventsTest, StatsOfNoRecordsPrintAnEmptyArray) {
    ASSERT_TRUE(Control(sim::kCtlSetStatistics, g_variant_new("(ss)", "I/TallyDB/Channel/Duration", "[]")));
    RunResult stats = Lumora({"stats", "channel"});
    EXPECT_EQ(0, stats.exitStatus) << stats.err;
    EXPECT_EQ("[]\n", stats.out);
    RunResult pretty = Lumora({"--pretty", "stats", "channel"});
    EXPECT_EQ("[]\n", pretty.out);
}

TEST_F(CliEventsTest, PrettyStatsIndentTheRecords) {
    RunResult pretty = Lumora({"--pretty", "stats", "onoff"});
    EXPECT_EQ(0, pretty.exitStatus) << pretty.err;
    EXPECT_EQ(0u, pretty.out.find("[\n  {\n    \"field1\" : ")) << pretty.out;
    EXPECT_EQ(ParseJson(Lumora({"stats", "onoff"}).out), ParseJson(pretty.out));
}

TEST_F(CliEventsTest, RequestOfAStatisticsSubjectPrintsItsRecords) {
    RunResult request = Lumora({"request", "I/TallyDB/Onoff/Duration"});
    EXPECT_EQ(0, request.exitStatus) << request.err;
    EXPECT_EQ(ExpectedRecords(Layouts()[0], SampleStatistics()["I/TallyDB/Onoff/Duration"]), ParseJson(request.out));
    EXPECT_EQ(Lumora({"stats", "onoff"}).out, request.out);
}

TEST_F(CliEventsTest, StatsAnsweredWithAnErrorFailWithOneLine) {
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", "I/TallyDB/Genre/Duration", 3)));
    RunResult stats = Lumora({"stats", "genre"});
    EXPECT_EQ(1, stats.exitStatus);
    EXPECT_EQ(
        "lumora: the context service failed the request for I/TallyDB/Genre/Duration "
        "(an error answer, or none within the bus's 25 s)\n",
        stats.err);
    EXPECT_EQ("", stats.out);
}

// ---- subscribe -----------------------------------------------------------------

TEST_F(CliEventsTest, SubscribePrintsOneLinePerNotification) {
    ASSERT_TRUE(StartSubscribe({"Ctx/App/Info/Changed", "Data/Streaming/Event"}));
    ASSERT_TRUE(WaitForSubscription("Ctx/App/Info/Changed"));
    ASSERT_TRUE(WaitForSubscription("Data/Streaming/Event"));

    ASSERT_TRUE(Emit("Ctx/App/Info/Changed", "{\"AppId\": \"com.streamly.tv\", \"Score\": 0.1}"));
    std::string line;
    ASSERT_TRUE(m_subscribe.ReadLine(line, kLineWaitMs)) << m_subscribe.Err();
    // Compact, with the service's own keys and numbers.
    EXPECT_EQ("{\"subject\":\"Ctx/App/Info/Changed\",\"data\":{\"AppId\":\"com.streamly.tv\",\"Score\":0.1}}", line);

    ASSERT_TRUE(Emit("Data/Streaming/Event", "playback started"));
    EXPECT_EQ(Event("Data/Streaming/Event", "playback started"), NextEvent());
    ASSERT_TRUE(Emit("Data/Streaming/Event", "{\"a\":1} and more"));
    EXPECT_EQ(Event("Data/Streaming/Event", "{\"a\":1} and more"), NextEvent());
    ASSERT_TRUE(Emit("Data/Streaming/Event", "42"));
    EXPECT_EQ(Event("Data/Streaming/Event", 42), NextEvent());
    ASSERT_TRUE(Emit("Data/Streaming/Event", "\"quoted\""));
    EXPECT_EQ(Event("Data/Streaming/Event", "quoted"), NextEvent());
    ASSERT_TRUE(Emit("Ctx/App/Info/Changed", "[1,\n 2]"));
    EXPECT_EQ(Event("Ctx/App/Info/Changed", ParseJson("[1,2]")), NextEvent());

    EXPECT_FALSE(m_subscribe.LineWithin(300));
    EXPECT_EQ("", m_subscribe.Err());
}

TEST_F(CliEventsTest, SubscribeUnsubscribesAndExitsZeroOnSigterm) {
    BusMonitor monitor(m_bus.Address());
    ASSERT_TRUE(monitor.Ok());
    ASSERT_TRUE(StartSubscribe({"Ctx/App/Info/Changed"}));
    ASSERT_TRUE(WaitForSubscription("Ctx/App/Info/Changed"));
    ASSERT_TRUE(Emit("Ctx/App/Info/Changed", "{}"));
    EXPECT_EQ(Event("Ctx/App/Info/Changed", Json::Value(Json::objectValue)), NextEvent());
    ASSERT_TRUE(m_subscribe.Signal(SIGTERM));
    EXPECT_EQ(0, m_subscribe.Wait(10000));
    EXPECT_EQ("", m_subscribe.Err());
    EXPECT_TRUE(WaitUntil([&] { return CountRequests(monitor, kUnsubscribe, "Ctx/App/Info/Changed") == 1; }, 5000));
}

TEST_F(CliEventsTest, SubscribeUnsubscribesAndExitsZeroOnSigint) {
    BusMonitor monitor(m_bus.Address());
    ASSERT_TRUE(monitor.Ok());
    ASSERT_TRUE(StartSubscribe({"--initial", "Ctx/Media/Source/Info/Current"}));
    EXPECT_EQ("Ctx/Media/Source/Info/Current", NextEvent()["subject"].asString());
    ASSERT_TRUE(m_subscribe.Signal(SIGINT));
    EXPECT_EQ(0, m_subscribe.Wait(10000));
    EXPECT_TRUE(
        WaitUntil([&] { return CountRequests(monitor, kUnsubscribe, "Ctx/Media/Source/Info/Current") == 1; }, 5000));
}

TEST_F(CliEventsTest, SubscribeTakesAllSubjectsOrNone) {
    BusMonitor monitor(m_bus.Address());
    ASSERT_TRUE(monitor.Ok());
    RunResult subscribe = Lumora({"subscribe", "Ctx/App/Info/Changed", "ab"});
    EXPECT_EQ(1, subscribe.exitStatus);
    EXPECT_EQ("lumora: the library takes no subject of two characters or fewer (ab)\n", subscribe.err);
    EXPECT_EQ("", subscribe.out);
    EXPECT_TRUE(WaitUntil([&] { return CountRequests(monitor, kUnsubscribe, "Ctx/App/Info/Changed") == 1; }, 5000));
    EXPECT_EQ(1u, CountRequests(monitor, kSubscribe, "Ctx/App/Info/Changed"));
}

TEST_F(CliEventsTest, SubscribeKeepsPrintingAfterARestartOfTheService) {
    ASSERT_TRUE(StartSubscribe({"Ctx/App/Info/Changed"}));
    ASSERT_TRUE(WaitForSubscription("Ctx/App/Info/Changed"));
    // Answered once the service has said HELLO again, having forgotten every
    // subscription.
    ASSERT_TRUE(Control(sim::kCtlRestart, g_variant_new("(u)", 300u)));
    ASSERT_TRUE(WaitForSubscription("Ctx/App/Info/Changed"));
    // The service's going and coming back are lines of their own.
    EXPECT_EQ(ParseJson("{\"event\":\"unavailable\",\"reason\":\"bye\"}"), NextEvent());
    EXPECT_EQ(ParseJson("{\"event\":\"available\",\"reason\":\"hello\"}"), NextEvent());
    ASSERT_TRUE(Emit("Ctx/App/Info/Changed", "{\"after\":\"restart\"}"));
    EXPECT_EQ(Event("Ctx/App/Info/Changed", ParseJson("{\"after\":\"restart\"}")), NextEvent());
    EXPECT_TRUE(m_subscribe.Running());
}

TEST_F(CliEventsTest, SubscribeInitialPrintsTheValuesFirstAndAgainWhenTheyChangedDuringARestart) {
    BusMonitor monitor(m_bus.Address());
    ASSERT_TRUE(monitor.Ok());
    const std::string subject = "Ctx/Media/Source/Info/Current";
    ASSERT_TRUE(StartSubscribe({"--initial", "Ctx/No/Value", subject}));
    // The values come in the order of the answers: here the one line.
    EXPECT_EQ(Event(subject, ParseJson(SimValue(subject))), NextEvent());
    const std::string note = "lumora: the service has no data for Ctx/No/Value\n";
    EXPECT_TRUE(WaitUntil([&] { return m_subscribe.Err() == note; }, kLineWaitMs)) << m_subscribe.Err();
    ASSERT_EQ(1u, Subscribers(subject));
    // Asked only once subscribed, so that no change in between goes unseen.
    ASSERT_TRUE(monitor.WaitForCalls(2, 5000, "RequestAsync"));
    std::vector<BusMessage> calls = monitor.Calls();
    auto position = [&](const std::string& member, int type) {
        for (size_t i = 0; i < calls.size(); ++i)
            if (calls[i].member == member && calls[i].requestType == type && calls[i].subject == subject) return i;
        return calls.size();
    };
    EXPECT_LT(position("RequestSync", kSubscribe), position("RequestAsync", 5));

    // The value changes while the service is away, which no notification tells.
    std::future<bool> restart = std::async(std::launch::async, [this] {
        GDBusConnection* connection = ConnectToBus(m_bus.Address());
        bool done = CallControl(connection, sim::kCtlRestart, g_variant_new("(u)", 1500u)).Ok();
        g_object_unref(connection);
        return done;
    });
    ASSERT_TRUE(WaitUntil([] { return !ReadyMarkerExists(); }, 5000));
    const std::string changed = "{\"Source\":\"HDMI1\",\"Port\":\"HDMI1\",\"Connected\":true}";
    ASSERT_TRUE(SetValue(subject, changed));
    EXPECT_TRUE(restart.get());

    EXPECT_EQ(ParseJson("{\"event\":\"unavailable\",\"reason\":\"bye\"}"), NextEvent());
    EXPECT_EQ(ParseJson("{\"event\":\"available\",\"reason\":\"hello\"}"), NextEvent());
    EXPECT_EQ(Event(subject, ParseJson(changed)), NextEvent());
    EXPECT_EQ(1u, Subscribers(subject));
    ASSERT_TRUE(Emit(subject, "{\"Source\":\"USB\"}"));
    EXPECT_EQ(Event(subject, ParseJson("{\"Source\":\"USB\"}")), NextEvent());
    // The subject without a value is noted once, not at every return.
    EXPECT_EQ(note, m_subscribe.Err());
}

TEST_F(CliEventsTest, SubscribeKeepsGoingWhenTheServiceIsKilledAndStartedAgain) {
    const std::string subject = "Ctx/Media/Source/Info/Current";
    ASSERT_TRUE(StartSubscribe({"--initial", subject}));
    const std::string initial = SimValue(subject);
    EXPECT_EQ(Event(subject, ParseJson(initial)), NextEvent());
    ASSERT_TRUE(WaitForSubscription(subject));
    ASSERT_TRUE(Emit(subject, "{\"Source\":\"lost with the process\"}"));
    EXPECT_EQ(Event(subject, ParseJson("{\"Source\":\"lost with the process\"}")), NextEvent());

    // Killed: no BYE. The new process starts from the scenario again.
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGKILL));
    EXPECT_EQ(-1, m_sim.WaitForExit(5000));
    EXPECT_EQ(ParseJson("{\"event\":\"unavailable\",\"reason\":\"name-lost\"}"), NextEvent());
    ASSERT_TRUE(m_sim.Start());

    EXPECT_EQ(ParseJson("{\"event\":\"available\",\"reason\":\"hello\"}"), NextEvent());
    EXPECT_EQ(Event(subject, ParseJson(initial)), NextEvent());
    ASSERT_TRUE(WaitForSubscription(subject));
    ASSERT_TRUE(Emit(subject, "{\"Source\":\"HDMI2\"}"));
    EXPECT_EQ(Event(subject, ParseJson("{\"Source\":\"HDMI2\"}")), NextEvent());
    ASSERT_TRUE(m_subscribe.Signal(SIGTERM));
    EXPECT_EQ(0, m_subscribe.Wait(10000));
    EXPECT_EQ("", m_subscribe.Err());
}

TEST_F(CliEventsTest, SubscribeInitialNotesASubjectThatTheServiceAnswersWithAnError) {
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", "Ctx/App/Info/Current", 3)));
    ASSERT_TRUE(StartSubscribe({"--initial", "Ctx/App/Info/Current"}));
    const std::string note = "lumora: the service answered Ctx/App/Info/Current with an error\n";
    EXPECT_TRUE(WaitUntil([&] { return m_subscribe.Err() == note; }, kLineWaitMs)) << m_subscribe.Err();
    // Still subscribed: the changes come.
    ASSERT_TRUE(Emit("Ctx/App/Info/Current", "{\"AppId\":\"z\"}"));
    EXPECT_EQ(Event("Ctx/App/Info/Current", ParseJson("{\"AppId\":\"z\"}")), NextEvent());
}

// The command uses the library alone: one bus connection.
TEST_F(CliEventsTest, SubscribeInitialNeedsNoConnectionOfItsOwn) {
    ASSERT_TRUE(StartSubscribe({"--initial", "Ctx/App/Info/Current"}));
    EXPECT_EQ("Ctx/App/Info/Current", NextEvent()["subject"].asString());
    EXPECT_EQ(1u, BusNamesOf(m_subscribe.Pid()).size());
}

// lumora status --watch: the status lines, then one line per change of the
// service's availability until SIGINT.
TEST_F(CliEventsTest, StatusWatchPrintsEachChangeOfTheServicesAvailabilityUntilInterrupted) {
    ASSERT_TRUE(m_subscribe.Start(CliExecutable(), {"status", "--watch"}));
    std::string line;
    for (const char* start : {"feature switch: ", "bus: connected", "service: available", "whitelist: "}) {
        ASSERT_TRUE(m_subscribe.ReadLine(line, kLineWaitMs)) << m_subscribe.Err();
        EXPECT_EQ(0u, line.find(start)) << line;
    }
    EXPECT_EQ(ParseJson("{\"event\":\"available\",\"reason\":\"ready\"}"), NextEvent());
    ASSERT_TRUE(Control(sim::kCtlRestart, g_variant_new("(u)", 300u)));
    EXPECT_EQ(ParseJson("{\"event\":\"unavailable\",\"reason\":\"bye\"}"), NextEvent());
    EXPECT_EQ(ParseJson("{\"event\":\"available\",\"reason\":\"hello\"}"), NextEvent());
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGKILL));
    EXPECT_EQ(-1, m_sim.WaitForExit(5000));
    EXPECT_EQ(ParseJson("{\"event\":\"unavailable\",\"reason\":\"name-lost\"}"), NextEvent());
    ASSERT_TRUE(m_sim.Start());
    EXPECT_EQ(ParseJson("{\"event\":\"available\",\"reason\":\"hello\"}"), NextEvent());
    EXPECT_FALSE(m_subscribe.LineWithin(500));  // once per change
    ASSERT_TRUE(m_subscribe.Signal(SIGINT));
    EXPECT_EQ(0, m_subscribe.Wait(10000));
    EXPECT_EQ("", m_subscribe.Err());
}

TEST_F(CliEventsTest, StatusWatchFollowsAServiceThatIsNotThereYet) {
    m_sim.Stop();
    ASSERT_TRUE(m_subscribe.Start(CliExecutable(), {"status", "--watch"}));
    std::string line;
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(m_subscribe.ReadLine(line, kLineWaitMs)) << m_subscribe.Err();
    EXPECT_EQ(ParseJson("{\"event\":\"unavailable\",\"reason\":\"name-lost\"}"), NextEvent());
    ASSERT_TRUE(m_sim.Start());
    EXPECT_EQ(ParseJson("{\"event\":\"available\",\"reason\":\"hello\"}"), NextEvent());
    ASSERT_TRUE(m_subscribe.Signal(SIGTERM));
    EXPECT_EQ(0, m_subscribe.Wait(10000));
}

TEST_F(CliEventsUsageTest, WatchIsAnOptionOfStatusAlone) {
    EXPECT_NE(std::string::npos, Lumora({"status", "--help"}).out.find("usage: lumora status [--watch]"));
    RunResult read = Lumora({"read", "--watch", "Ctx/App/Info/Current"});
    EXPECT_EQ(2, read.exitStatus);
    EXPECT_EQ(0u, read.err.find("lumora: --watch does not apply to read\n")) << read.err;
}

}  // namespace
}  // namespace lumora::test
