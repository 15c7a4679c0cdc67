// lumora monitor beside lumora-sim and clients it drives, run as processes;
// a recorded timeline replayed by a fresh lumora-sim.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BusCalls.h"
#include "ChildProcess.h"
#include "CliFixture.h"
#include "JsonText.h"
#include "LogCapture.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;
using Clock = std::chrono::steady_clock;
constexpr int kWaitMs = 10000;

std::vector<Json::Value> JsonLines(const std::string& text) {
    std::vector<Json::Value> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        if (end > start) lines.push_back(ParseJson(text.substr(start, end - start)));
    return lines;
}

std::vector<Json::Value> Events(const std::vector<Json::Value>& lines, const std::string& event,
                                const std::string& subject = "") {
    std::vector<Json::Value> found;
    for (const Json::Value& line : lines)
        if (line["event"] == event && (subject.empty() || line["subject"] == subject)) found.push_back(line);
    return found;
}

// The timeline file's lines (the header first), as far as written.
std::vector<Json::Value> TimelineLines(const std::string& path) {
    std::ifstream in(path);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return JsonLines(text);
}

// What the service answers one call of the wire contract, as a raw client
// would see it: the reply in GVariant text form, or the error.
constexpr const char* kService = "org.verdin.tv.lumora2";
constexpr const char* kServicePath = "/org/verdin/tv/lumora2";
constexpr const char* kServiceInterface = "org.verdin.tv.lumora.interface2";

CallResult ServiceCall(GDBusConnection* connection, const char* method, int type, const std::string& subject) {
    return CallMethod(connection, kService, kServicePath, kServiceInterface, method,
                      g_variant_new("(iiiss)", static_cast<gint32>(getpid()), type, 1, subject.c_str(), ""));
}
CallResult RawRead(GDBusConnection* connection, const std::string& subject) {
    return ServiceCall(connection, "RequestSync", 1, subject);
}
CallResult RawRequest(GDBusConnection* connection, const std::string& subject) {
    return ServiceCall(connection, "RequestAsync", 5, subject);
}
CallResult RawEnable(GDBusConnection* connection) {
    return CallMethod(connection, kService, kServicePath, kServiceInterface, "ServiceEnable", nullptr);
}

class MonitorTest : public CliServiceFixture {
protected:
    // lumora monitor with args, once it watches the bus.
    void StartMonitor(ChildProcess& monitor, std::vector<std::string> args) {
        args.insert(args.begin(), "monitor");
        ASSERT_TRUE(monitor.Start(CliExecutable(), args));
        ASSERT_TRUE(WaitUntil([&] { return monitor.Err().find("lumora: monitoring ") == 0; }, kWaitMs))
            << monitor.Err();
    }
    // Its output once it stopped on SIGINT.
    std::string StopMonitor(ChildProcess& monitor) {
        EXPECT_TRUE(monitor.Signal(SIGINT));
        EXPECT_EQ(0, monitor.Wait(kWaitMs)) << monitor.Err();
        return monitor.Out();
    }
    // A short scripted session of lumora: a read, a request, a write, and a
    // subscriber that hears two notifications.
    void Session(ChildProcess& subscriber) {
        ASSERT_EQ(0, Lumora({"read", "Ctx/Media/Source/Info/Current"}).exitStatus);
        ASSERT_EQ(0, Lumora({"request", "Ctx/App/Info/Current"}).exitStatus);
        ASSERT_TRUE(subscriber.Start(CliExecutable(), {"subscribe", "Ctx/Sound/Volume/Level/Changed"}));
        ASSERT_TRUE(WaitUntil([&] { return Subscribers("Ctx/Sound/Volume/Level/Changed") == 1; }, kWaitMs));
        ASSERT_TRUE(Control(sim::kCtlEmit, g_variant_new("(ss)", "Ctx/Sound/Volume/Level/Changed", "{\"Level\":5}")));
        ASSERT_EQ(0, Lumora({"write", "Ctx/Sound/Volume/Level/Changed", "{\"Level\":6}"}).exitStatus);
        std::string line;
        ASSERT_TRUE(subscriber.ReadLine(line, kWaitMs));
        ASSERT_TRUE(subscriber.ReadLine(line, kWaitMs));
        ASSERT_TRUE(subscriber.Signal(SIGTERM));
        EXPECT_EQ(0, subscriber.Wait(kWaitMs));
    }
    Json::Value SimStatus() {
        CallResult status = CallControl(m_control, sim::kCtlGetStatus);
        if (!status.Ok()) return Json::Value();
        const gchar* text = nullptr;
        g_variant_get(status.reply.get(), "(&s)", &text);
        return ParseJson(text);
    }
    size_t Subscribers(const std::string& subject) { return SimStatus()["subscriptions"][subject].size(); }
    // Stops the monitor once the timeline holds what done looks for: the
    // monitor takes the bus's copies in its own time.
    void StopRecording(ChildProcess& monitor, const std::string& timeline,
                       const std::function<bool(const std::vector<Json::Value>&)>& done) {
        EXPECT_TRUE(WaitUntil([&] { return done(TimelineLines(timeline)); }, kWaitMs)) << monitor.Err();
        StopMonitor(monitor);
    }
    // A fresh simulator with the sample scenario plays timeline to its end.
    void ReplayToTheEnd(const std::string& timeline, const std::vector<std::string>& args = {"--speed", "100"}) {
        m_sim.Stop();
        std::vector<std::string> all = {"--replay", timeline};
        all.insert(all.end(), args.begin(), args.end());
        ASSERT_TRUE(m_sim.Start(SampleScenario(), all));
        ASSERT_TRUE(WaitUntil([&] { return SimStatus()["replay"]["done"].asBool(); }, kWaitMs)) << SimStatus();
    }
};

