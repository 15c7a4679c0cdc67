// When the service comes back (its "HELLO", a service that answers again),
// the library registers the subscriptions again and catches the current
// values up without freezing the main loop, without more calls in flight
// than the bus allows, and tells the availability callbacks also when the
// application holds no subscription. An application that uses none of the
// availability or current-value features sees only the lines it always saw.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ServiceFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";
constexpr const char* kSource = "Ctx/Media/Source/Info/Current";
constexpr const char* kApp = "Ctx/App/Info/Current";

std::vector<std::string> Heard(int callback) {
    std::vector<std::string> heard;
    for (const Delivery& delivery : CallbackRecorder::Instance().All())
        if (delivery.callback == callback) heard.push_back(delivery.subject + "=" + delivery.data);
    return heard;
}

std::string Numbered(int i) { return "Test/Return/" + std::to_string(i); }

// The longest time the default main context went without running a 5 ms
// heartbeat, from Start() to Stop().
class LoopWatch {
public:
    void Start() {
        m_last = g_get_monotonic_time();
        m_longest = 0;
        m_source = g_timeout_add(5, Beat, this);
    }
    void Stop() { g_source_remove(m_source); }
    double LongestMs() const { return static_cast<double>(m_longest.load()) / 1000.0; }

private:
    static gboolean Beat(gpointer data) {
        auto* self = static_cast<LoopWatch*>(data);
        gint64 now = g_get_monotonic_time();
        if (now - self->m_last > self->m_longest) self->m_longest = now - self->m_last;
        self->m_last = now;
        return G_SOURCE_CONTINUE;
    }

    std::atomic<gint64> m_last{0};
    std::atomic<gint64> m_longest{0};
    guint m_source = 0;
};

class ServiceReturnTest : public EventTest {
protected:
    bool Delay(const std::string& subject, unsigned ms) {
        return Control(lumora::sim::kCtlSetDelay, g_variant_new("(su)", subject.c_str(), ms)).Ok();
    }
    bool Restart(unsigned pauseMs = 100) {
        return Control(lumora::sim::kCtlRestart, g_variant_new("(u)", pauseMs)).Ok();
    }
};

// ---- catching up many values --------------------------------------------------------

TEST_F(ServiceReturnTest, EveryOneOfTwoHundredValuesIsCaughtUpOnABusThatAllows128CallsInFlight) {
    constexpr int kSubjects = 200;
    Start();
    for (int i = 0; i < kSubjects; ++i) ASSERT_TRUE(SetSimValue(Numbered(i), "{\"v\":0}"));
    for (int i = 0; i < kSubjects; ++i)
        ASSERT_TRUE(Lumora_SubscribeWithValue(Numbered(i).c_str(), Recorded<1>, reinterpret_cast<void*>(i)));
    ASSERT_TRUE(Recorder().WaitForCount(kSubjects, 10000)) << Recorder().Count();
    for (int i = 0; i < kSubjects; ++i) ASSERT_TRUE(SetSimValue(Numbered(i), "{\"v\":1}"));
    Recorder().Clear();
    ASSERT_TRUE(Restart());
    ASSERT_TRUE(Recorder().WaitForCount(kSubjects, 15000))
        << Recorder().Count() << " of " << kSubjects << " values caught up";
    std::set<std::string> subjects;
    for (const Delivery& delivery : Recorder().All()) {
        EXPECT_EQ("{\"v\":1}", delivery.data) << delivery.subject;
        subjects.insert(delivery.subject);
    }
    EXPECT_EQ(static_cast<size_t>(kSubjects), subjects.size());
    EXPECT_EQ(0u, m_log.Count("LimitsExceeded")) << m_log.Dump();
}

// ---- re-registration without a frozen main loop -------------------------------------

