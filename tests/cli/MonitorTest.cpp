// lumora monitor beside lumora-sim and clients it drives, run as processes;
// a recorded timeline replayed by a fresh lumora-sim.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BusCalls.h"
#include "ChildProcess.h"
#include "CliFixture.h"
#include "Emulator.h"
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

// The lines whose key holds value.
std::vector<Json::Value> With(const std::vector<Json::Value>& lines, const std::string& key, const Json::Value& value) {
    std::vector<Json::Value> found;
    for (const Json::Value& line : lines)
        if (line.isMember(key) && line[key] == value) found.push_back(line);
    return found;
}

// The answers (answer, error) to the call: the same caller and serial.
std::vector<Json::Value> AnswersTo(const std::vector<Json::Value>& lines, const Json::Value& call) {
    std::vector<Json::Value> found;
    for (const Json::Value& line : lines)
        if ((line["event"] == "answer" || line["event"] == "error") && line["sender"] == call["sender"] &&
            line["serial"] == call["serial"])
            found.push_back(line);
    return found;
}

size_t Occurrences(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++n;
    return n;
}

std::vector<std::string> TextLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();  // a terminal's line end
        lines.push_back(line);
    }
    return lines;
}

// The columns a line takes on a terminal: its UTF-8 characters (none of the
// tests' texts holds a wide one).
size_t Columns(const std::string& line) {
    size_t n = 0;
    for (unsigned char c : line) n += (c & 0xC0) != 0x80 ? 1 : 0;
    return n;
}

std::string Comm(pid_t pid) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

constexpr const char* kServiceName = "org.verdin.tv.lumora2";
constexpr const char* kServicePath = "/org/verdin/tv/lumora2";
constexpr const char* kServiceInterface = "org.verdin.tv.lumora.interface2";
// Every name "type" may take, as the README lists them.
const std::set<std::string> kTypeNames = {"read",       "write", "request",    "subscribe",  "unsubscribe", "enable",
                                          "introspect", "ping",  "machine-id", "properties", "undecodable"};

// lumora monitor on a pseudo-terminal of a given width, as a developer runs
// it in a terminal window.
class TerminalMonitor {
public:
    TerminalMonitor() = default;
    TerminalMonitor(const TerminalMonitor&) = delete;
    TerminalMonitor& operator=(const TerminalMonitor&) = delete;
    ~TerminalMonitor() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_master >= 0) close(m_master);
    }

    bool Start(const std::vector<std::string>& args, unsigned short columns) {
        m_master = posix_openpt(O_RDWR | O_NOCTTY);
        if (m_master < 0 || grantpt(m_master) != 0 || unlockpt(m_master) != 0 || ptsname(m_master) == nullptr)
            return false;
        std::string terminal = ptsname(m_master);
        winsize size{};
        size.ws_row = 24;
        size.ws_col = columns;
        std::vector<std::string> words = {"monitor"};
        words.insert(words.end(), args.begin(), args.end());
        // Through the emulator in a cross build, under the program's name.
        Launch launch = LaunchOf(CliExecutable(), words);
        std::vector<char*> argv = launch.Argv();
        m_pid = fork();
        if (m_pid == 0) {
            // Only calls that are safe after a fork of a threaded process.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setsid();
            int fd = open(terminal.c_str(), O_RDWR);
            int null = open("/dev/null", O_RDONLY);
            if (fd < 0 || null < 0 || ioctl(fd, TIOCSWINSZ, &size) != 0) _exit(127);
            dup2(null, STDIN_FILENO);
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            execv(launch.file.c_str(), argv.data());
            _exit(127);
        }
        return m_pid > 0;
    }
    // Reads what the terminal shows until done holds for it, the program
    // closed the terminal, or timeoutMs passed.
    bool ReadUntil(const std::function<bool(const std::string&)>& done, int timeoutMs) {
        auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!done(m_text)) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) return false;
            pollfd fd{m_master, POLLIN, 0};
            if (poll(&fd, 1, static_cast<int>(left)) <= 0) continue;
            char buffer[4096];
            ssize_t n = read(m_master, buffer, sizeof buffer);
            if (n <= 0) return done(m_text);  // EIO: nobody has the terminal open any more
            m_text.append(buffer, static_cast<size_t>(n));
        }
        return true;
    }
    // Everything it showed, once it stopped on SIGINT; its exit status.
    int Stop() {
        kill(m_pid, SIGINT);
        ReadUntil([](const std::string&) { return false; }, kWaitMs);
        int status = 0;
        pid_t pid = m_pid;
        m_pid = -1;
        if (waitpid(pid, &status, 0) != pid) return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    const std::string& Text() const { return m_text; }

private:
    pid_t m_pid = -1;
    int m_master = -1;
    std::string m_text;
};