std::vector<Json::Value> Answers(const std::vector<Json::Value>& lines, const std::string& type,
                                 const std::string& subject = "") {
    std::vector<Json::Value> found;
    for (const Json::Value& line : Events(lines, "answer", subject))
        if (line["type"] == type) found.push_back(line);
    return found;
}

TEST_F(MonitorTest, EveryCallAnswerAndSignalOfASessionAppearsOnceDecoded) {
    ChildProcess monitor;
    StartMonitor(monitor, {"--json"});
    ChildProcess subscriber;
    Session(subscriber);
    std::vector<Json::Value> lines = JsonLines(StopMonitor(monitor));

    auto reads = Events(lines, "call", "Ctx/Media/Source/Info/Current");
    ASSERT_EQ(1u, reads.size());
    EXPECT_EQ("read", reads[0]["type"].asString());
    EXPECT_EQ("lumora", reads[0]["process"].asString());
    EXPECT_GT(reads[0]["pid"].asInt(), 0);
    auto readAnswers = Events(lines, "answer", "Ctx/Media/Source/Info/Current");
    ASSERT_EQ(1u, readAnswers.size());
    EXPECT_EQ(reads[0]["id"], readAnswers[0]["id"]);
    EXPECT_EQ(reads[0]["serial"], readAnswers[0]["serial"]);
    EXPECT_EQ(0, readAnswers[0]["code"].asInt());
    EXPECT_EQ(ParseJson(SimValue("Ctx/Media/Source/Info/Current")), readAnswers[0]["data"]);
    EXPECT_GE(readAnswers[0]["latency_ms"].asDouble(), 0.0);

    auto requests = Events(lines, "call", "Ctx/App/Info/Current");
    ASSERT_EQ(1u, requests.size());
    EXPECT_EQ("request", requests[0]["type"].asString());
    auto requestAnswers = Events(lines, "answer", "Ctx/App/Info/Current");
    ASSERT_EQ(1u, requestAnswers.size());
    EXPECT_EQ(requests[0]["id"], requestAnswers[0]["id"]);
    EXPECT_TRUE(requestAnswers[0].isMember("latency_ms"));

    auto volume = Events(lines, "call", "Ctx/Sound/Volume/Level/Changed");
    std::vector<std::string> types;
    for (const Json::Value& call : volume) types.push_back(call["type"].asString());
    EXPECT_EQ((std::vector<std::string>{"subscribe", "write", "unsubscribe"}), types);
    EXPECT_EQ("{\"Level\":6}", volume[1]["input"].asString());
    auto signals = Events(lines, "signal", "Ctx/Sound/Volume/Level/Changed");
    ASSERT_EQ(2u, signals.size());
    EXPECT_EQ(ParseJson("{\"Level\":5}"), signals[0]["data"]);
    EXPECT_EQ(ParseJson("{\"Level\":6}"), signals[1]["data"]);
    EXPECT_EQ("lumora", signals[0]["process"].asString());
    // Every call but the write is answered once, matched by its caller and serial.
    for (const Json::Value& call : Events(lines, "call")) {
        size_t answers = 0;
        for (const Json::Value& answer : Events(lines, "answer"))
            answers += answer["sender"] == call["sender"] && answer["serial"] == call["serial"] ? 1 : 0;
        EXPECT_EQ(call["type"] == "write" ? 0u : 1u, answers) << call;
    }
    EXPECT_EQ(4u, Events(lines, "call").size() - volume.size() - 2) << "one enable per lumora process";
    for (const Json::Value& line : lines) EXPECT_FALSE(line.isMember("text")) << line;
}

