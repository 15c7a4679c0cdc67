// lumora monitor beside lumora-sim and clients it drives, run as processes;
// a recorded timeline replayed by a fresh lumora-sim.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <string>
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
        // The monitor names a caller from /proc and the bus's credentials,
        // which it can while the caller runs: the read and the request are
        // answered 300 ms late, so that their lumora is still there when even
        // a monitor that lags (a fresh one under an emulator) comes to their
        // calls, ServiceEnable included.
        for (const char* subject : {"Ctx/Media/Source/Info/Current", "Ctx/App/Info/Current"})
            ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", subject, 300u)));
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
};

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
