// A running application survives a restart of the bus daemon itself: the
// library notices that its connection closed, reconnects through its 2-second
// timer once the bus is back, and registers its subscriptions again, without
// the application doing anything. A request in flight when the bus went away
// is answered once with the error text and not sent again. While the bus is
// away, every operation behaves as on any connection that closed, and what
// the application subscribed or removed meanwhile is what holds afterwards.
//
// The daemon listens on bus.real; the application reaches it through the
// link "bus", the simulator and the test's control connection directly. Taking
// the link away keeps the application off a running bus, so that the order
// in which the application and the service come back is the test's choice.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ServiceFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kErrorText = "{\"Status\":\"Error\"}";
constexpr const char* kSourceNow = "Ctx/Media/Source/Info/Current";
constexpr const char* kDelayed = "Ctx/App/Info/Current";
constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";
constexpr const char* kClosedLine = "[myapp] the bus connection closed (";

// Reads the current source in a loop on a thread of its own, as an
// application's worker would, and remembers when reads last failed and first
// succeeded again.
class Reader {
public:
    Reader() : m_thread([this] { Run(); }) {}
    ~Reader() {
        m_stop = true;
        m_thread.join();
    }
    size_t Good() const { return m_good.load(); }
    size_t Failed() const { return m_failed.load(); }

private:
    void Run() {
        while (!m_stop) {
            char* value = Lumora_Read(kSourceNow, nullptr);
            if (value != nullptr) {
                ++m_good;
                free(value);
            } else {
                ++m_failed;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    std::atomic<bool> m_stop{false};
    std::atomic<size_t> m_good{0};
    std::atomic<size_t> m_failed{0};
    std::thread m_thread;
};

class BusRestartTest : public testing::Test {
protected:
    void SetUp() override {
        program_invocation_short_name = const_cast<char*>("myapp");
        CallbackRecorder::Instance().Clear();
        // Nothing the application does during an outage may raise a GLib
        // critical or warning.
        g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
        m_realAddress = "unix:path=" + m_dir.File("bus.real");
        m_sim.SetBusAddress(m_realAddress);
        OpenToApplication();
        ASSERT_TRUE(m_bus.StartAt(m_realAddress, false));
        ASSERT_TRUE(m_sim.Start());
        ConnectControl();
    }

    void TearDown() override {
        while (LMFServiceAPI::m_nRefCnt > 0) Lumora_FiniService();
        m_sim.Stop();
        DropControl();
    }

    void OpenToApplication() {
        unlink(m_dir.File("bus").c_str());  // open already, or not
        ASSERT_EQ(0, symlink(m_dir.File("bus.real").c_str(), m_dir.File("bus").c_str()));
    }
    void CloseToApplication() { ASSERT_EQ(0, unlink(m_dir.File("bus").c_str())); }

    void ConnectControl() {
        m_control = ConnectToBus(m_realAddress);
        ASSERT_NE(nullptr, m_control);
    }
    void DropControl() {
        if (m_control != nullptr) g_object_unref(m_control);
        m_control = nullptr;
    }

    // The daemon goes, taking the service with it (it exits when it loses
    // its bus), and the application sees its connection close.
    void BusDown() {
        DropControl();
        m_bus.Stop();
        ASSERT_TRUE(WaitUntil([&] { return LinesStartingWith(kClosedLine) == 1; }, 5000)) << m_log.Dump();
        m_sim.Stop();
    }
    // The daemon and a new service process; the application's link only when
    // openToApplication.
    void BusUp(bool openToApplication = true) {
        ASSERT_TRUE(m_bus.StartAt(m_realAddress, false));
        ASSERT_TRUE(m_sim.Start());
        ConnectControl();
        if (openToApplication) OpenToApplication();
    }

    Json::Value SimStatus() { return SimStatusOver(m_control); }
    size_t SimSubscribers(const std::string& subject) { return SimStatus()["subscriptions"][subject].size(); }
    bool Control(const char* method, GVariant* parameters = nullptr) {
        return CallControl(m_control, method, parameters).Ok();
    }
    bool Emit(const std::string& subject, const std::string& data) {
        return Control(lumora::sim::kCtlEmit, g_variant_new("(ss)", subject.c_str(), data.c_str()));
    }
    bool DelayAnswers(const char* subject) {
        return Control(lumora::sim::kCtlSetDelay, g_variant_new("(su)", subject, 60000u));
    }

    std::vector<Delivery> DeliveriesTo(int callback) {
        std::vector<Delivery> found;
        for (const Delivery& delivery : CallbackRecorder::Instance().All())
            if (delivery.callback == callback) found.push_back(delivery);
        return found;
    }

    size_t LinesStartingWith(const std::string& prefix) {
        size_t n = 0;
        for (const LogRecord& record : m_log.Records())
            if (record.text.rfind(prefix, 0) == 0) ++n;
        return n;
    }

    // How many subscribe (3) or unsubscribe (4) messages for subject the
    // library logged sending since the mark.
    size_t CountSent(int type, const std::string& subject) {
        size_t n = 0;
        std::string head = "[myapp] type:" + std::to_string(type) + ", reqId:";
        std::string tail = ", szSubject:" + subject + ", input:{}";
        for (const LogRecord& record : m_log.Records()) {
            if (record.text.rfind(head, 0) == 0 && record.text.size() >= tail.size() &&
                record.text.compare(record.text.size() - tail.size(), tail.size(), tail) == 0)
                ++n;
        }
        return n;
    }

    TempDir m_dir;
    LogCapture m_log;
    std::string m_realAddress;
    ScopedEnv m_busAddress{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + m_dir.File("bus")};
    TestBus m_bus;
    SimProcess m_sim;
    GDBusConnection* m_control = nullptr;
    MainLoopThread m_loop;
    int m_first = 1;
    int m_second = 2;
};

TEST_F(BusRestartTest, SubscriptionsReadsAndNotificationsComeBackAfterTheBusDaemonRestarts) {
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(LMFServiceAPI::IsAvailable());
    ASSERT_TRUE(Lumora_SubscribeSourceInfo(Recorded<1>, &m_first));
    ASSERT_TRUE(Lumora_SubscribeSourceInfo(Recorded<2>, &m_second));
    ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<3>, nullptr));
    ASSERT_EQ(1u, SimSubscribers("Ctx/Media/Source/Changed"));

    // A request that the service holds, still in flight when the bus goes.
    ASSERT_TRUE(CallControl(m_control, lumora::sim::kCtlSetDelay, g_variant_new("(su)", kDelayed, 60000u)).Ok());
    ASSERT_TRUE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<9>, nullptr));
    // Taken in by the service, which now holds it.
    ASSERT_TRUE(WaitUntil([&] { return SimStatus()["delayedAnswers"].asUInt() == 1; }, 5000));

    Reader reader;
    ASSERT_TRUE(WaitUntil([&] { return reader.Good() > 0; }, 5000));
    m_log.Mark();

    // Down: the daemon first (the service cannot say "BYE" without it), then
    // the service.
    DropControl();
    auto down = Clock::now();
    m_bus.Stop();
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(9).size() == 1; }, 5000)) << m_log.Dump();
    double requestErrorMs = MsSince(down);
    EXPECT_EQ(kErrorText, DeliveriesTo(9)[0].data);
    m_sim.Stop();
    size_t failedBefore = reader.Failed();
    ASSERT_TRUE(WaitUntil([&] { return reader.Failed() > failedBefore + 5; }, 5000));
    // Out for a while: the reconnect timer tries every 2 s meanwhile.
    std::this_thread::sleep_for(std::chrono::milliseconds(4500));
    EXPECT_EQ(1u, LinesStartingWith(kClosedLine)) << m_log.Dump();
    for (const LogRecord& record : m_log.Records()) {
        if (record.text.rfind(kClosedLine, 0) != 0) continue;
        EXPECT_EQ("DBusClient.cpp", record.file);
        EXPECT_EQ("OnConnectionClosed", record.function);
        EXPECT_NE(std::string::npos, record.text.find("); reconnecting every 2 s")) << record.text;
    }
    size_t attempts = m_log.Count("m_connection error", 'E');
    EXPECT_GE(attempts, 1u);
    EXPECT_LE(attempts, 4u) << m_log.Dump();

    // Back: the daemon, then a new service process.
    auto busBack = Clock::now();
    BusUp();
    size_t goodBefore = reader.Good();
    ASSERT_TRUE(WaitUntil([&] { return reader.Good() > goodBefore; }, 10000)) << m_log.Dump();
    double firstReadMs = MsSince(busBack);
    ASSERT_TRUE(WaitUntil([&] { return SimSubscribers("Ctx/Media/Source/Changed") == 1; }, 10000)) << m_log.Dump();
    EXPECT_EQ(1u, SimSubscribers("Ctx/App/Info/Changed"));
    EXPECT_EQ(1u, m_log.Count("[myapp] connected to the bus again", 'E')) << m_log.Dump();

    auto emitted = Clock::now();
    ASSERT_TRUE(Emit("Ctx/Media/Source/Changed", "{\"Source\":\"HDMI2\"}"));
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(1).size() == 1 && DeliveriesTo(2).size() == 1; }, 5000))
        << m_log.Dump();
    double firstNotificationMs = MsSince(busBack);
    double deliveryMs = MsSince(emitted);
    EXPECT_EQ(&m_first, DeliveriesTo(1)[0].userData);
    EXPECT_EQ(&m_second, DeliveriesTo(2)[0].userData);
    ASSERT_TRUE(Emit("Ctx/App/Info/Changed", "{\"AppId\":\"x\"}"));
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(3).size() == 1; }, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(1u, DeliveriesTo(1).size());
    EXPECT_EQ(1u, DeliveriesTo(2).size());
    // The request was answered once and not sent again.
    EXPECT_EQ(1u, DeliveriesTo(9).size());
    for (const LogRecord& record : m_log.Records())
        EXPECT_EQ(std::string::npos, record.text.find(std::string("szSubject:") + kDelayed)) << record.raw;
    printf(
        "timing: bus down -> request callback with the error: %.0f ms; bus back -> first good read: %.0f ms, "
        "first notification: %.0f ms (emit -> delivery %.0f ms)\n",
        requestErrorMs, firstReadMs, firstNotificationMs, deliveryMs);
}