TEST_F(MonitorTest, MessagesOutsideTheWireContractAreShownAsUndecodable) {
    ChildProcess monitor;
    StartMonitor(monitor, {"--json"});
    // A call with a body the service does not take, and a signal of the
    // service's interface that is not "Response".
    CallMethod(m_control, "org.verdin.tv.lumora2", "/org/verdin/tv/lumora2", "org.verdin.tv.lumora.interface2",
               "RequestSync", g_variant_new("(s)", "odd"));
    ASSERT_TRUE(g_dbus_connection_emit_signal(m_control, nullptr, "/org/verdin/tv/lumora2",
                                              "org.verdin.tv.lumora.interface2", "Surprise", g_variant_new("(u)", 7u),
                                              nullptr));
    ASSERT_EQ(0, Lumora({"read", "Ctx/Media/Source/Info/Current"}).exitStatus);  // still decoding after them
    std::vector<Json::Value> lines = JsonLines(StopMonitor(monitor));
    auto odd = Events(lines, "undecodable");
    ASSERT_EQ(2u, odd.size()) << monitor.Out();
    EXPECT_EQ("RequestSync", odd[0]["member"].asString());
    EXPECT_EQ("s", odd[0]["signature"].asString());
    EXPECT_EQ("Surprise", odd[1]["member"].asString());
    EXPECT_EQ("u", odd[1]["signature"].asString());
    EXPECT_EQ(1u, Events(lines, "answer", "Ctx/Media/Source/Info/Current").size());
}

TEST_F(MonitorTest, FiltersAndTheSummaryCountWhatTheSessionDid) {
    ChildProcess filtered, summary;
    StartMonitor(filtered, {"--json", "--subject", "Ctx/Sound/*", "--subject", "Ctx/App/*"});
    StartMonitor(summary, {"--json", "--summary"});
    ChildProcess subscriber;
    Session(subscriber);
    std::vector<Json::Value> lines = JsonLines(StopMonitor(filtered));
    for (const Json::Value& line : lines) {
        if (line["event"] == "hello" || line["event"] == "bye") continue;
        std::string subject = line["subject"].asString();
        EXPECT_TRUE(subject.rfind("Ctx/Sound/", 0) == 0 || subject.rfind("Ctx/App/", 0) == 0) << line;
    }
    EXPECT_EQ(3u, Events(lines, "call", "Ctx/Sound/Volume/Level/Changed").size());
    EXPECT_EQ(1u, Events(lines, "call", "Ctx/App/Info/Current").size());

    std::vector<Json::Value> all = JsonLines(StopMonitor(summary));
    ASSERT_FALSE(all.empty());
    const Json::Value& table = all.back();
    ASSERT_EQ("summary", table["event"].asString()) << table;
    const Json::Value& volume = table["subjects"]["Ctx/Sound/Volume/Level/Changed"];
    EXPECT_EQ(1, volume["calls"]["subscribe"].asInt());
    EXPECT_EQ(1, volume["calls"]["write"].asInt());
    EXPECT_EQ(1, volume["calls"]["unsubscribe"].asInt());
    EXPECT_EQ(2, volume["signals"].asInt());
    EXPECT_EQ(1, table["subjects"]["Ctx/Media/Source/Info/Current"]["calls"]["read"].asInt());
    EXPECT_GE(table["subjects"]["Ctx/Media/Source/Info/Current"]["latency_ms"]["max"].asDouble(), 0.0);
    // Four lumora processes: each asked ServiceEnable once.
    EXPECT_EQ(4, table["processes"]["lumora"]["enable"].asInt());
    EXPECT_EQ(1, table["processes"]["lumora"]["request"].asInt());

    ChildProcess byProcess;
    StartMonitor(byProcess, {"--json", "--process", "nobody-of-that-name"});
    ASSERT_EQ(0, Lumora({"read", "Ctx/Media/Source/Info/Current"}).exitStatus);
    EXPECT_TRUE(JsonLines(StopMonitor(byProcess)).empty());
}

TEST_F(MonitorTest, ARecordingReplayedIntoAFreshSimulatorGivesTheSameNotificationsAndValues) {
    const std::string timeline = m_dir.File("session.jsonl");
    ChildProcess monitor;
    StartMonitor(monitor, {"--record", timeline});
    ChildProcess listener;
    ASSERT_TRUE(listener.Start(CliExecutable(), {"subscribe", "Ctx/Sound/Volume/Level/Changed"}));
    ASSERT_TRUE(WaitUntil([&] { return Subscribers("Ctx/Sound/Volume/Level/Changed") == 1; }, kWaitMs));
    const char* levels[] = {"{\"Level\":1}", "{\"Level\": 2, \"Mute\": false}", "{\"Level\":3}"};
    for (const char* level : levels)
        ASSERT_TRUE(Control(sim::kCtlEmit, g_variant_new("(ss)", "Ctx/Sound/Volume/Level/Changed", level)));
    ASSERT_TRUE(Control(sim::kCtlSetValue, g_variant_new("(ss)", "Ctx/App/Info/Current", "{\"AppId\":\"recorded\"}")));
    ASSERT_EQ(0, Lumora({"read", "Ctx/App/Info/Current"}).exitStatus);
    std::vector<std::string> heard;
    for (int i = 0; i < 3; ++i) {
        std::string line;
        ASSERT_TRUE(listener.ReadLine(line, kWaitMs));
        heard.push_back(line);
    }
    listener.Signal(SIGTERM);
    listener.Wait(kWaitMs);
    StopMonitor(monitor);
    m_sim.Stop();

    // A fresh simulator plays it; a new listener hears the same.
    ASSERT_TRUE(m_sim.Start(SampleScenario(), {"--replay", timeline, "--speed", "0.2"}));
    ChildProcess replayed;
    ASSERT_TRUE(replayed.Start(CliExecutable(), {"subscribe", "Ctx/Sound/Volume/Level/Changed"}));
    for (const std::string& expected : heard) {
        std::string line;
        ASSERT_TRUE(replayed.ReadLine(line, kWaitMs)) << replayed.Err();
        EXPECT_EQ(expected, line);
    }
    ASSERT_TRUE(WaitUntil([&] { return SimStatus()["replay"]["done"].asBool(); }, kWaitMs)) << SimStatus();
    EXPECT_EQ(ParseJson("{\"AppId\":\"recorded\"}"), ParseJson(Lumora({"read", "Ctx/App/Info/Current"}).out));
    // Subjects the timeline never mentions answer from the scenario.
    EXPECT_NE(std::string::npos, Lumora({"read", "Ctx/Media/Source/Info/Current"}).out.find("\"Source\""));
    replayed.Signal(SIGTERM);
    replayed.Wait(kWaitMs);
}