TEST_F(ServiceReturnTest, HelloRegistersHeldSubscriptionsWithoutFreezingTheMainLoopOrOtherThreadsReads) {
    Start();
    const char* held[] = {kVolume, kSource, kApp};
    for (const char* subject : held) ASSERT_TRUE(Lumora_Subscribe(subject, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<2>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return Heard(2).size() == 1; }, 5000));
    for (const char* subject : held) ASSERT_TRUE(Delay(subject, 600));
    m_monitor->Clear();
    LoopWatch watch;
    m_loop.Invoke([&] { watch.Start(); });
    auto restarted = Clock::now();
    ASSERT_TRUE(Restart());
    // The three registrations go out together, not one per 600 ms.
    ASSERT_TRUE(WaitUntil([&] { return SubscriptionTraffic().size() == 3; }, 5000)) << m_log.Dump();
    double allSentMs = MsSince(restarted);
    // A read of a subject that is not held is not kept waiting meanwhile.
    auto reading = Clock::now();
    char* other = Lumora_Read("Ctx/Sound/Output/Mode/Current", nullptr);
    double readMs = MsSince(reading);
    free(other);
    ASSERT_TRUE(WaitUntil([&] { return Heard(2).size() == 3; }, 5000)) << m_log.Dump();
    double helloMs = MsSince(restarted);
    m_loop.Invoke([&] { watch.Stop(); });
    printf(
        "timing: registrations out %.0f ms after the restart; another read took %.0f ms; \"hello\" told after "
        "%.0f ms; the main loop was blocked at most %.1f ms\n",
        allSentMs, readMs, helloMs, watch.LongestMs());
    EXPECT_EQ((std::vector<std::string>{"ready=1", "bye=0", "hello=1"}), Heard(2));
    EXPECT_LT(allSentMs, 550);
    EXPECT_LT(readMs, 400);
    EXPECT_LT(watch.LongestMs(), 200);
    // "hello" is told once the registrations were answered.
    EXPECT_GT(helloMs, 500);
}

TEST_F(ServiceReturnTest, TheLastStopOfAStoppedServiceDoesNotWaitForEachUnsubscription) {
    Start();
    for (int i = 0; i < 25; ++i) ASSERT_TRUE(Lumora_Subscribe(Numbered(i).c_str(), Recorded<1>, nullptr));
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGSTOP));
    auto stopping = Clock::now();
    EXPECT_TRUE(Lumora_FiniService());
    double ms = MsSince(stopping);
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGCONT));
    printf("timing: the last FiniService with 25 subscriptions and a stopped service: %.0f ms\n", ms);
    EXPECT_LT(ms, 2000);
    // Every unsubscription still reaches the service once it answers again.
    ASSERT_TRUE(WaitUntil([&] { return SubscriptionTraffic().size() == 50; }, 10000)) << SubscriptionTraffic().size();
    ASSERT_TRUE(WaitUntil([&] { return SimStatus()["subscriptions"].size() == 0; }, 10000));
}

// ---- availability without subscriptions ----------------------------------------------

TEST_F(ServiceReturnTest, AvailabilityFollowsTheServiceAfterTheLastUnsubscribe) {
    Start();
    ASSERT_TRUE(Lumora_Subscribe(kVolume, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_Unsubscribe(kVolume, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<2>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return Heard(2).size() == 1; }, 5000));
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGKILL));
    EXPECT_EQ(-1, m_sim.WaitForExit(5000));
    ASSERT_TRUE(m_sim.Start());
    ASSERT_TRUE(WaitUntil([&] { return Heard(2).size() == 3; }, 8000)) << m_log.Dump();
    EXPECT_EQ((std::vector<std::string>{"ready=1", "name-lost=0", "hello=1"}), Heard(2));
}

