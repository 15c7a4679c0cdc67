// A running application survives a restart of the bus daemon itself: the
// library notices that its connection closed, reconnects through its 2-second
// timer once the bus is back, and registers its subscriptions again, without
// the application doing anything. A request in flight when the bus went away
// is answered once with the error text and not sent again.
#include <signal.h>

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

using Clock = std::chrono::steady_clock;

double MsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

constexpr const char* kErrorText = "{\"Status\":\"Error\"}";
constexpr const char* kSourceNow = "Ctx/Media/Source/Info/Current";
constexpr const char* kDelayed = "Ctx/App/Info/Current";

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
        // A fixed socket, so that the daemon can come back on the same address.
        m_address = "unix:path=" + m_dir.File("bus");
        ASSERT_TRUE(m_bus.StartAt(m_address));
        ASSERT_TRUE(m_sim.Start());
        ConnectControl();
    }

    void TearDown() override {
        while (LMFServiceAPI::m_nRefCnt > 0) Lumora_FiniService();
        m_sim.Stop();
        DropControl();
    }

    void ConnectControl() {
        m_control = ConnectToBus(m_address);
        ASSERT_NE(nullptr, m_control);
    }
    void DropControl() {
        if (m_control != nullptr) g_object_unref(m_control);
        m_control = nullptr;
    }

    Json::Value SimStatus() { return SimStatusOver(m_control); }
    size_t SimSubscribers(const std::string& subject) { return SimStatus()["subscriptions"][subject].size(); }
    bool Emit(const std::string& subject, const std::string& data) {
        return CallControl(m_control, lumora::sim::kCtlEmit, g_variant_new("(ss)", subject.c_str(), data.c_str())).Ok();
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

    TempDir m_dir;
    LogCapture m_log;
    std::string m_address;
    ScopedEnv m_busAddress{"DBUS_SYSTEM_BUS_ADDRESS", ""};
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
    ASSERT_TRUE(WaitUntil([&] { return !LMFServiceAPI::IsAvailable(); }, 5000));
    m_sim.Stop();
    size_t failedBefore = reader.Failed();
    ASSERT_TRUE(WaitUntil([&] { return reader.Failed() > failedBefore + 5; }, 5000));
    // Out for a while: the reconnect timer tries every 2 s meanwhile.
    std::this_thread::sleep_for(std::chrono::milliseconds(4500));
    EXPECT_EQ(1u, LinesStartingWith("[myapp] the bus connection closed (")) << m_log.Dump();
    for (const LogRecord& record : m_log.Records()) {
        if (record.text.rfind("[myapp] the bus connection closed (", 0) != 0) continue;
        EXPECT_EQ("DBusClient.cpp", record.file);
        EXPECT_EQ("OnConnectionClosed", record.function);
        EXPECT_NE(std::string::npos, record.text.find("); reconnecting every 2 s")) << record.text;
    }
    size_t attempts = m_log.Count("m_connection error", 'E');
    EXPECT_GE(attempts, 1u);
    EXPECT_LE(attempts, 4u) << m_log.Dump();

    // Back: the daemon, then a new service process.
    auto busBack = Clock::now();
    ASSERT_TRUE(m_bus.StartAt(m_address));
    ASSERT_TRUE(m_sim.Start());
    ConnectControl();
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

}  // namespace
}  // namespace lumora::test