TEST_F(MonitorTest, SpeedTenPlaysTenTimesFaster) {
    const std::string timeline = m_dir.Write("slow.jsonl",
                                             "{\"format\":\"lumora-timeline\",\"version\":1}\n"
                                             "{\"event\":\"signal\",\"t_ms\":1500,\"subject\":\"Ctx/Test/Tick\","
                                             "\"text\":\"{\\\"n\\\":1}\"}\n"
                                             "{\"event\":\"signal\",\"t_ms\":5000,\"subject\":\"Ctx/Test/Tick\","
                                             "\"text\":\"{\\\"n\\\":2}\"}\n");
    m_sim.Stop();
    auto started = Clock::now();
    ASSERT_TRUE(m_sim.Start(SampleScenario(), {"--replay", timeline, "--speed", "10", "--broadcast"}));
    ASSERT_TRUE(WaitUntil([&] { return SimStatus()["replay"]["done"].asBool(); }, kWaitMs)) << SimStatus();
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
    // 500 ms of timeline at ten times the speed; recorded time would be 5 s.
    EXPECT_GE(ms, 450);
    EXPECT_LT(ms, 3000);
    EXPECT_EQ(2, SimStatus()["replay"]["played"].asInt());
    EXPECT_EQ("{\"n\":2}", SimValue("Ctx/Test/Tick"));
}

// The simulator's processor time in seconds, from /proc.
double CpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14 || i == 15) ticks += std::stod(field);  // utime, stime
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

TEST_F(MonitorTest, ALoopOfEventsAllAtTimeZeroPlaysAtMostTenRoundsASecond) {
    const std::string tick = "{\"event\":\"signal\",\"t_ms\":0,\"subject\":\"Ctx/Test/Tick\",\"text\":\"{}\"}\n";
    const std::string timeline =
        m_dir.Write("zero.jsonl", "{\"format\":\"lumora-timeline\",\"version\":1}\n" + tick + tick);
    m_sim.Stop();
    ASSERT_TRUE(m_sim.Start(SampleScenario(), {"--replay", timeline, "--loop", "--broadcast"}));
    ASSERT_TRUE(WaitUntil([&] { return SimStatus()["replay"]["rounds"].asUInt() > 0; }, kWaitMs)) << SimStatus();
    unsigned roundsBefore = SimStatus()["replay"]["rounds"].asUInt();
    double cpuBefore = CpuSeconds(m_sim.Pid());
    auto started = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    unsigned rounds = SimStatus()["replay"]["rounds"].asUInt() - roundsBefore;
    double cpu = CpuSeconds(m_sim.Pid()) - cpuBefore;
    double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    EXPECT_LE(rounds, static_cast<unsigned>(seconds * 10) + 2) << "in " << seconds << " s";
    EXPECT_GE(rounds, 10u) << "it goes on looping";
    EXPECT_LT(cpu, 0.3 * seconds) << "processor time in " << seconds << " s";
}