TEST_F(ServiceReturnTest, AvailabilityFollowsTheServiceAfterAStopAndStart) {
    Start();
    ASSERT_TRUE(Lumora_FiniService());
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<2>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return Heard(2).size() == 1; }, 5000));
    // The callback is told the state it had before the match rule for the
    // service's "BYE" left on GDBus's worker; a read's answer comes after the
    // bus daemon handled every message sent before it on that connection.
    free(Lumora_ReadCurrentSourceInfo(nullptr));
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGTERM));
    EXPECT_EQ(0, m_sim.WaitForExit(5000));
    ASSERT_TRUE(m_sim.Start());
    ASSERT_TRUE(WaitUntil([&] { return Heard(2).size() == 3; }, 8000)) << m_log.Dump();
    EXPECT_EQ((std::vector<std::string>{"ready=1", "bye=0", "hello=1"}), Heard(2));
}

TEST_F(ServiceReturnTest, AStopAndStartWhileTheServiceHangsIsFollowedByTheServiceOnceItAnswers) {
    constexpr int kSubjects = 20;
    Start();
    for (int i = 0; i < kSubjects; ++i) ASSERT_TRUE(SetSimValue(Numbered(i), "{\"n\":" + std::to_string(i) + "}"));
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGSTOP));
    ASSERT_TRUE(Lumora_FiniService());
    ASSERT_TRUE(Lumora_InitService());  // asks a service that does not answer
    EXPECT_FALSE(LMFServiceAPI::IsAvailable());
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<2>, nullptr));
    for (int i = 0; i < kSubjects; ++i)
        ASSERT_TRUE(Lumora_SubscribeWithValue(Numbered(i).c_str(), Recorded<1>, nullptr));
    g_usleep(2000 * 1000);
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGCONT));
    auto resumed = Clock::now();
    ASSERT_TRUE(WaitUntil([&] { return Heard(1).size() == kSubjects; }, 15000))
        << Heard(1).size() << " values; availability heard: " << Heard(2).size() << "\n"
        << m_log.Dump();
    printf("timing: service answering again -> %d values told: %.0f ms\n", kSubjects, MsSince(resumed));
    ASSERT_TRUE(WaitUntil([&] { return Heard(2).size() == 2; }, 5000)) << m_log.Dump();
    EXPECT_EQ((std::vector<std::string>{"no-answer=0", "ready=1"}), Heard(2));
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    char* value = Lumora_Read(Numbered(3).c_str(), nullptr);
    ASSERT_NE(nullptr, value);
    EXPECT_STREQ("{\"n\":3}", value);
    free(value);
    for (int i = 0; i < kSubjects; ++i) EXPECT_EQ(1u, SimSubscribers(Numbered(i)).size()) << Numbered(i);
}

// ---- an application that uses none of the newer features --------------------------

TEST_F(ServiceReturnTest, AnApplicationWithoutAvailabilityCallbacksOrValuesLogsOnlyTheLibrarysOwnUnits) {
    Start();
    ASSERT_TRUE(Lumora_Subscribe(kVolume, Recorded<1>, nullptr));
    ASSERT_TRUE(Restart());
    ASSERT_TRUE(WaitUntil([&] { return SubscriptionTraffic().size() == 2; }, 5000));
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGKILL));
    EXPECT_EQ(-1, m_sim.WaitForExit(5000));
    ASSERT_TRUE(m_sim.Start());
    ASSERT_TRUE(WaitUntil([&] { return SubscriptionTraffic().size() == 3; }, 5000));
    ASSERT_TRUE(Lumora_Unsubscribe(kVolume, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_FiniService());
    g_usleep(300 * 1000);
    const std::set<std::string> units = {"DBusClient.cpp",       "LMFServiceAPI.cpp", "LMFServiceAPI_managed.cpp",
                                         "CS_LMFServiceAPI.cpp", "LumoraAPI.cpp",     "LMFDIPC_managed.cpp"};
    for (const LogRecord& record : OwnRecords()) {
        EXPECT_EQ(1u, units.count(record.file)) << record.raw;
        EXPECT_EQ(std::string::npos, record.text.find("callback(s)")) << record.raw;
    }
}

}  // namespace
}  // namespace lumora::test
