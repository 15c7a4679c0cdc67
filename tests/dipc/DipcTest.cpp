// DIPC on a private bus: owning a name, registering the object, answering a
// client and emitting signals, with the exact log lines of every refusal.
#include <gtest/gtest.h>
#include <lumora/lumora-api.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "BusCalls.h"
#include "LogCapture.h"
#include "MainLoopThread.h"
#include "TestBus.h"

namespace {

using lumora::test::CallMethod;
using lumora::test::CallResult;
using lumora::test::LogCapture;
using lumora::test::MainLoopThread;
using lumora::test::PrintVariant;
using lumora::test::SignalRecorder;
using lumora::test::TestBus;
using lumora::test::WaitUntil;

constexpr const char* kName = "org.example.DipcTest";
constexpr const char* kPath = "/org/example/DipcTest";
constexpr const char* kInterface = "org.example.DipcTest";
constexpr const char* kXml =
    "<node><interface name='org.example.DipcTest'>"
    "<method name='Echo'><arg type='s' direction='in'/><arg type='s' direction='out'/></method>"
    "<signal name='Changed'><arg type='s'/></signal>"
    "</interface></node>";
constexpr int kTimeoutMs = 10000;

// What the callbacks saw, written on the server thread and read by the test.
struct Events {
    std::mutex mutex;
    std::vector<std::string> names;  // "bus:<name>", "acquired:<name>", "lost:<name>"
    std::vector<std::string> calls;  // "<sender> <path> <interface>.<method> <parameters>"

    void AddName(const char* event, const char* name) {
        std::lock_guard<std::mutex> lock(mutex);
        names.push_back(std::string(event) + ":" + name);
    }
    void AddCall(const std::string& call) {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back(call);
    }
    std::vector<std::string> Names() {
        std::lock_guard<std::mutex> lock(mutex);
        return names;
    }
    std::vector<std::string> Calls() {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    bool HasName(const std::string& entry) {
        std::vector<std::string> all = Names();
        return std::find(all.begin(), all.end(), entry) != all.end();
    }
};

void OnBusAcquired(const char* name, void* data) { static_cast<Events*>(data)->AddName("bus", name); }
void OnNameAcquired(const char* name, void* data) { static_cast<Events*>(data)->AddName("acquired", name); }
void OnNameLost(const char* name, void* data) { static_cast<Events*>(data)->AddName("lost", name); }

// A tuple whose string is not UTF-8. GLib checks nothing in data marked
// trusted; GDBus would abort on it while writing the message.
GVariant* UntrustworthyTuple() {
    static const char data[] = "ab\xff";  // (s): the string and its NUL
    return g_variant_new_from_data(G_VARIANT_TYPE("(s)"), data, sizeof data, TRUE, nullptr, nullptr);
}

// Answers Echo(text) with "echo:" + text through Lumora_DIPC_SendData; the
// texts "not-a-tuple" and "not-utf8" get a reply that cannot be sent.
void OnMethodCall(const char* sender, const char* path, const char* interface, const char* method, GVariant* parameters,
                  GDBusMethodInvocation* invocation, void* data) {
    static_cast<Events*>(data)->AddCall(std::string(sender) + " " + path + " " + interface + "." + method + " " +
                                        PrintVariant(parameters));
    const gchar* text = nullptr;
    g_variant_get(parameters, "(&s)", &text);
    GVariant* reply = nullptr;
    if (strcmp(text, "not-a-tuple") == 0) {
        reply = g_variant_new_string("bare");
    } else if (strcmp(text, "not-utf8") == 0) {
        reply = UntrustworthyTuple();
    } else {
        reply = g_variant_new("(s)", (std::string("echo:") + text).c_str());
    }
    Lumora_DIPC_SendData(invocation, reply);
}

const LumoraDIPCCallbacks kCallbacks = {OnBusAcquired, OnNameLost, OnNameAcquired, OnMethodCall};

class DipcTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.Start());
        m_shared = lumora::test::SharedSystemBusKeptAlive();
        m_client = lumora::test::ConnectToBus(m_bus.Address());
        ASSERT_NE(nullptr, m_client);
    }
    void TearDown() override {
        m_server.Invoke([&] {
            if (m_handle != nullptr) Lumora_DIPC_Stop(&m_handle);
        });
        m_server.Stop();
        if (m_client != nullptr) g_object_unref(m_client);
        if (m_shared != nullptr) g_object_unref(m_shared);
    }

    // Starts the publisher on the server thread, so that its callbacks run there.
    LumoraDIPCHandle* Start(const char* process, const char* path = kPath, const char* xml = kXml) {
        LumoraDIPCHandle* handle = nullptr;
        m_server.Invoke([&] { handle = Lumora_DIPC_Start(process, 1, kName, path, xml, &m_events, kCallbacks); });
        return handle;
    }
    bool StartAndWaitForTheName(const char* path = kPath) {
        m_handle = Start("lumora-service-test", path);
        return m_handle != nullptr &&
               WaitUntil([&] { return m_events.HasName(std::string("acquired:") + kName); }, kTimeoutMs);
    }
    bool Publish(const char* destination, const char* text) {
        bool sent = false;
        m_server.Invoke([&] {
            sent = Lumora_DIPC_Publish(m_handle, destination, g_variant_new("(s)", text), kInterface, "Changed");
        });
        return sent;
    }
    CallResult Echo(const std::string& path, const char* text) {
        return CallMethod(m_client, kName, path.c_str(), kInterface, "Echo", g_variant_new("(s)", text));
    }

    LogCapture m_log;
    TestBus m_bus;
    Events m_events;
    GDBusConnection* m_shared = nullptr;
    GDBusConnection* m_client = nullptr;
    LumoraDIPCHandle* m_handle = nullptr;
    // Last, as in SignalRecorder: its thread starts once the rest exists.
    MainLoopThread m_server{true};
};