TEST_F(MonitorTest, AnAnswerNestedFiveThousandLevelsDeepIsShownAsTextAndNothingStops) {
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    ASSERT_TRUE(Control(sim::kCtlSetValue, g_variant_new("(ss)", "Deep/Subject", deep.c_str())));
    ChildProcess monitor;
    StartMonitor(monitor, {"--json"});
    ChildProcess subscriber;
    ASSERT_TRUE(subscriber.Start(CliExecutable(), {"subscribe", "Deep/Subject"}));
    ASSERT_TRUE(WaitUntil([&] { return Subscribers("Deep/Subject") == 1; }, kWaitMs));
    ASSERT_TRUE(Control(sim::kCtlEmit, g_variant_new("(ss)", "Deep/Subject", deep.c_str())));
    std::string line;
    ASSERT_TRUE(subscriber.ReadLine(line, kWaitMs)) << subscriber.Err();
    EXPECT_EQ("{\"subject\":\"Deep/Subject\",\"data\":\"" + deep + "\"}", line);
    RunResult pretty = Lumora({"--pretty", "read", "Deep/Subject"});
    EXPECT_EQ(0, pretty.exitStatus) << pretty.err;
    EXPECT_EQ(deep + "\n", pretty.out);
    subscriber.Signal(SIGTERM);
    EXPECT_EQ(0, subscriber.Wait(kWaitMs));
    // The sentinel: a read after the deep answers is still seen.
    ASSERT_EQ(0, Lumora({"read", "Ctx/App/Info/Current"}).exitStatus);
    ASSERT_TRUE(WaitUntil([&] { return monitor.Out().find("\"Ctx/App/Info/Current\"") != std::string::npos; }, kWaitMs))
        << monitor.Err();
    std::vector<Json::Value> lines = JsonLines(StopMonitor(monitor));
    // The subscriber's subscribe and unsubscribe are answered too; the read's
    // answer is the one that carries the deep value.
    std::vector<Json::Value> reads;
    for (const Json::Value& answer : Events(lines, "answer", "Deep/Subject"))
        if (answer["type"] == "read") reads.push_back(answer);
    ASSERT_EQ(1u, reads.size());
    EXPECT_EQ(Json::Value(deep), reads[0]["data"]);
    auto signals = Events(lines, "signal", "Deep/Subject");
    ASSERT_EQ(1u, signals.size());
    EXPECT_EQ(Json::Value(deep), signals[0]["data"]);
}

TEST_F(MonitorTest, AnAnswersResultCodeAndTextAreRecordedAndReplayedAsTheyWent) {
    const std::string subject = "Ctx/App/Info/Current";
    const std::string subscribed = "Ctx/Media/Source/Info/Current";
    const std::string scenarioAnswer = RawRead(m_control, subscribed).Print();  // before the recording
    const std::string timeline = m_dir.File("codes.jsonl");
    ChildProcess monitor;
    StartMonitor(monitor, {"--record", timeline});
    ASSERT_TRUE(Control(sim::kCtlSetValue, g_variant_new("(ss)", subject.c_str(), "{\"c\":1}")));
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", subject.c_str(), -7)));
    const std::string read = RawRead(m_control, subject).Print();
    const std::string request = RawRequest(m_control, subject).Print();
    ASSERT_EQ("(-7, '{\"c\":1}')", read);
    ASSERT_EQ("(-7, '" + subject + "', <('{\"c\":1}',)>)", request);
    // A subscription is answered (0, "{}"): that is not the subject's value.
    ASSERT_EQ("(0, '{}')", ServiceCall(m_control, "RequestSync", 3, subscribed).Print());
    StopRecording(monitor, timeline, [&](const std::vector<Json::Value>& lines) {
        return !Answers(lines, "subscribe", subscribed).empty();
    });

    std::vector<Json::Value> lines = TimelineLines(timeline);
    auto reads = Answers(lines, "read", subject);
    auto requests = Answers(lines, "request", subject);
    ASSERT_EQ(1u, reads.size());
    ASSERT_EQ(1u, requests.size());
    for (const Json::Value& answer : {reads[0], requests[0]}) {
        EXPECT_EQ(-7, answer["code"].asInt()) << answer;
        EXPECT_EQ("{\"c\":1}", answer["text"].asString()) << answer;
    }

    ReplayToTheEnd(timeline);
    EXPECT_EQ(read, RawRead(m_control, subject).Print());
    EXPECT_EQ(request, RawRequest(m_control, subject).Print());
    EXPECT_EQ(scenarioAnswer, RawRead(m_control, subscribed).Print());
}