// This test's own process name as the bus daemon's pid leads to it: the
// emulator's under a cross build, whose tests it runs.
std::string OwnProcessName() {
    std::ifstream comm("/proc/self/comm");
    std::string name;
    std::getline(comm, name);
    return name;
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

    // A call of the service's object from the test's own connection, made
    // as a client that need not follow the wire contract would make it.
    CallResult Raw(const char* member, GVariant* parameters, const char* interface = kServiceInterface,
                   int timeoutMs = 5000) {
        return CallMethod(m_control, kServiceName, kServicePath, interface, member, parameters, timeoutMs);
    }
    CallResult RawRequest(const char* member, int type, int id, const std::string& subject,
                          const std::string& input = "", int timeoutMs = 5000) {
        return Raw(member,
                   g_variant_new("(iiiss)", static_cast<gint32>(getpid()), type, id, subject.c_str(), input.c_str()),
                   kServiceInterface, timeoutMs);
    }
    std::string OwnName() const { return g_dbus_connection_get_unique_name(m_control); }
    std::string ServiceOwner() {
        CallResult owner = CallMethod(m_control, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                      "org.freedesktop.DBus", "GetNameOwner", g_variant_new("(s)", kServiceName));
        if (!owner.Ok()) return "";
        const gchar* name = nullptr;
        g_variant_get(owner.reply.get(), "(&s)", &name);
        return name;
    }
    // A read whose call and answer, once the monitor showed both, say that
    // it showed everything that went before (it keeps the bus's order).
    void Sentinel(ChildProcess& monitor) {
        std::string subject = "Test/Sentinel/" + std::to_string(++m_sentinels);
        ASSERT_TRUE(RawRequest("RequestSync", 1, 9000 + m_sentinels, subject).Ok());
        ASSERT_TRUE(WaitUntil([&] { return Occurrences(monitor.Out(), subject) >= 2; }, kWaitMs)) << monitor.Out();
    }
    void Sentinel(TerminalMonitor& monitor) {
        std::string subject = "Test/Sentinel/" + std::to_string(++m_sentinels);
        ASSERT_TRUE(RawRequest("RequestSync", 1, 9000 + m_sentinels, subject).Ok());
        ASSERT_TRUE(
            monitor.ReadUntil([&](const std::string& text) { return Occurrences(text, subject) >= 2; }, kWaitMs))
            << monitor.Text();
    }
    int m_sentinels = 0;
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
    // The monitor takes the bus's copies in its own time: the session's last
    // message, the answer to the unsubscribe, may still be on its way to a
    // monitor that lags (a loaded machine) when the subscriber has gone.
    EXPECT_TRUE(WaitUntil(
        [&] { return Events(JsonLines(monitor.Out()), "answer", "Ctx/Sound/Volume/Level/Changed").size() >= 2; },
        kWaitMs));
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
    const std::string scenarioAnswer = RawRequest("RequestSync", 1, 1, subscribed).Print();  // before the recording
    const std::string timeline = m_dir.File("codes.jsonl");
    ChildProcess monitor;
    StartMonitor(monitor, {"--record", timeline});
    ASSERT_TRUE(Control(sim::kCtlSetValue, g_variant_new("(ss)", subject.c_str(), "{\"c\":1}")));
    ASSERT_TRUE(Control(sim::kCtlSetResultCode, g_variant_new("(si)", subject.c_str(), -7)));
    const std::string read = RawRequest("RequestSync", 1, 1, subject).Print();
    const std::string request = RawRequest("RequestAsync", 5, 1, subject).Print();
    ASSERT_EQ("(-7, '{\"c\":1}')", read);
    ASSERT_EQ("(-7, '" + subject + "', <('{\"c\":1}',)>)", request);
    // A subscription is answered (0, "{}"): that is not the subject's value.
    ASSERT_EQ("(0, '{}')", RawRequest("RequestSync", 3, 1, subscribed).Print());
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
    EXPECT_EQ(read, RawRequest("RequestSync", 1, 1, subject).Print());
    EXPECT_EQ(request, RawRequest("RequestAsync", 5, 1, subject).Print());
    EXPECT_EQ(scenarioAnswer, RawRequest("RequestSync", 1, 1, subscribed).Print());
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
    const std::string enable = Raw("ServiceEnable", nullptr).Print();
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
    EXPECT_EQ(enable, Raw("ServiceEnable", nullptr).Print());
    CallResult replayedPayload = RawRequest("RequestAsync", 5, 1, app);
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

TEST_F(MonitorTest, AMethodOutsideTheWireContractIsUndecodableWithItsMemberAndItsErrorAnswer) {
    ChildProcess monitor;
    StartMonitor(monitor, {"--json"});
    // The request tuple of a read, under a name the service does not have.
    CallResult frobnicate = Raw("Frobnicate", g_variant_new("(iiiss)", 1, 1, 108, "X/Y", ""));
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", frobnicate.errorName) << frobnicate.Print();
    Sentinel(monitor);
    std::vector<Json::Value> lines = JsonLines(StopMonitor(monitor));

    EXPECT_TRUE(Events(lines, "call", "X/Y").empty()) << monitor.Out();
    auto odd = With(Events(lines, "undecodable"), "member", "Frobnicate");
    ASSERT_EQ(1u, odd.size()) << monitor.Out();
    EXPECT_EQ("iiiss", odd[0]["signature"].asString());
    EXPECT_EQ(OwnName(), odd[0]["sender"].asString());
    EXPECT_EQ(OwnProcessName(), odd[0]["process"].asString());
    auto answers = AnswersTo(lines, odd[0]);
    ASSERT_EQ(1u, answers.size()) << monitor.Out();
    EXPECT_EQ("error", answers[0]["event"].asString());
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", answers[0]["error"].asString());
    EXPECT_EQ("undecodable", answers[0]["type"].asString());
    EXPECT_EQ("Frobnicate", answers[0]["member"].asString());
    EXPECT_TRUE(answers[0].isMember("latency_ms"));
}

TEST_F(MonitorTest, AMethodAndRequestTypeTheContractDoesNotPairAreUndecodableWithTheirErrorAnswers) {
    ChildProcess monitor;
    StartMonitor(monitor, {"--json"});
    const std::vector<std::pair<std::string, int>> pairs = {
        {"RequestSync", 2},  {"RequestSync", 5}, {"RequestSync", 7}, {"RequestAsync", 1},
        {"RequestAsync", 3}, {"Write", 1},       {"Write", 7},       {"RequestSync", 0},
    };
    for (size_t i = 0; i < pairs.size(); ++i) {
        const auto& [member, type] = pairs[i];
        CallResult call = RawRequest(member.c_str(), type, 200 + static_cast<int>(i), "Odd/Pair/" + std::to_string(i));
        EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", call.errorName) << member << " " << type;
    }
    // The pairs of the contract, beside them, keep their names.
    ASSERT_TRUE(RawRequest("RequestSync", 1, 300, "Good/Read").Ok());
    ASSERT_TRUE(RawRequest("RequestAsync", 5, 301, "Good/Request").Ok());
    Sentinel(monitor);
    std::vector<Json::Value> lines = JsonLines(StopMonitor(monitor));

    for (size_t i = 0; i < pairs.size(); ++i) {
        const auto& [member, type] = pairs[i];
        std::string subject = "Odd/Pair/" + std::to_string(i);
        EXPECT_TRUE(Events(lines, "call", subject).empty()) << member << " " << type;
        auto odd = Events(lines, "undecodable", subject);
        ASSERT_EQ(1u, odd.size()) << member << " " << type << "\n" << monitor.Out();
        EXPECT_EQ(member, odd[0]["member"].asString());
        EXPECT_EQ("iiiss", odd[0]["signature"].asString());
        EXPECT_EQ(type, odd[0]["request_type"].asInt());
        EXPECT_EQ(200 + static_cast<int>(i), odd[0]["id"].asInt());
        auto answers = AnswersTo(lines, odd[0]);
        ASSERT_EQ(1u, answers.size()) << member << " " << type;
        EXPECT_EQ("error", answers[0]["event"].asString());
        EXPECT_EQ("org.freedesktop.DBus.Error.InvalidArgs", answers[0]["error"].asString());
        EXPECT_EQ(type, answers[0]["request_type"].asInt());
    }
    ASSERT_EQ(1u, Events(lines, "call", "Good/Read").size());
    EXPECT_EQ("read", Events(lines, "call", "Good/Read")[0]["type"].asString());
    ASSERT_EQ(1u, Events(lines, "call", "Good/Request").size());
    EXPECT_EQ("request", Events(lines, "call", "Good/Request")[0]["type"].asString());
    for (const Json::Value& line : lines) {
        if (!line.isMember("type")) continue;
        EXPECT_EQ(1u, kTypeNames.count(line["type"].asString())) << line;
    }
}

TEST_F(MonitorTest, TextLinesNameUndecodableMembersAndEscapeControlCharacters) {
    ChildProcess monitor, json;
    StartMonitor(monitor, {});
    StartMonitor(json, {"--json"});
    CallResult frobnicate = Raw("Frobnicate", g_variant_new("(iiiss)", 1, 1, 108, "X/Y", ""));
    EXPECT_FALSE(frobnicate.Ok());
    const std::string subject =
        "Ctl/A\nB\x1b[2JC\aD\rE\x7f"
        "F\x01G";
    ASSERT_TRUE(RawRequest("RequestSync", 1, 5, subject, "in\tput\x1b]0;title\a").Ok());
    Sentinel(monitor);
    Sentinel(json);
    std::string out = StopMonitor(monitor);

    // JSON escapes them its own way, and gives them back as they were.
    auto calls = Events(JsonLines(StopMonitor(json)), "call", subject);
    ASSERT_EQ(1u, calls.size()) << json.Out();
    EXPECT_EQ("in\tput\x1b]0;title\a", calls[0]["input"].asString());
    for (unsigned char c : json.Out()) EXPECT_FALSE((c < 0x20 && c != '\n') || c == 0x7f) << static_cast<int>(c);

    for (unsigned char c : out) {
        EXPECT_FALSE((c < 0x20 && c != '\n') || c == 0x7f) << "a control character " << static_cast<int>(c) << " in\n"
                                                           << out;
    }
    std::vector<std::string> lines = TextLines(out);
    size_t undecodable = 0, refused = 0, escaped = 0;
    for (const std::string& line : lines) {
        if (line.find(" undecodable Frobnicate(iiiss) ") != std::string::npos) {
            // The call, and the error answer to it.
            ++(line.find("org.freedesktop.DBus.Error.UnknownMethod") != std::string::npos ? refused : undecodable);
        }
        if (line.find("Ctl/A\\nB\\x1b[2JC\\x07D\\rE\\x7f"
                      "F\\x01G") != std::string::npos) {
            ++escaped;
            if (line.find(" call ") != std::string::npos) {
                EXPECT_NE(std::string::npos, line.find("in\\tput\\x1b]0;title\\x07")) << line;
            }
        }
    }
    EXPECT_EQ(1u, undecodable) << out;
    EXPECT_EQ(1u, refused) << out;
    EXPECT_EQ(2u, escaped) << "the call and its answer, one line each:\n" << out;
}

TEST_F(MonitorTest, OnAnEightyColumnTerminalOnlyTheDataIsCut) {
    std::string value = "{\"Source\":\"" + std::string(300, 'v') + "\"}";
    ASSERT_TRUE(Control(sim::kCtlSetValue, g_variant_new("(ss)", "Ctx/Media/Source/Info/Current", value.c_str())));
    TerminalMonitor narrow, wide;
    for (auto [monitor, columns] : {std::pair{&narrow, 80}, std::pair{&wide, 120}}) {
        ASSERT_TRUE(monitor->Start({}, static_cast<unsigned short>(columns)));
        ASSERT_TRUE(
            monitor->ReadUntil([](const std::string& text) { return text.find("lumora: monitoring") == 0; }, kWaitMs))
            << monitor->Text();
    }
    const std::string input = "{\"Detail\":\"" + std::string(200, 'i') + "\"}";
    ASSERT_TRUE(RawRequest("RequestSync", 1, 21, "Ctx/Media/Source/Info/Current", input).Ok());
    Sentinel(narrow);
    Sentinel(wide);
    for (auto [monitor, columns] : {std::pair{&narrow, 80u}, std::pair{&wide, 120u}}) {
        ASSERT_EQ(0, monitor->Stop());
        size_t calls = 0, answers = 0;
        for (const std::string& line : TextLines(monitor->Text())) {
            if (line.find("#21") == std::string::npos) continue;
            // The data gives way: down to "..." when what stays is wider
            // than the terminal by itself (it then wraps).
            bool narrowest = line.find(" ... ") != std::string::npos ||
                             (line.size() >= 4 && line.compare(line.size() - 4, 4, " ...") == 0);
            EXPECT_TRUE(Columns(line) <= columns || narrowest) << columns << ": " << line;
            EXPECT_NE(std::string::npos, line.find("#21 Ctx/Media/Source/Info/Current ")) << line;
            EXPECT_NE(std::string::npos, line.find("...")) << line;
            if (line.find(" call ") != std::string::npos) {
                ++calls;
                EXPECT_EQ(std::string::npos, line.find(input)) << line;
                if (columns == 120) {
                    EXPECT_LE(Columns(line), columns) << line;
                    EXPECT_NE(std::string::npos, line.find("{\"Detail\":\"iii")) << line;
                }
            }
            if (line.find(" answer ") != std::string::npos) {
                ++answers;
                EXPECT_NE(std::string::npos, line.find(" -> 0 ")) << line;
                EXPECT_TRUE(std::regex_search(line, std::regex(" \\([0-9]+\\.[0-9] ms\\)$"))) << line;
                if (columns == 120) {
                    EXPECT_LE(Columns(line), columns) << line;
                    EXPECT_NE(std::string::npos, line.find(" -> 0 {\"Source\":\"vvv")) << line;
                }
            }
        }
        EXPECT_EQ(1u, calls) << monitor->Text();
        EXPECT_EQ(1u, answers) << monitor->Text();
    }
}

TEST_F(MonitorTest, DurationTwoStopsWithinFiftyMillisecondsOfTwoSeconds) {
    for (int run = 0; run < 3; ++run) {
        ChildProcess monitor;
        auto started = Clock::now();
        ASSERT_TRUE(monitor.Start(CliExecutable(), {"monitor", "--json", "--summary", "--duration", "2"}));
        ASSERT_EQ(0, monitor.Wait(kWaitMs)) << monitor.Err();
        double wallMs = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
        std::vector<Json::Value> lines = JsonLines(monitor.Out());
        ASSERT_FALSE(lines.empty());
        double seconds = lines.back()["seconds"].asDouble();
        // From its start to its end, as the monitor measures it; the whole
        // process adds its start-up and end.
        EXPECT_GE(seconds, 2.0) << "run " << run;
        EXPECT_LT(seconds, 2.05) << "run " << run;
        EXPECT_GE(wallMs, 2000.0) << "run " << run;
        // Starting and ending a process built with a sanitizer takes about a
        // second of its own; the monitor's figure above is the exact one.
        EXPECT_LT(wallMs, 4000.0) << "run " << run;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // another phase of the clock's second
    }
}

TEST_F(MonitorTest, ANotificationToAnAppSeenMakingNoCallNamesItsReceiver) {
    // The subscriber's calls go before the monitors start.
    ChildProcess subscriber;
    ASSERT_TRUE(subscriber.Start(CliExecutable(), {"subscribe", "Ctx/Sound/Volume/Level/Changed"}));
    ASSERT_TRUE(WaitUntil([&] { return Subscribers("Ctx/Sound/Volume/Level/Changed") == 1; }, kWaitMs));
    const pid_t subscriberPid = subscriber.Pid();
    ChildProcess all, byProcess;
    StartMonitor(all, {"--json"});
    StartMonitor(byProcess, {"--json", "--process", "lumora", "--process", OwnProcessName()});
    ASSERT_TRUE(Control(sim::kCtlEmit, g_variant_new("(ss)", "Ctx/Sound/Volume/Level/Changed", "{\"Level\":9}")));
    std::string heard;
    ASSERT_TRUE(subscriber.ReadLine(heard, kWaitMs));
    Sentinel(all);
    Sentinel(byProcess);
    subscriber.Signal(SIGTERM);
    subscriber.Wait(kWaitMs);

    for (ChildProcess* monitor : {&all, &byProcess}) {
        std::vector<Json::Value> lines = JsonLines(StopMonitor(*monitor));
        auto signals = Events(lines, "signal", "Ctx/Sound/Volume/Level/Changed");
        ASSERT_EQ(1u, signals.size()) << monitor->Out();
        EXPECT_EQ("lumora", signals[0]["process"].asString()) << signals[0];
        EXPECT_EQ(subscriberPid, signals[0]["pid"].asInt()) << signals[0];
        EXPECT_TRUE(signals[0]["destination"].isString()) << signals[0];
    }
}

TEST_F(MonitorTest, ShortLivedCallersKeepTheirProcessNamesWhileTheMonitorLags) {
    ChildProcess monitor;
    StartMonitor(monitor, {"--json"});
    // An answer of 300 kB: the monitor's writing of it blocks on the pipe,
    // which the test does not read for now, while the bus goes on.
    const std::string big = "\"" + std::string(300000, 'b') + "\"";
    ASSERT_TRUE(Control(sim::kCtlSetValue, g_variant_new("(ss)", "Test/Big", big.c_str())));
    ASSERT_TRUE(RawRequest("RequestSync", 1, 1, "Test/Big").Ok());
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, Lumora({"read", "Ctx/App/Info/Current"}).exitStatus);
    ASSERT_EQ(0, Lumora({"write", "Test/Lag", "{\"n\":1}"}).exitStatus);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // all of them are gone
    Sentinel(monitor);
    std::vector<Json::Value> lines = JsonLines(StopMonitor(monitor));

    size_t fromLumora = 0;
    for (const Json::Value& call : Events(lines, "call")) {
        if (call["sender"] == OwnName()) continue;
        ++fromLumora;
        EXPECT_EQ("lumora", call["process"].asString()) << call;
        EXPECT_GT(call["pid"].asInt(), 0) << call;
    }
    EXPECT_EQ(8u, fromLumora) << "an enable, then a read or a write, of each lumora process\n" << monitor.Out();
}