TEST_F(DipcTest, StartIsRefusedForTheAgentProcess) {
    EXPECT_EQ(nullptr, Start("lumora-agent"));
    auto records = m_log.Find("the process name(lumora-agent) is not permitted", 'E');
    ASSERT_EQ(1u, records.size()) << m_log.Dump();
    EXPECT_EQ("LMF_API", records[0].tag);
    EXPECT_EQ("LMFDIPC_managed.cpp", records[0].file);
    EXPECT_EQ("Lumora_DIPC_Start", records[0].function);
    EXPECT_FALSE(lumora::test::NameHasOwner(m_client, kName));
}

TEST_F(DipcTest, StartIsRefusedForANameThatOnlyResemblesTheService) {
    EXPECT_EQ(nullptr, Start("lumora-service-tests"));
    EXPECT_EQ(nullptr, Start("Lumora-Service"));
    EXPECT_TRUE(m_log.Has("the process name(lumora-service-tests) is not permitted", 'E')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("the process name(Lumora-Service) is not permitted", 'E')) << m_log.Dump();
}

TEST_F(DipcTest, BothServiceProcessNamesMayStart) {
    m_handle = Start("lumora-service");
    ASSERT_NE(nullptr, m_handle);
    m_server.Invoke([&] { EXPECT_TRUE(Lumora_DIPC_Stop(&m_handle)); });
    m_handle = Start("lumora-service-test");
    EXPECT_NE(nullptr, m_handle);
    EXPECT_TRUE(m_log.Records().empty()) << m_log.Dump();
}

TEST_F(DipcTest, InvalidIntrospectionXmlFailsWithGetNodeFailed) {
    EXPECT_EQ(nullptr, Start("lumora-service", kPath, "<node><interface name='x'>"));
    EXPECT_EQ(1u, m_log.Count("get node failed", 'E')) << m_log.Dump();
    EXPECT_FALSE(lumora::test::NameHasOwner(m_client, kName));
}

TEST_F(DipcTest, TheNameIsAcquiredAfterTheBusAndCallbacksGetTheUserData) {
    ASSERT_TRUE(StartAndWaitForTheName());
    std::vector<std::string> expected = {std::string("bus:") + kName, std::string("acquired:") + kName};
    EXPECT_EQ(expected, m_events.Names());
    EXPECT_TRUE(lumora::test::NameHasOwner(m_client, kName));
}