TEST_F(MonitorTest, StatisticsAndServiceEnableAnswersAreRecordedAndReplayedExactly) {
    const char* app = "I/TallyDB/App/Duration";
    // The edges of the wire types: the largest unsigned, a negative and the
    // largest int, strings with quotes, a line break, non-ASCII and nothing.
    const char* tuples =
        "[[4294967295, 7, \"it's \\\"quoted\\\"\", \"caf\\u00e9\\nline\", \"\", -5],"
        " [0, 1, \"a\", \"b\", \"c\", 2147483647]]";
    const char* wire = "@a(uusssi) [(4294967295, 7, \"it's \\\"quoted\\\"\", 'caf\u00e9\\nline', '', -5),"
                       " (0, 1, 'a', 'b', 'c', 2147483647)]";
    const char* whiteList = "{\"WhiteList\":[\"lumora\",\"recorded-app\"]}";
    const std::string timeline = m_dir.File("statistics.jsonl");
    ChildProcess monitor;
    StartMonitor(monitor, {"--record", timeline});
    ASSERT_TRUE(Control(sim::kCtlSetStatistics, g_variant_new("(ss)", app, tuples)));
    const gchar* names[] = {"lumora", "recorded-app", nullptr};
    ASSERT_TRUE(Control(sim::kCtlSetWhiteList, g_variant_new("(^as)", names)));
    RunResult recorded = Lumora({"stats", "app"});
    ASSERT_EQ(0, recorded.exitStatus) << recorded.err;
    ASSERT_NE(std::string::npos, recorded.out.find("quoted")) << recorded.out;
    ASSERT_TRUE(Control(sim::kCtlSetEnabled, g_variant_new("(b)", FALSE)));
    const std::string enable = RawEnable(m_control).Print();
    ASSERT_EQ(std::string("(false, '") + whiteList + "')", enable);
    StopRecording(monitor, timeline, [&](const std::vector<Json::Value>& lines) {
        auto enables = Answers(lines, "enable");
        return !enables.empty() && !enables.back()["enabled"].asBool();
    });

    // What the recording holds maps back to the wire's types exactly.
    std::vector<Json::Value> lines = TimelineLines(timeline);
    auto statistics = Answers(lines, "request", app);
    ASSERT_EQ(1u, statistics.size());
    ASSERT_TRUE(statistics[0]["payload"].isString()) << statistics[0];
    VariantPtr expected = AdoptVariant(g_variant_parse(nullptr, wire, nullptr, nullptr, nullptr));
    ASSERT_NE(nullptr, expected);
    VariantPtr payload =
        AdoptVariant(g_variant_parse(nullptr, statistics[0]["payload"].asCString(), nullptr, nullptr, nullptr));
    ASSERT_NE(nullptr, payload) << statistics[0];
    EXPECT_TRUE(g_variant_equal(expected.get(), payload.get())) << PrintVariant(payload.get(), true);
    auto enables = Answers(lines, "enable");
    ASSERT_FALSE(enables.empty());
    EXPECT_EQ(whiteList, enables.back()["text"].asString()) << enables.back();

    // The sample scenario has another whitelist and other records.
    ReplayToTheEnd(timeline);
    EXPECT_EQ(enable, RawEnable(m_control).Print());
    CallResult replayedPayload = RawRequest(m_control, app);
    ASSERT_TRUE(replayedPayload.Ok()) << replayedPayload.Print();
    VariantPtr expectedReply = AdoptVariant(g_variant_new("(isv)", 0, app, expected.get()));
    EXPECT_TRUE(g_variant_equal(expectedReply.get(), replayedPayload.reply.get())) << replayedPayload.Print();
    // A second app, once a tester enables the service again on top of the replay.
    ASSERT_TRUE(Control(sim::kCtlSetEnabled, g_variant_new("(b)", TRUE)));
    RunResult replayed = Lumora({"stats", "app"});
    EXPECT_EQ(0, replayed.exitStatus) << replayed.err;
    EXPECT_EQ(recorded.out, replayed.out);
}

TEST_F(MonitorTest, AChangeSentToTwoSubscribersIsOneEventOfTheTimelineAndIsHeardOnceInTheReplay) {
    const std::string subject = "Ctx/Sound/Volume/Level/Changed";
    const std::string timeline = m_dir.File("two.jsonl");
    ChildProcess monitor;
    StartMonitor(monitor, {"--record", timeline});
    ChildProcess first, second;
    ASSERT_TRUE(first.Start(CliExecutable(), {"subscribe", subject}));
    ASSERT_TRUE(second.Start(CliExecutable(), {"subscribe", subject}));
    ASSERT_TRUE(WaitUntil([&] { return Subscribers(subject) == 2; }, kWaitMs));
    // Room for the replay's listener to subscribe before the first change.
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    // The same data twice is two changes of the service.
    const char* levels[] = {"{\"Level\":1}", "{\"Level\":2}", "{\"Level\":2}"};
    for (const char* level : levels)
        ASSERT_TRUE(Control(sim::kCtlEmit, g_variant_new("(ss)", subject.c_str(), level)));
    std::vector<std::string> heard;
    for (ChildProcess* listener : {&first, &second}) {
        for (size_t i = 0; i < 3; ++i) {
            std::string line;
            ASSERT_TRUE(listener->ReadLine(line, kWaitMs));
            if (listener == &first) heard.push_back(line);
        }
        listener->Signal(SIGTERM);
        listener->Wait(kWaitMs);
    }
    StopRecording(monitor, timeline, [&](const std::vector<Json::Value>& lines) {
        return Answers(lines, "unsubscribe", subject).size() == 2;
    });

    std::vector<Json::Value> lines = TimelineLines(timeline);
    auto signals = Events(lines, "signal", subject);
    ASSERT_EQ(3u, signals.size()) << "one event per change, whatever the receivers";
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(levels[i], signals[i]["text"].asString());
    // The second receiver's copy of each is kept for reference, right after it.
    for (size_t i = 1; i < lines.size(); ++i) {
        if (lines[i]["event"] != "copy") continue;
        const Json::Value& original = lines[i - 1];
        EXPECT_EQ("signal", original["event"].asString()) << lines[i];
        EXPECT_EQ(original["sender"], lines[i]["sender"]);
        EXPECT_EQ(original["serial"].asUInt() + 1, lines[i]["serial"].asUInt());
        EXPECT_NE(original["destination"], lines[i]["destination"]);
    }
    EXPECT_EQ(3u, Events(lines, "copy").size());

    m_sim.Stop();
    ASSERT_TRUE(m_sim.Start(SampleScenario(), {"--replay", timeline, "--speed", "0.25"}));
    ChildProcess replayed;
    ASSERT_TRUE(replayed.Start(CliExecutable(), {"subscribe", subject}));
    for (const std::string& expected : heard) {
        std::string line;
        ASSERT_TRUE(replayed.ReadLine(line, kWaitMs)) << replayed.Err();
        EXPECT_EQ(expected, line);
    }
    ASSERT_TRUE(WaitUntil([&] { return SimStatus()["replay"]["done"].asBool(); }, kWaitMs)) << SimStatus();
    // Nothing came twice: the next line is what is sent after the replay.
    ASSERT_TRUE(Control(sim::kCtlEmit, g_variant_new("(ss)", subject.c_str(), "{\"Level\":9}")));
    std::string line;
    ASSERT_TRUE(replayed.ReadLine(line, kWaitMs));
    EXPECT_EQ("{\"subject\":\"" + subject + "\",\"data\":{\"Level\":9}}", line);
    replayed.Signal(SIGTERM);
    replayed.Wait(kWaitMs);
}

