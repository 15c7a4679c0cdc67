// The service says "BYE" and "HELLO" around a restart: the library marks it
// unavailable, then available again, and registers every subscription anew.
// The service process is also killed and started again under a running
// application, with requests in flight.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "ServiceFixture.h"

namespace lumora::test {
namespace {

namespace sim = lumora::sim;

std::atomic<int> g_notifications{0};

void OnChange(const char*, char*, void*) { ++g_notifications; }

class ServiceRestartTest : public ServiceTest {};

TEST_F(ServiceRestartTest, AfterHelloEverySubscriptionIsSentAgainWithAFreshId) {
    MainLoopThread loop;
    ASSERT_TRUE(Lumora_InitService());
    DBusClient* client = Client();
    ASSERT_TRUE(client->Subscribe("Ctx/App/Info/Changed", OnChange, nullptr));
    ASSERT_TRUE(client->Subscribe("Ctx/Sound/Volume/Level/Changed", OnChange, nullptr));
    auto first = LibraryCalls("RequestSync");
    ASSERT_EQ(2u, first.size());
    EXPECT_EQ(3, first[0].requestType);
    EXPECT_EQ("{}", first[0].input);
    m_monitor->Clear();
    m_log.Mark();

    ASSERT_TRUE(Control(sim::kCtlRestart, g_variant_new("(u)", 300u)).Ok());
    ASSERT_TRUE(WaitUntil([&] { return LibraryCalls("RequestSync").size() >= 2; }, 5000)) << m_log.Dump();
    auto again = LibraryCalls("RequestSync");
    ASSERT_EQ(2u, again.size());
    EXPECT_EQ("Ctx/App/Info/Changed", again[0].subject);
    EXPECT_EQ("Ctx/Sound/Volume/Level/Changed", again[1].subject);
    for (const BusMessage& call : again) {
        EXPECT_EQ(3, call.requestType);
        EXPECT_EQ("{}", call.input);
        EXPECT_GT(call.requestId, first[1].requestId);  // fresh ids
    }
    EXPECT_NE(again[0].requestId, again[1].requestId);
    EXPECT_TRUE(m_log.Has("[myapp] BYE, ", 'I')) << m_log.Dump();
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());

    // The service now sends the subscribed subject's changes again.
    ASSERT_TRUE(Control(sim::kCtlEmit, g_variant_new("(ss)", "Ctx/App/Info/Changed", "{\"AppId\":\"x\"}")).Ok());
    EXPECT_TRUE(WaitUntil([] { return g_notifications.load() > 0; }, 5000));
}

TEST_F(ServiceRestartTest, ByeMakesTheServiceUnavailableUntilHello) {
    MainLoopThread loop;
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Client()->Subscribe("Ctx/App/Info/Changed", OnChange, nullptr));  // listens for the service
    // The simulator answers Restart only once it said HELLO again.
    std::thread restart([this] { EXPECT_TRUE(Control(sim::kCtlRestart, g_variant_new("(u)", 2000u)).Ok()); });
    EXPECT_TRUE(WaitUntil([] { return !LMFServiceAPI::IsAvailable(); }, 3000));
    m_log.Mark();
    EXPECT_EQ(nullptr, Lumora_ReadCurrentAppInfo(nullptr));
    EXPECT_TRUE(m_log.Has("[myapp] Service is not available", 'E')) << m_log.Dump();
    restart.join();
    // HELLO was sent before the answer, but reaches the library through its
    // main loop.
    EXPECT_TRUE(WaitUntil([] { return LMFServiceAPI::IsAvailable(); }, 5000));
    char* value = Lumora_ReadCurrentAppInfo(nullptr);
    EXPECT_NE(nullptr, value);
    free(value);
}

// ---- the service process killed and started again ---------------------------------

constexpr const char* kErrorText = "{\"Status\":\"Error\"}";
constexpr int kRequestCallback = 50;