TEST_F(DipcTest, AClientCallGetsTheAnswerSentWithSendData) {
    ASSERT_TRUE(StartAndWaitForTheName());
    CallResult result = Echo(kPath, "hello");
    ASSERT_TRUE(result.Ok()) << result.Print();
    EXPECT_EQ("('echo:hello',)", result.Print());
    std::vector<std::string> calls = m_events.Calls();
    ASSERT_EQ(1u, calls.size());
    std::string sender = g_dbus_connection_get_unique_name(m_client);
    EXPECT_EQ(sender + " " + kPath + " " + kInterface + ".Echo ('hello',)", calls[0]);
}

TEST_F(DipcTest, ASixtyCharacterPathIsRegisteredAsItsFirstFortyNine) {
    const std::string path60 = "/org/example/dipc/" + std::string(42, 'a');
    const std::string path49 = path60.substr(0, 49);
    ASSERT_EQ(60u, path60.size());
    ASSERT_TRUE(StartAndWaitForTheName(path60.c_str()));
    CallResult cut = Echo(path49, "short");
    ASSERT_TRUE(cut.Ok()) << cut.Print();
    EXPECT_EQ("('echo:short',)", cut.Print());
    CallResult full = Echo(path60, "long");
    EXPECT_FALSE(full.Ok());
    EXPECT_EQ(1u, m_events.Calls().size());
    // The record's address doubles as the path string.
    EXPECT_EQ(path49, reinterpret_cast<const char*>(m_handle));
}

TEST_F(DipcTest, PublishBeforeTheNameIsAcquiredFails) {
    bool sent = true;
    m_server.Invoke([&] {
        // Same turn of the server loop: no name event can have run yet.
        m_handle = Lumora_DIPC_Start("lumora-service", 1, kName, kPath, kXml, &m_events, kCallbacks);
        sent = Lumora_DIPC_Publish(m_handle, nullptr, g_variant_new("(s)", "early"), kInterface, "Changed");
    });
    ASSERT_NE(nullptr, m_handle);
    EXPECT_FALSE(sent);
    auto records = m_log.Find("connection is not valid!!!", 'E');
    ASSERT_EQ(1u, records.size()) << m_log.Dump();
    EXPECT_EQ("Lumora_DIPC_Publish", records[0].function);
}

TEST_F(DipcTest, APublishedSignalReachesASubscriber) {
    ASSERT_TRUE(StartAndWaitForTheName());
    SignalRecorder recorder(m_bus.Address(), kName, kInterface, "Changed", kPath);
    ASSERT_TRUE(Publish(nullptr, "news"));
    ASSERT_TRUE(recorder.WaitForCount(1, kTimeoutMs));
    std::vector<lumora::test::ReceivedSignal> signals = recorder.Signals();
    ASSERT_EQ(1u, signals.size());
    EXPECT_EQ(kPath, signals[0].path);
    EXPECT_EQ("Changed", signals[0].member);
    EXPECT_EQ("('news',)", PrintVariant(signals[0].parameters.get()));
}

TEST_F(DipcTest, ASignalWithADestinationReachesOnlyThatClient) {
    ASSERT_TRUE(StartAndWaitForTheName());
    SignalRecorder addressed(m_bus.Address(), kName, kInterface, "Changed", kPath);
    SignalRecorder other(m_bus.Address(), kName, kInterface, "Changed", kPath);
    ASSERT_TRUE(Publish(addressed.UniqueName().c_str(), "for-you"));
    ASSERT_TRUE(Publish(nullptr, "for-all"));
    ASSERT_TRUE(addressed.WaitForCount(2, kTimeoutMs));
    ASSERT_TRUE(other.WaitForCount(1, kTimeoutMs));
    EXPECT_EQ(2u, addressed.Signals().size());
    std::vector<lumora::test::ReceivedSignal> seen = other.Signals();
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ("('for-all',)", PrintVariant(seen[0].parameters.get()));
}

TEST_F(DipcTest, PublishWithoutAHandleFails) {
    EXPECT_FALSE(Lumora_DIPC_Publish(nullptr, nullptr, g_variant_new("(s)", "x"), kInterface, "Changed"));
    EXPECT_EQ(1u, m_log.Count("handle is NULL!!!", 'E')) << m_log.Dump();
}