TEST_F(MonitorTest, WhatCannotBeLearntOfAGoneCallerIsShownAsUnknown) {
    ChildProcess json, text;
    StartMonitor(json, {"--json"});
    StartMonitor(text, {});
    // Both monitors stand still while a client comes, calls and goes.
    ASSERT_TRUE(json.Signal(SIGSTOP));
    ASSERT_TRUE(text.Signal(SIGSTOP));
    ASSERT_EQ(0, Lumora({"read", "Ctx/App/Info/Current"}).exitStatus);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(json.Signal(SIGCONT));
    ASSERT_TRUE(text.Signal(SIGCONT));
    Sentinel(json);
    Sentinel(text);

    std::vector<Json::Value> lines = JsonLines(StopMonitor(json));
    auto gone = Events(lines, "call");
    gone.erase(
        std::remove_if(gone.begin(), gone.end(), [&](const Json::Value& call) { return call["sender"] == OwnName(); }),
        gone.end());
    ASSERT_EQ(2u, gone.size()) << json.Out();
    EXPECT_EQ("enable", gone[0]["type"].asString());
    for (const Json::Value& call : gone) {
        EXPECT_EQ("unknown", call["process"].asString()) << call;
        EXPECT_TRUE(call["pid"].isNull()) << call;
    }
    std::string out = StopMonitor(text);
    size_t enables = 0;
    for (const std::string& line : TextLines(out)) {
        if (line.find(" enable ") == std::string::npos) continue;
        ++enables;
        EXPECT_NE(std::string::npos, line.find(" unknown")) << line;
        EXPECT_EQ(std::string::npos, line.find("[0]")) << line;
        EXPECT_EQ(std::string::npos, line.find(" [")) << line;
    }
    EXPECT_EQ(2u, enables) << "the call and its answer\n" << out;
}