TEST_F(BusRestartTest, WhatTheApplicationChangesDuringTheOutageIsWhatHoldsAfterIt) {
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Lumora_Subscribe(kVolume, Recorded<1>, nullptr));
    ASSERT_EQ(1u, SimSubscribers(kVolume));
    m_log.Mark();
    BusDown();

    // Callback 1 leaves and callback 2 comes while the bus is away.
    EXPECT_TRUE(Lumora_Unsubscribe(kVolume, Recorded<1>, nullptr));
    EXPECT_TRUE(Lumora_Subscribe(kVolume, Recorded<2>, nullptr));
    // Taken as a new subscription, not as the one already held.
    EXPECT_FALSE(Lumora_Subscribe(kVolume, Recorded<2>, nullptr));
    EXPECT_TRUE(m_log.Has(AlreadySubscribed(kVolume, Recorded<2>), 'E')) << m_log.Dump();

    BusUp();
    ASSERT_TRUE(WaitUntil([&] { return SimSubscribers(kVolume) == 1; }, 10000)) << m_log.Dump();
    EXPECT_EQ(1u, m_log.Count("[myapp] registering 1 subscription(s) again after the bus came back", 'E'))
        << m_log.Dump();
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":7}"));
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(2).size() == 1; }, 5000)) << m_log.Dump();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(0u, DeliveriesTo(1).size());
    ASSERT_EQ(1u, DeliveriesTo(2).size());
    EXPECT_EQ("{\"Level\":7}", DeliveriesTo(2)[0].data);
}