TEST_F(DipcTest, PublishOnAClosedConnectionLogsGiosMessage) {
    ASSERT_TRUE(StartAndWaitForTheName());
    ASSERT_TRUE(g_dbus_connection_close_sync(m_shared, nullptr, nullptr));
    EXPECT_FALSE(Publish(nullptr, "late"));
    EXPECT_EQ(1u, m_log.Count("Error: The connection is closed", 'E')) << m_log.Dump();
}

TEST_F(DipcTest, StopTwiceLogsHandleIsNullTheSecondTime) {
    ASSERT_TRUE(StartAndWaitForTheName());
    bool first = false;
    bool second = true;
    m_server.Invoke([&] {
        first = Lumora_DIPC_Stop(&m_handle);
        second = Lumora_DIPC_Stop(&m_handle);
    });
    EXPECT_TRUE(first);
    EXPECT_FALSE(second);
    EXPECT_EQ(nullptr, m_handle);
    auto records = m_log.Find("handle is NULL!!!", 'E');
    ASSERT_EQ(1u, records.size()) << m_log.Dump();
    EXPECT_EQ("Lumora_DIPC_Stop", records[0].function);
}

TEST_F(DipcTest, StopUnregistersTheObjectAndGivesUpTheName) {
    ASSERT_TRUE(StartAndWaitForTheName());
    m_server.Invoke([&] { EXPECT_TRUE(Lumora_DIPC_Stop(&m_handle)); });
    EXPECT_TRUE(WaitUntil([&] { return !lumora::test::NameHasOwner(m_client, kName); }, kTimeoutMs));
    EXPECT_FALSE(Echo(kPath, "gone").Ok());
}

TEST_F(DipcTest, ANameHeldByAnotherClientIsReportedLost) {
    CallResult taken = CallMethod(m_client, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                  "RequestName", g_variant_new("(su)", kName, 4u));  // DO_NOT_QUEUE
    ASSERT_TRUE(taken.Ok()) << taken.Print();
    m_handle = Start("lumora-service");
    ASSERT_NE(nullptr, m_handle);
    EXPECT_TRUE(WaitUntil([&] { return m_events.HasName(std::string("lost:") + kName); }, kTimeoutMs));
    EXPECT_FALSE(m_events.HasName(std::string("acquired:") + kName));
    bool sent = true;
    m_server.Invoke(
        [&] { sent = Lumora_DIPC_Publish(m_handle, nullptr, g_variant_new("(s)", "x"), kInterface, "Changed"); });
    EXPECT_FALSE(sent);
}

TEST_F(DipcTest, SendDataWithoutAnInvocationLogsBothPointers) {
    Lumora_DIPC_SendData(nullptr, nullptr);
    EXPECT_EQ(1u, m_log.Count("Error: (nil) (nil)", 'E')) << m_log.Dump();
}

// Names, paths and XML that GIO would meet with a critical (now, or once the
// name is owned) are refused at the start, with one line each.
TEST_F(DipcTest, StartRefusesANameAPathOrXmlThatGioCannotTake) {
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    // Cut to 49 characters, this path ends with "/".
    const std::string cutAtASlash = "/org/example/dipc/" + std::string(30, 'a') + "/bbbb";
    const struct {
        const char* name;
        const char* path;
        const char* xml;
        const char* line;
    } refusals[] = {
        {":1.5", kPath, kXml, "the bus name is not a valid well-known bus name"},
        {"nodots", kPath, kXml, "the bus name is not a valid well-known bus name"},
        {nullptr, kPath, kXml, "the bus name is not a valid well-known bus name"},
        {"org.example.\xff", kPath, kXml, "the bus name is not a valid well-known bus name"},
        {kName, "relative/path", kXml, "the object path (as cut to 49 characters) is not a valid object path"},
        {kName, nullptr, kXml, "the object path (as cut to 49 characters) is not a valid object path"},
        {kName, cutAtASlash.c_str(), kXml, "the object path (as cut to 49 characters) is not a valid object path"},
        {kName, kPath, nullptr, "get node failed"},
        {kName, kPath, "<node><interface name='x'/></node>", "get node failed"},
    };
    for (const auto& refusal : refusals) {
        m_log.Mark();
        LumoraDIPCHandle* handle = nullptr;
        m_server.Invoke([&] {
            handle =
                Lumora_DIPC_Start("lumora-service", 1, refusal.name, refusal.path, refusal.xml, &m_events, kCallbacks);
        });
        EXPECT_EQ(nullptr, handle) << refusal.line;
        std::vector<lumora::test::LogRecord> records = m_log.Records();
        ASSERT_EQ(1u, records.size()) << m_log.Dump();
        EXPECT_EQ(refusal.line, records[0].text);
        EXPECT_EQ("Lumora_DIPC_Start", records[0].function);
    }
    EXPECT_TRUE(m_events.Names().empty());
    EXPECT_FALSE(lumora::test::NameHasOwner(m_client, kName));
}