class ServiceProcessRestartTest : public EventTest {
protected:
    void SetUp() override {
        EventTest::SetUp();
        Start();
        // Two callbacks on one subject and one on another.
        ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<1>, &m_first));
        ASSERT_TRUE(Lumora_SubscribeAppInfo(Recorded<2>, &m_second));
        ASSERT_TRUE(Lumora_SubscribeSourceInfo(Recorded<3>, &m_third));
        m_monitor->Clear();
        m_log.Mark();
    }

    std::vector<Delivery> DeliveriesTo(int callback) {
        std::vector<Delivery> found;
        for (const Delivery& delivery : Recorder().All())
            if (delivery.callback == callback) found.push_back(delivery);
        return found;
    }

    size_t Resubscriptions() {
        size_t n = 0;
        for (const BusMessage& call : LibraryCalls("RequestSync"))
            if (call.requestType == 3) ++n;
        return n;
    }

    // A new simulator process; returns when it owns the name and the marker
    // exists (it says "HELLO" then). The test's control connection survives.
    void StartNewService() { ASSERT_TRUE(m_sim.Start()); }

    // Every record is registered again, and each callback then hears each
    // notification once.
    void ExpectSubscriptionsWork(Clock::time_point serviceBack) {
        ASSERT_TRUE(WaitUntil([&] { return Resubscriptions() >= 3; }, 5000)) << m_log.Dump();
        double resubscribedMs = MsSince(serviceBack);
        auto calls = LibraryCalls("RequestSync");
        std::vector<std::string> subjects;
        for (const BusMessage& call : calls) subjects.push_back(call.subject);
        EXPECT_EQ(
            (std::vector<std::string>{"Ctx/App/Info/Changed", "Ctx/App/Info/Changed", "Ctx/Media/Source/Changed"}),
            subjects);
        EXPECT_TRUE(LMFServiceAPI::IsAvailable());
        size_t before = Recorder().Count();
        auto emitted = Clock::now();
        for (int i = 0; i < 2; ++i) {
            ASSERT_TRUE(Control(lumora::sim::kCtlEmit, g_variant_new("(ss)", "Ctx/App/Info/Changed",
                                                                     ("{\"n\":" + std::to_string(i) + "}").c_str()))
                            .Ok());
            ASSERT_TRUE(
                Control(lumora::sim::kCtlEmit, g_variant_new("(ss)", "Ctx/Media/Source/Changed", "{\"Source\":\"TV\"}"))
                    .Ok());
        }
        ASSERT_TRUE(Recorder().WaitForCount(before + 6, 5000));
        double notifiedMs = MsSince(emitted);
        g_usleep(300 * 1000);
        EXPECT_EQ(before + 6, Recorder().Count());
        for (int callback : {1, 2}) {
            auto heard = DeliveriesTo(callback);
            ASSERT_EQ(2u, heard.size()) << callback;
            EXPECT_EQ("{\"n\":0}", heard[0].data);
            EXPECT_EQ("{\"n\":1}", heard[1].data);
        }
        EXPECT_EQ(&m_first, DeliveriesTo(1)[0].userData);
        EXPECT_EQ(&m_second, DeliveriesTo(2)[0].userData);
        EXPECT_EQ(2u, DeliveriesTo(3).size());
        printf(
            "timing: service back -> every subscription registered again: %.0f ms; "
            "emit -> 6 notifications delivered: %.0f ms\n",
            resubscribedMs, notifiedMs);
    }

    int m_first = 1, m_second = 2, m_third = 3;
};

TEST_F(ServiceProcessRestartTest, AfterSigkillARequestInFlightCallsBackOnceWithTheErrorAndSubscriptionsResume) {
    ASSERT_TRUE(Control(lumora::sim::kCtlSetDelay, g_variant_new("(su)", "Ctx/App/Info/Current", 60000u)).Ok());
    ASSERT_TRUE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<kRequestCallback>, nullptr));
    ASSERT_TRUE(m_monitor->WaitForCalls(1, 5000, "RequestAsync"));
    auto killed = Clock::now();
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGKILL));
    EXPECT_EQ(-1, m_sim.WaitForExit(5000));
    // The bus answers for the vanished service; no "BYE" came, so the
    // library still counts the service available and hands the error on.
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000)) << m_log.Dump();
    double errorMs = MsSince(killed);
    auto answered = DeliveriesTo(kRequestCallback);
    ASSERT_EQ(1u, answered.size());
    EXPECT_EQ(kErrorText, answered[0].data);
    EXPECT_EQ("Ctx/App/Info/Current", answered[0].subject);
    bool logged = false;
    for (const LogRecord& record : m_log.Records())
        logged |= record.text.rfind("g_dbus_connection_call_finish failed ..[message:", 0) == 0;
    EXPECT_TRUE(logged) << m_log.Dump();
    printf("timing: SIGKILL -> request callback with the error text: %.0f ms\n", errorMs);

    // While the service is gone, a new request fails at once at the bus.
    auto asked = Clock::now();
    ASSERT_TRUE(Lumora_RequestCurrentSourceInfo(nullptr, Recorded<kRequestCallback + 1>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return DeliveriesTo(kRequestCallback + 1).size() == 1; }, 5000));
    EXPECT_EQ(kErrorText, DeliveriesTo(kRequestCallback + 1)[0].data);
    printf("timing: request while the service is down -> error callback: %.0f ms\n", MsSince(asked));

    m_monitor->Clear();
    auto restarted = Clock::now();
    StartNewService();
    ExpectSubscriptionsWork(restarted);
    // Neither request was answered twice.
    EXPECT_EQ(1u, DeliveriesTo(kRequestCallback).size());
    EXPECT_EQ(1u, DeliveriesTo(kRequestCallback + 1).size());
}