TEST_F(MonitorTest, AWriteWhoseCallerWaitsShowsItsAnswerAndOneWhoseCallerDoesNotIsNotUnanswered) {
    ChildProcess monitor;
    StartMonitor(monitor, {"--json"});
    CallResult waited = RawRequest("Write", 2, 41, "Test/Written", "{\"n\":1}");
    ASSERT_TRUE(waited.Ok()) << waited.Print();
    ASSERT_EQ(0, Lumora({"write", "Test/Queued", "{\"n\":2}"}).exitStatus);
    Sentinel(monitor);
    std::vector<Json::Value> lines = JsonLines(StopMonitor(monitor));

    auto written = Events(lines, "call", "Test/Written");
    ASSERT_EQ(1u, written.size()) << monitor.Out();
    EXPECT_EQ("write", written[0]["type"].asString());
    auto answers = AnswersTo(lines, written[0]);
    ASSERT_EQ(1u, answers.size()) << monitor.Out();
    EXPECT_EQ("answer", answers[0]["event"].asString());
    EXPECT_GE(answers[0]["latency_ms"].asDouble(), 0.0);
    auto queued = Events(lines, "call", "Test/Queued");
    ASSERT_EQ(1u, queued.size()) << monitor.Out();
    EXPECT_TRUE(queued[0]["no_reply"].asBool()) << queued[0];
    EXPECT_TRUE(AnswersTo(lines, queued[0]).empty());
    EXPECT_TRUE(Events(lines, "unanswered").empty()) << monitor.Out();
    EXPECT_TRUE(Events(lines, "timeout").empty()) << monitor.Out();
}