// ---- timelines that cannot be played ------------------------------------------------

class TimelineTest : public CliNoServiceFixture {
protected:
    // lumora-sim's refusal of a timeline with text.
    RunResult Replay(const std::string& text) {
        std::string path = m_dir.Write("bad.jsonl", text);
        return SimProcess::Run({"--replay", path});
    }
    LogCapture m_log;  // the simulator's own line goes to the log, not stderr
    TempDir m_dir;
};

TEST_F(TimelineTest, AnUnplayableTimelineIsRefusedWithFileLineAndTheReason) {
    const std::string header = "{\"format\":\"lumora-timeline\",\"version\":1}\n";
    const std::string signal = "{\"event\":\"signal\",\"t_ms\":10,\"subject\":\"A/B\",\"text\":\"x\"}\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "1: empty: no timeline header"},
        {"{\"format\":\"other\"}\n", "1: not a timeline"},
        {"{\"format\":\"lumora-timeline\",\"version\":7}\n", "1: timeline version 7 is not the one"},
        {header + signal + "{\"event\":\"signal\",\"t_ms\":5,\"subject\":\"A/B\",\"text\":\"y\"}\n",
         "3: out of time order"},
        {header + "{\"event\":\"party\",\"t_ms\":1}\n", "2: unknown event kind \"party\""},
        {header + signal + "{\"event\":\"signal\",\"t_ms\":20,\"subj", "3: invalid JSON"},
        {header + "{\"event\":\"signal\",\"t_ms\":1,\"subject\":\"A\xff\",\"text\":\"x\"}\n", "2: not valid UTF-8"},
        {header + "{\"event\":\"signal\",\"t_ms\":-4,\"subject\":\"A/B\",\"text\":\"x\"}\n", "2: \"t_ms\""},
        {header + "{\"event\":\"signal\",\"t_ms\":4,\"text\":\"x\"}\n", "2: \"subject\" is missing"},
    };
    for (const auto& [text, reason] : cases) {
        RunResult run = Replay(text);
        EXPECT_EQ(2, run.exitStatus) << reason;
        EXPECT_EQ(0u, run.err.find("lumora-sim: " + m_dir.File("bad.jsonl") + ":" + reason)) << run.err;
        EXPECT_EQ(run.err.size() - 1, run.err.find('\n')) << "one line: " << run.err;
    }
}