TEST_F(BusRestartTest, DuringTheOutageReadsFailWithTheBusErrorWritesAreQueuedAndRequestsAnswerTheError) {
    ASSERT_TRUE(Lumora_InitService());
    BusDown();
    m_log.Mark();

    EXPECT_EQ(nullptr, Lumora_Read(kVolume, nullptr));
    bool written = false;
    EXPECT_NO_THROW(written = Lumora_Write(kVolume, "{\"Level\":5}"));
    EXPECT_TRUE(written);
    EXPECT_TRUE(Lumora_Request(kVolume, nullptr, Recorded<3>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(3).size() == 1; }, 5000)) << m_log.Dump();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_EQ(1u, DeliveriesTo(3).size());
    EXPECT_EQ(kErrorText, DeliveriesTo(3)[0].data);
    EXPECT_EQ(kVolume, DeliveriesTo(3)[0].subject);

    // The read went to the closed connection and failed there, with GIO's
    // message and the request's id; nothing said the bus was not connected.
    size_t closedErrors = 0;
    for (const LogRecord& record : m_log.Records()) {
        if (record.text.rfind("The connection is closed, reqId:", 0) == 0) {
            ++closedErrors;
            EXPECT_EQ("__RequestSync", record.function) << record.raw;
        }
    }
    EXPECT_EQ(1u, closedErrors) << m_log.Dump();
    EXPECT_EQ(0u, m_log.Count("[myapp] Dbus is not connected")) << m_log.Dump();
    EXPECT_EQ(0u, m_log.Count("[myapp] Service is not available")) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("g_dbus_connection_call_finish failed ..[message:The connection is closed code:18] ", 'E'))
        << m_log.Dump();
}