TEST_F(MonitorTest, AnAnswerAfterTheTwentyFiveSecondTimeoutIsStillShownAsLate) {
    ChildProcess monitor;
    StartMonitor(monitor, {"--json"});
    ASSERT_TRUE(Control(sim::kCtlStopAnswering));
    CallResult late;
    std::thread caller([&] { late = RawRequest("RequestSync", 1, 77, "Ctx/App/Info/Current", "", 60000); });
    bool timedOut = WaitUntil([&] { return monitor.Out().find("\"event\":\"timeout\"") != std::string::npos; }, 30000);
    EXPECT_TRUE(Control(sim::kCtlResumeAnswering));
    caller.join();
    ASSERT_TRUE(timedOut) << monitor.Out();
    // The caller waited longer than the monitor's 25 s and got its answer.
    ASSERT_TRUE(late.Ok()) << late.Print();
    Sentinel(monitor);
    std::vector<Json::Value> lines = JsonLines(StopMonitor(monitor));

    auto calls = Events(lines, "call", "Ctx/App/Info/Current");
    ASSERT_EQ(1u, calls.size()) << monitor.Out();
    ASSERT_EQ(1u, Events(lines, "timeout", "Ctx/App/Info/Current").size());
    auto answers = AnswersTo(lines, calls[0]);
    ASSERT_EQ(1u, answers.size()) << monitor.Out();
    EXPECT_TRUE(answers[0]["late"].asBool()) << answers[0];
    EXPECT_GT(answers[0]["latency_ms"].asDouble(), 25000.0) << answers[0];
    EXPECT_EQ(0, answers[0]["code"].asInt());
}