TEST_F(TimelineTest, AFieldOfTheWrongTypeIsRefusedWithItsPathAndBothTypes) {
    const std::string header = "{\"format\":\"lumora-timeline\",\"version\":1}\n";
    auto answer = [&](const std::string& code) {
        return header + "{\"event\":\"answer\",\"t_ms\":1,\"subject\":\"A/B\",\"code\":" + code + ",\"text\":\"x\"}\n";
    };
    const std::vector<std::pair<std::string, std::string>> cases = {
        {answer("\"0\""), "2: $.code: expected a 32-bit integer, found a string"},
        {answer("[]"), "2: $.code: expected a 32-bit integer, found an array"},
        {answer("{}"), "2: $.code: expected a 32-bit integer, found an object"},
        {answer("1.5"), "2: $.code: expected a 32-bit integer, found a number"},
        {answer("4294967296"), "2: $.code: 4294967296 is out of range for a 32-bit integer"},
        {answer("-3000000000"), "2: $.code: -3000000000 is out of range for a 32-bit integer"},
        {answer("1e300"), "2: $.code: expected a 32-bit integer, found a number"},
        {header + "{\"event\":[],\"t_ms\":1}\n", "2: $.event: expected a string, found an array"},
        {header + "{\"event\":\"signal\",\"t_ms\":{},\"subject\":\"A/B\",\"text\":\"x\"}\n",
         "2: $.t_ms: expected a time in milliseconds from the start, found an object"},
        {header + "{\"event\":\"signal\",\"t_ms\":1,\"subject\":\"A/B\",\"text\":7}\n",
         "2: $.text: expected a string, found an integer"},
        {header + std::string(3000, '[') + std::string(3000, ']') + "\n", "2: invalid JSON (1:513: nested more than"},
        {header + "{\"event\":\"signal\",\"t_ms\":1000000000001,\"subject\":\"A/B\",\"text\":\"x\"}\n",
         "2: $.t_ms: 1000000000001 is out of range (0 to 1000000000000 ms)"},
        {header + "{\"event\":\"signal\",\"t_ms\":1,\"subject\":\"A/\\udc80\",\"text\":\"x\"}\n",
         "2: $.subject: not valid UTF-8 (a \\u escape of a lone surrogate)"},
        {"{\"format\":\"lumora-timeline\",\"version\":\"1\"}\n",
         "1: $.version: expected a 32-bit integer, found a string"},
        // An escaped line break in a kind stays an escape: the message is one line.
        {header + "{\"event\":\"a\\nb\",\"t_ms\":1}\n", "2: unknown event kind \"a\\nb\""},
        // A statistics answer's payload is the wire's value in GVariant text form.
        {header + "{\"event\":\"answer\",\"t_ms\":1,\"type\":\"request\",\"subject\":\"I/TallyDB/Onoff/Duration\","
                  "\"code\":0,\"payload\":7}\n",
         "2: $.payload: expected a string, found an integer"},
        {header + "{\"event\":\"answer\",\"t_ms\":1,\"type\":\"request\",\"subject\":\"I/TallyDB/Onoff/Duration\","
                  "\"code\":0,\"payload\":\"[(uint32 1,\"}\n",
         "2: $.payload: not a GVariant in text form ("},
        {header + "{\"event\":\"answer\",\"t_ms\":1,\"type\":\"enable\",\"enabled\":\"yes\",\"text\":\"{}\"}\n",
         "2: $.enabled: expected true or false, found a string"},
        {header + "{\"event\":\"answer\",\"t_ms\":1,\"type\":3,\"subject\":\"A/B\",\"text\":\"x\"}\n",
         "2: $.type: expected a string, found an integer"},
    };
    for (const auto& [text, reason] : cases) {
        RunResult run = Replay(text);
        EXPECT_EQ(2, run.exitStatus) << reason;
        EXPECT_EQ(0u, run.err.find("lumora-sim: " + m_dir.File("bad.jsonl") + ":" + reason)) << run.err;
        EXPECT_EQ(run.err.size() - 1, run.err.find('\n')) << "one line: " << run.err;
    }
}

TEST_F(TimelineTest, ADirectoryOrAMissingFileIsRefusedWithItsCause) {
    RunResult run = SimProcess::Run({"--replay", m_dir.Path()});
    EXPECT_EQ(2, run.exitStatus);
    EXPECT_EQ("lumora-sim: " + m_dir.Path() + ": is a directory, not a timeline\n", run.err);
    const std::string missing = m_dir.File("missing.jsonl");
    run = SimProcess::Run({"--replay", missing});
    EXPECT_EQ(2, run.exitStatus);
    EXPECT_EQ("lumora-sim: " + missing + ": cannot be read: No such file or directory\n", run.err);
}

TEST_F(TimelineTest, SpeedAndLoopWithoutAReplayAreRefused) {
    const std::vector<std::vector<std::string>> cases = {{"--speed", "2"}, {"--loop"}, {"--loop", "--speed", "3"}};
    for (const auto& args : cases) {
        RunResult run = SimProcess::Run(args);
        EXPECT_EQ(2, run.exitStatus) << args[0];
        EXPECT_EQ(0u, run.err.find("lumora-sim: " + args[0] + " goes with --replay FILE")) << run.err;
        EXPECT_EQ(run.err.size() - 1, run.err.find('\n')) << "one line: " << run.err;
    }
}

TEST_F(TimelineTest, TheMonitorsOwnOptionsAreCheckedBeforeTheBusIsTouched) {
    RunResult run = Lumora({"monitor", "--duration", "0"});
    EXPECT_EQ(2, run.exitStatus);
    EXPECT_EQ(0u, run.err.find("lumora: --duration takes whole seconds")) << run.err;
    run = Lumora({"monitor", "--frobnicate"});
    EXPECT_EQ(2, run.exitStatus);
    EXPECT_EQ(0u, run.err.find("lumora: monitor does not take --frobnicate")) << run.err;
    EXPECT_EQ(0, Lumora({"monitor", "--help"}).exitStatus);
}

}  // namespace
}  // namespace lumora::test