TEST_F(ServiceProcessRestartTest, AfterSigtermADelayedRequestFailsBeforeByeAndSubscriptionsResumeAfterHello) {
    ASSERT_TRUE(Control(lumora::sim::kCtlSetDelay, g_variant_new("(su)", "Ctx/App/Info/Current", 60000u)).Ok());
    ASSERT_TRUE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<kRequestCallback>, nullptr));
    ASSERT_TRUE(m_monitor->WaitForCalls(1, 5000, "RequestAsync"));
    // Seen on the bus is not yet taken in: a call the simulator has not
    // dispatched when SIGTERM comes is never answered, and the bus's error
    // then arrives after "BYE".
    ASSERT_TRUE(WaitUntil([&] { return SimStatus()["delayedAnswers"].asUInt() == 1; }, 5000));
    auto stopped = Clock::now();
    EXPECT_EQ(0, m_sim.Stop());  // SIGTERM: the answer fails, then "BYE"
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000)) << m_log.Dump();
    double errorMs = MsSince(stopped);
    ASSERT_TRUE(WaitUntil([] { return !LMFServiceAPI::IsAvailable(); }, 5000));
    auto answered = DeliveriesTo(kRequestCallback);
    ASSERT_EQ(1u, answered.size());
    EXPECT_EQ(kErrorText, answered[0].data);
    EXPECT_TRUE(m_log.Has("[myapp] BYE, ", 'I')) << m_log.Dump();
    printf("timing: SIGTERM -> request callback with the error text: %.0f ms\n", errorMs);

    // Between "BYE" and "HELLO" requests are refused and never call back.
    EXPECT_FALSE(Lumora_RequestCurrentSourceInfo(nullptr, Recorded<kRequestCallback + 1>, nullptr));
    EXPECT_TRUE(m_log.Has("[myapp] Service is not available yet, you can get result after starting LMF", 'E'));

    m_monitor->Clear();
    auto restarted = Clock::now();
    StartNewService();
    ASSERT_TRUE(WaitUntil([] { return LMFServiceAPI::IsAvailable(); }, 5000));
    printf("timing: new service process ready -> library available again: %.0f ms\n", MsSince(restarted));
    ExpectSubscriptionsWork(restarted);
    EXPECT_EQ(1u, DeliveriesTo(kRequestCallback).size());
    EXPECT_TRUE(DeliveriesTo(kRequestCallback + 1).empty());
}

// A service that says "BYE" while a call of this process is still unanswered
// (here one it held, as a hung service would): the bus's error for that call
// arrives after the "BYE", and the library drops it without calling back.
TEST_F(ServiceProcessRestartTest, AnAnswerThatComesAfterByeIsDroppedWithoutCallingBack) {
    ASSERT_TRUE(Control(lumora::sim::kCtlStopAnswering).Ok());
    ASSERT_TRUE(Lumora_RequestCurrentAppInfo(nullptr, Recorded<kRequestCallback>, nullptr));
    ASSERT_TRUE(m_monitor->WaitForCalls(1, 5000, "RequestAsync"));
    EXPECT_EQ(0, m_sim.Stop());
    ASSERT_TRUE(WaitUntil([&] { return m_log.Has("Service is not Available", 'E'); }, 5000)) << m_log.Dump();
    auto dropped = m_log.Find("Service is not Available");
    EXPECT_EQ("OnResponseAsync", dropped[0].function);
    m_monitor->Clear();
    auto restarted = Clock::now();
    StartNewService();
    ExpectSubscriptionsWork(restarted);
    EXPECT_TRUE(DeliveriesTo(kRequestCallback).empty());
}

}  // namespace
}  // namespace lumora::test