TEST_F(MonitorTest, IntrospectionPingAndPropertiesOfTheServiceObjectAreNamedAsWhatTheyAre) {
    ChildProcess monitor;
    StartMonitor(monitor, {"--json"});
    ASSERT_TRUE(Raw("Introspect", nullptr, "org.freedesktop.DBus.Introspectable").Ok());
    ASSERT_TRUE(Raw("Ping", nullptr, "org.freedesktop.DBus.Peer").Ok());
    ASSERT_TRUE(Raw("GetMachineId", nullptr, "org.freedesktop.DBus.Peer").Ok());
    ASSERT_TRUE(Raw("GetAll", g_variant_new("(s)", kServiceInterface), "org.freedesktop.DBus.Properties").Ok());
    CallResult get = Raw("Get", g_variant_new("(ss)", kServiceInterface, "Nothing"), "org.freedesktop.DBus.Properties");
    EXPECT_FALSE(get.Ok());
    Sentinel(monitor);
    std::vector<Json::Value> lines = JsonLines(StopMonitor(monitor));

    EXPECT_TRUE(Events(lines, "undecodable").empty()) << monitor.Out();
    const std::vector<std::pair<std::string, std::string>> expected = {{"introspect", "answer"},
                                                                       {"ping", "answer"},
                                                                       {"machine-id", "answer"},
                                                                       {"properties", "answer"},
                                                                       {"properties", "error"}};
    std::vector<Json::Value> calls = With(Events(lines, "call"), "sender", OwnName());
    ASSERT_EQ(expected.size() + 1, calls.size()) << "and the sentinel\n" << monitor.Out();
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i].first, calls[i]["type"].asString()) << calls[i];
        auto answers = AnswersTo(lines, calls[i]);
        ASSERT_EQ(1u, answers.size()) << calls[i];
        EXPECT_EQ(expected[i].second, answers[0]["event"].asString()) << answers[0];
    }
    EXPECT_EQ("GetAll", calls[3]["member"].asString());
    EXPECT_EQ("Get", calls[4]["member"].asString());
}