TEST_F(DipcTest, PublishRefusesNamesAndParametersThatDbusCannotCarry) {
    ASSERT_TRUE(StartAndWaitForTheName());
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    SignalRecorder recorder(m_bus.Address(), kName, kInterface, nullptr, kPath);
    const struct {
        const char* destination;
        GVariant* parameters;
        const char* interface;
        const char* signal;
        const char* line;
    } refusals[] = {
        {"not a name", g_variant_new("(s)", "x"), kInterface, "Changed", "the destination is not a valid bus name"},
        {nullptr, g_variant_new("(s)", "x"), nullptr, "Changed",
         "the interface name is not a valid D-Bus interface name"},
        {nullptr, g_variant_new("(s)", "x"), "org.example.\xff", "Changed",
         "the interface name is not a valid D-Bus interface name"},
        {nullptr, g_variant_new("(s)", "x"), kInterface, "Chan-ged",
         "the signal name is not a valid D-Bus member name"},
        {nullptr, g_variant_new("(s)", "x"), kInterface, nullptr, "the signal name is not a valid D-Bus member name"},
        {nullptr, g_variant_new_string("bare"), kInterface, "Changed", "the parameters are not a tuple"},
        {nullptr, UntrustworthyTuple(), kInterface, "Changed", "the parameters hold a string that is not valid UTF-8"},
    };
    for (const auto& refusal : refusals) {
        m_log.Mark();
        bool sent = true;
        m_server.Invoke([&] {
            sent = Lumora_DIPC_Publish(m_handle, refusal.destination, refusal.parameters, refusal.interface,
                                       refusal.signal);
        });
        EXPECT_FALSE(sent) << refusal.line;
        std::vector<lumora::test::LogRecord> records = m_log.Records();
        ASSERT_EQ(1u, records.size()) << m_log.Dump();
        EXPECT_EQ(refusal.line, records[0].text);
        EXPECT_EQ("Lumora_DIPC_Publish", records[0].function);
    }
    // The publisher goes on working; the refused signals never left.
    ASSERT_TRUE(Publish(nullptr, "after"));
    ASSERT_TRUE(recorder.WaitForCount(1, kTimeoutMs));
    g_usleep(200 * 1000);
    std::vector<lumora::test::ReceivedSignal> signals = recorder.Signals();
    ASSERT_EQ(1u, signals.size());
    EXPECT_EQ("('after',)", PrintVariant(signals[0].parameters.get()));
}

TEST_F(DipcTest, AReplyThatCannotBeSentAnswersTheCallerWithAnErrorInstead) {
    ASSERT_TRUE(StartAndWaitForTheName());
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    m_log.Mark();
    CallResult bare = Echo(kPath, "not-a-tuple");
    EXPECT_EQ("org.freedesktop.DBus.Error.Failed", bare.errorName) << bare.Print();
    EXPECT_NE(std::string::npos, bare.errorMessage.find("the parameters are not a tuple")) << bare.Print();
    CallResult invalid = Echo(kPath, "not-utf8");
    EXPECT_EQ("org.freedesktop.DBus.Error.Failed", invalid.errorName) << invalid.Print();
    EXPECT_NE(std::string::npos, invalid.errorMessage.find("the parameters hold a string that is not valid UTF-8"))
        << invalid.Print();
    std::vector<lumora::test::LogRecord> records = m_log.Records();
    ASSERT_EQ(2u, records.size()) << m_log.Dump();
    EXPECT_EQ("Lumora_DIPC_SendData", records[0].function);
    EXPECT_EQ("Lumora_DIPC_SendData", records[1].function);
    // Answered as before.
    EXPECT_EQ("('echo:fine',)", Echo(kPath, "fine").Print());
}

}  // namespace