TEST_F(BusRestartTest, AProcessWithoutSubscriptionsComesBackAndReadsAgain) {
    ASSERT_TRUE(Lumora_InitService());
    m_log.Mark();
    BusDown();
    BusUp();
    ASSERT_TRUE(WaitUntil([&] { return m_log.Has("[myapp] connected to the bus again", 'E'); }, 10000)) << m_log.Dump();
    // The line comes after the service check on the new connection, a moment later.
    EXPECT_TRUE(WaitUntil(
        [&] { return m_log.Has("[myapp] registering 0 subscription(s) again after the bus came back", 'E'); }, 5000))
        << m_log.Dump();
    char* value = Lumora_Read(kSourceNow, nullptr);
    ASSERT_NE(nullptr, value) << m_log.Dump();
    EXPECT_NE(std::string::npos, std::string(value).find("Source")) << value;
    free(value);
    EXPECT_EQ(0u, LinesStartingWith("[myapp] type:3, ")) << m_log.Dump();
}

TEST_F(BusRestartTest, AServiceNotReadyAtReconnectionIsRecheckedAndThenGetsTheSubscriptionsAgain) {
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Lumora_Subscribe(kVolume, Recorded<1>, nullptr));
    m_log.Mark();
    CloseToApplication();
    BusDown();
    // The service comes back first, disabled, while the application cannot
    // reach the bus: its "HELLO" goes to nobody.
    BusUp(false);
    ASSERT_TRUE(Control(lumora::sim::kCtlSetEnabled, g_variant_new("(b)", FALSE)));
    OpenToApplication();
    ASSERT_TRUE(WaitUntil([&] { return m_log.Has("[myapp] Check Service Availability... [1/10]", 'E'); }, 10000))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Has("[myapp] LMF service isn't ready or available yet ..", 'E')) << m_log.Dump();
    EXPECT_FALSE(LMFServiceAPI::IsAvailable());
    EXPECT_EQ(0u, SimSubscribers(kVolume));

    ASSERT_TRUE(Control(lumora::sim::kCtlSetEnabled, g_variant_new("(b)", TRUE)));
    ASSERT_TRUE(WaitUntil([&] { return SimSubscribers(kVolume) == 1; }, 10000)) << m_log.Dump();
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    EXPECT_TRUE(m_log.From("[myapp] registering 1 subscription(s) again after the bus came back", "DBusClient.cpp",
                           "RecheckTimeoutCb"))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Has("[myapp] Check Service Availability... [2/10]", 'E')) << m_log.Dump();
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":3}"));
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(1).size() == 1; }, 5000)) << m_log.Dump();
}

TEST_F(BusRestartTest, ARequestInFlightAtFiniServiceIsNotAnsweredWhenTheBusGoesAway) {
    ASSERT_TRUE(DelayAnswers(kDelayed));
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Lumora_Request(kDelayed, nullptr, Recorded<9>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return SimStatus()["delayedAnswers"].asUInt() == 1; }, 5000));
    ASSERT_TRUE(Lumora_FiniService());
    m_log.Mark();
    DropControl();
    m_bus.Stop();
    ASSERT_TRUE(WaitUntil([&] { return m_log.Has("Service is not Available", 'E'); }, 5000)) << m_log.Dump();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(0u, DeliveriesTo(9).size());
    // Not in use: the closed connection is only noted, and nothing reconnects.
    ASSERT_TRUE(WaitUntil([&] { return LinesStartingWith(kClosedLine) == 1; }, 5000)) << m_log.Dump();
    for (const LogRecord& record : m_log.Records()) {
        if (record.text.rfind(kClosedLine, 0) != 0) continue;
        EXPECT_EQ(std::string::npos, record.text.find("reconnecting")) << record.raw;
    }
}