TEST_F(MonitorTest, SignalsNameTheirSenderAndThoseNotFromTheServicesOwnerSaySo) {
    ChildProcess json, text;
    StartMonitor(json, {"--json"});
    StartMonitor(text, {"--full"});
    std::string owner = ServiceOwner();
    pid_t simPid = m_sim.Pid();
    std::string simProcess = Comm(simPid);
    ASSERT_TRUE(RawRequest("RequestSync", 3, 1, "Test/Notified", "{}").Ok());  // the test's connection subscribes
    ASSERT_TRUE(Control(sim::kCtlEmit, g_variant_new("(ss)", "Test/Notified", "{\"n\":1}")));
    // The same signal, and the service's two control words, from someone else.
    auto forge = [&](const char* subject, const char* data, const char* destination) {
        ASSERT_TRUE(g_dbus_connection_emit_signal(m_control, destination, kServicePath, kServiceInterface, "Response",
                                                  g_variant_new("(iss)", 0, subject, data), nullptr));
    };
    forge("Test/Notified", "{\"n\":2}", OwnName().c_str());
    forge("HELLO", "{\"WhiteList\":[\"forged\"]}", nullptr);
    forge("BYE", "", nullptr);
    // Another owner of the name: the simulator started again.
    m_sim.Stop();
    ASSERT_TRUE(m_sim.Start());
    std::string newOwner = ServiceOwner();
    ASSERT_NE(owner, newOwner);
    ASSERT_TRUE(RawRequest("RequestSync", 3, 2, "Test/Notified", "{}").Ok());
    ASSERT_TRUE(Control(sim::kCtlEmit, g_variant_new("(ss)", "Test/Notified", "{\"n\":3}")));
    Sentinel(json);
    Sentinel(text);
    std::vector<Json::Value> lines = JsonLines(StopMonitor(json));

    auto signals = Events(lines, "signal", "Test/Notified");
    ASSERT_EQ(3u, signals.size()) << json.Out();
    EXPECT_EQ(owner, signals[0]["sender"].asString());
    EXPECT_EQ(simPid, signals[0]["sender_pid"].asInt());
    EXPECT_EQ(simProcess, signals[0]["sender_process"].asString());
    EXPECT_TRUE(signals[0]["from_service"].asBool()) << signals[0];
    EXPECT_EQ(OwnName(), signals[1]["sender"].asString());
    EXPECT_EQ(OwnProcessName(), signals[1]["sender_process"].asString());
    EXPECT_EQ(getpid(), signals[1]["sender_pid"].asInt());
    EXPECT_FALSE(signals[1]["from_service"].asBool()) << signals[1];
    EXPECT_TRUE(signals[1]["from_service"].isBool()) << signals[1];
    EXPECT_EQ(newOwner, signals[2]["sender"].asString());
    EXPECT_EQ(m_sim.Pid(), signals[2]["sender_pid"].asInt());
    EXPECT_TRUE(signals[2]["from_service"].asBool()) << signals[2];
    for (const char* word : {"hello", "bye"}) {
        auto said = Events(lines, word);
        // The forged one, then the old simulator's (bye) or the new one's (hello).
        ASSERT_EQ(2u, said.size()) << word << "\n" << json.Out();
        const Json::Value& forged = said[0]["sender"] == OwnName() ? said[0] : said[1];
        const Json::Value& real = said[0]["sender"] == OwnName() ? said[1] : said[0];
        EXPECT_FALSE(forged["from_service"].asBool()) << forged;
        EXPECT_TRUE(forged["from_service"].isBool()) << forged;
        EXPECT_TRUE(real["from_service"].asBool()) << real;
    }

    size_t marked = 0, unmarked = 0;
    for (const std::string& line : TextLines(StopMonitor(text))) {
        if (line.find(" signal ") == std::string::npos && line.find(" hello ") == std::string::npos &&
            line.find(" bye ") == std::string::npos)
            continue;
        bool forged = line.find(OwnName() + " ") != std::string::npos;
        EXPECT_EQ(forged, line.find("(not from the service)") != std::string::npos) << line;
        EXPECT_NE(std::string::npos, line.find(forged ? OwnProcessName() + "[" : "[")) << line;
        (forged ? marked : unmarked) += 1;
    }
    EXPECT_EQ(3u, marked) << text.Out();
    EXPECT_EQ(4u, unmarked) << text.Out();
}

TEST_F(MonitorTest, TimesAreMillisecondsWithThreeDecimalsAndDataKeepsItsDigits) {
    const std::string timeline = m_dir.File("times.jsonl");
    ASSERT_TRUE(Control(sim::kCtlSetValue, g_variant_new("(ss)", "Test/Digits", "{\"x\":1234567.25,\"y\":0.1}")));
    ChildProcess monitor;
    StartMonitor(monitor, {"--json", "--record", timeline});
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // times past a second: more digits before the point
    ASSERT_TRUE(RawRequest("RequestSync", 1, 1, "Test/Digits").Ok());
    Sentinel(monitor);
    std::string out = StopMonitor(monitor);

    const std::regex times("\"(t_ms|latency_ms)\":([^,}]*)");
    std::ifstream recorded(timeline);
    std::string text((std::istreambuf_iterator<char>(recorded)), std::istreambuf_iterator<char>());
    size_t checked = 0;
    for (const std::string* source : {&out, &text}) {
        for (const std::string& line : TextLines(*source)) {
            for (auto it = std::sregex_iterator(line.begin(), line.end(), times); it != std::sregex_iterator(); ++it) {
                ++checked;
                EXPECT_TRUE(std::regex_match((*it)[2].str(), std::regex("[0-9]+\\.[0-9]{3}"))) << line;
            }
        }
    }
    EXPECT_GE(checked, 8u) << out << text;
    std::vector<Json::Value> lines = JsonLines(out);
    auto answers = Events(lines, "answer", "Test/Digits");
    ASSERT_EQ(1u, answers.size()) << out;
    EXPECT_GT(answers[0]["t_ms"].asDouble(), 1000.0);
    EXPECT_EQ(1234567.25, answers[0]["data"]["x"].asDouble()) << answers[0];
    EXPECT_EQ(0.1, answers[0]["data"]["y"].asDouble()) << answers[0];
}