TEST_F(BusRestartTest, ARequestInFlightAfterByeIsNotAnsweredWhenTheBusGoesAway) {
    ASSERT_TRUE(DelayAnswers(kDelayed));
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Lumora_Request(kDelayed, nullptr, Recorded<9>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return SimStatus()["delayedAnswers"].asUInt() == 1; }, 5000));
    // "BYE" now, "HELLO" only after a minute: the delayed answer is still held.
    g_dbus_connection_call(m_control, lumora::contract::kBusName, lumora::sim::kControlPath,
                           lumora::sim::kControlInterface, lumora::sim::kCtlRestart, g_variant_new("(u)", 60000u),
                           nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    ASSERT_TRUE(WaitUntil([&] { return !LMFServiceAPI::IsAvailable(); }, 5000)) << m_log.Dump();
    m_log.Mark();
    DropControl();
    m_bus.Stop();
    ASSERT_TRUE(WaitUntil([&] { return m_log.Has("Service is not Available", 'E'); }, 5000)) << m_log.Dump();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(0u, DeliveriesTo(9).size());
}

// ---- what an application is told across the outage ---------------------------

std::vector<std::string> AvailabilityHeard(int callback) {
    std::vector<std::string> heard;
    for (const Delivery& delivery : CallbackRecorder::Instance().All())
        if (delivery.callback == callback) heard.push_back(delivery.subject + "=" + delivery.data);
    return heard;
}

TEST_F(BusRestartTest, TheApplicationIsToldTheBusClosedThenReconnectedAndHearsTheValueThatChangedMeanwhile) {
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<1>, nullptr));
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, Recorded<2>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(1).size() == 1 && DeliveriesTo(2).size() == 1; }, 5000));
    const std::string before = DeliveriesTo(2)[0].data;
    m_log.Mark();

    auto down = Clock::now();
    CloseToApplication();
    BusDown();
    ASSERT_TRUE(WaitUntil([&] { return AvailabilityHeard(1).size() == 2; }, 5000)) << m_log.Dump();
    double closedMs = MsSince(down);
    EXPECT_EQ((std::vector<std::string>{"ready=1", "bus-closed=0"}), AvailabilityHeard(1));

    // The bus and a service on another volume come back.
    ASSERT_TRUE(m_bus.StartAt(m_realAddress, false));
    ASSERT_TRUE(m_sim.Start(ScenarioWithValue(m_dir, kVolume, "{\"Level\":3,\"Mute\":true,\"Max\":100}")));
    ConnectControl();
    auto up = Clock::now();
    OpenToApplication();
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(2).size() == 2; }, 10000)) << m_log.Dump();
    double caughtUpMs = MsSince(up);
    EXPECT_EQ((std::vector<std::string>{"ready=1", "bus-closed=0", "reconnected=1"}), AvailabilityHeard(1));
    EXPECT_NE(before, DeliveriesTo(2)[1].data);
    EXPECT_EQ(ServiceValue(m_control, kVolume), DeliveriesTo(2)[1].data);
    EXPECT_EQ(1u, SimSubscribers(kVolume));
    printf(
        "timing: bus daemon stopped -> \"bus-closed\" told: %.0f ms; bus back -> changed value told: %.0f ms "
        "(reconnection every 2 s)\n",
        closedMs, caughtUpMs);
    g_usleep(300 * 1000);
    EXPECT_EQ(3u, AvailabilityHeard(1).size());
    EXPECT_EQ(2u, DeliveriesTo(2).size());
}

TEST_F(BusRestartTest, ASubscriptionWithTheValueMadeDuringTheOutageGetsTheValueOnceTheBusIsBackAndNoErrorFirst) {
    ASSERT_TRUE(Lumora_InitService());
    m_log.Mark();
    CloseToApplication();
    BusDown();
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, Recorded<2>, nullptr));
    g_usleep(300 * 1000);
    EXPECT_TRUE(DeliveriesTo(2).empty()) << DeliveriesTo(2)[0].data;
    BusUp();
    ASSERT_TRUE(WaitUntil([&] { return !DeliveriesTo(2).empty(); }, 10000)) << m_log.Dump();
    g_usleep(300 * 1000);
    ASSERT_EQ(1u, DeliveriesTo(2).size());
    EXPECT_EQ(ServiceValue(m_control, kVolume), DeliveriesTo(2)[0].data);
    EXPECT_EQ(1u, SimSubscribers(kVolume));
}

}  // namespace
}  // namespace lumora::test