TEST_F(MonitorTest, TheSummarysMedianOfTwoIsTheirMeanAndErrorAnswersAreCountedApart) {
    ChildProcess json, text;
    StartMonitor(json, {"--json", "--summary"});
    StartMonitor(text, {"--summary"});
    ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", "Test/Slow", 150u)));
    ASSERT_TRUE(RawRequest("RequestSync", 1, 1, "Test/Slow").Ok());
    ASSERT_TRUE(Control(sim::kCtlSetDelay, g_variant_new("(su)", "Test/Slow", 0u)));
    ASSERT_TRUE(RawRequest("RequestSync", 1, 2, "Test/Slow").Ok());
    EXPECT_FALSE(RawRequest("RequestSync", 7, 3, "Test/Slow").Ok());
    Sentinel(json);
    Sentinel(text);
    std::vector<Json::Value> lines = JsonLines(StopMonitor(json));

    auto answers = Events(lines, "answer", "Test/Slow");
    ASSERT_EQ(2u, answers.size()) << json.Out();
    double slow = answers[0]["latency_ms"].asDouble(), fast = answers[1]["latency_ms"].asDouble();
    EXPECT_GE(slow, 150.0);
    EXPECT_LT(fast, slow);
    ASSERT_EQ("summary", lines.back()["event"].asString());
    const Json::Value& row = lines.back()["subjects"]["Test/Slow"];
    EXPECT_NEAR((slow + fast) / 2, row["latency_ms"]["p50"].asDouble(), 0.002) << row;
    EXPECT_NEAR(slow, row["latency_ms"]["max"].asDouble(), 0.002) << row;
    EXPECT_EQ(2, row["latency_ms"]["answers"].asInt()) << row;
    EXPECT_EQ(1, row["latency_ms"]["not_counted"].asInt()) << row;
    EXPECT_EQ(1, row["errors"].asInt()) << row;

    std::string table = StopMonitor(text);
    bool said = false;
    for (const std::string& line : TextLines(table))
        said = said || (line.find("Test/Slow") == 0 && line.find(" 2 answers") != std::string::npos &&
                        line.find("1 not counted") != std::string::npos);
    EXPECT_TRUE(said) << table;
}

TEST_F(MonitorTest, AMonitorTheBusRefusesLeavesNoTimelineFile) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root, to run the monitor as nobody";
    // A folder that nobody may write in, so that only the refusal can keep
    // the file from being made.
    char name[] = "/tmp/lumora-refused-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    std::string folder = name;
    ASSERT_EQ(0, chmod(folder.c_str(), 0777));
    const std::vector<std::string> asNobody = {"--reuid=nobody", "--regid=nogroup", "--clear-groups"};
    auto run = [&](std::vector<std::string> args) {
        args.insert(args.begin(), asNobody.begin(), asNobody.end());
        return RunProgram("/usr/bin/setpriv", args);
    };
    ASSERT_EQ(0, run({"/usr/bin/touch", folder + "/probe"}).exitStatus);
    ASSERT_TRUE(std::filesystem::exists(folder + "/probe"));

    RunResult refused = run({ShellProgram(CliExecutable()), "monitor", "--record", folder + "/refused.jsonl"});
    EXPECT_EQ(1, refused.exitStatus) << refused.err;
    EXPECT_NE(std::string::npos, refused.err.find("the bus refused monitoring")) << refused.err;
    // What decides: the bus daemon lets root and its own user monitor.
    EXPECT_NE(std::string::npos, refused.err.find("root")) << refused.err;
    EXPECT_EQ(std::string::npos, refused.err.find("private bus")) << refused.err;
    EXPECT_FALSE(std::filesystem::exists(folder + "/refused.jsonl"));
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
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

TEST_F(TimelineTest, TheMonitorsHelpSaysWhoMayMonitorAsTheBusDaemonDecides) {
    RunResult help = Lumora({"monitor", "--help"});
    ASSERT_EQ(0, help.exitStatus);
    std::string text = help.out;
    std::replace(text.begin(), text.end(), '\n', ' ');
    EXPECT_EQ(std::string::npos, text.find("anyone")) << help.out;
    EXPECT_NE(std::string::npos, text.find("root")) << help.out;
    EXPECT_NE(std::string::npos, text.find("the bus daemon's own user")) << help.out;
}

}  // namespace
}  // namespace lumora::test
