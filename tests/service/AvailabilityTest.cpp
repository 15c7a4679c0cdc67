// Availability callbacks: an application is told when the service can be
// used and when it cannot, with the reason, once per change, on the main-loop
// thread. The service process is stopped with SIGTERM (it says "BYE") and
// SIGKILL (it says nothing) and started again under the running application.
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "ServiceFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";

// "reason=available" for each availability delivery to callback, in order.
std::vector<std::string> Heard(int callback) {
    std::vector<std::string> heard;
    for (const Delivery& delivery : CallbackRecorder::Instance().All())
        if (delivery.callback == callback) heard.push_back(delivery.subject + "=" + delivery.data);
    return heard;
}

class AvailabilityTest : public EventTest {
protected:
    std::thread::id LoopThread() {
        std::thread::id id;
        m_loop.Invoke([&] { id = std::this_thread::get_id(); });
        return id;
    }

    // Waits until callback heard count changes, then a little longer, so
    // that a second call for the same change would have come.
    std::vector<std::string> HeardAfter(int callback, size_t count) {
        EXPECT_TRUE(WaitUntil([&] { return Heard(callback).size() >= count; }, 8000)) << m_log.Dump();
        g_usleep(300 * 1000);
        return Heard(callback);
    }

    int m_user = 7;
};

TEST_F(AvailabilityTest, ACallbackAddedWhileTheServiceIsUpIsToldSoOnceFromTheMainLoop) {
    Start();
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<1>, &m_user));
    EXPECT_EQ((std::vector<std::string>{"ready=1"}), HeardAfter(1, 1));
    auto all = Recorder().All();
    EXPECT_EQ(&m_user, all[0].userData);
    EXPECT_EQ(LoopThread(), all[0].thread);
    // Telling the state sent nothing to the service.
    EXPECT_TRUE(LibraryCalls().empty());
}

TEST_F(AvailabilityTest, SigtermIsToldAsByeAndTheNewServiceAsHelloWithTheSubscriptionsAlreadyBack) {
    Start();
    ASSERT_TRUE(Lumora_Subscribe(kVolume, Recorded<9>, nullptr));
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<1>, nullptr));
    HeardAfter(1, 1);
    auto stopped = Clock::now();
    EXPECT_EQ(0, m_sim.Stop());
    ASSERT_TRUE(WaitUntil([&] { return Heard(1).size() == 2; }, 5000)) << m_log.Dump();
    double byeMs = MsSince(stopped);
    EXPECT_EQ((std::vector<std::string>{"ready=1", "bye=0"}), HeardAfter(1, 2));
    EXPECT_FALSE(LMFServiceAPI::IsAvailable());

    auto restarted = Clock::now();
    ASSERT_TRUE(m_sim.Start());
    ASSERT_TRUE(WaitUntil([&] { return Heard(1).size() == 3; }, 5000)) << m_log.Dump();
    double helloMs = MsSince(restarted);
    EXPECT_EQ((std::vector<std::string>{"ready=1", "bye=0", "hello=1"}), HeardAfter(1, 3));
    // By then the subscription is registered with the new service.
    EXPECT_EQ(1u, SimSubscribers(kVolume).size());
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    EXPECT_TRUE(m_log.Has("service available (hello): telling 1 callback(s)", 'I')) << m_log.Dump();
    printf("timing: SIGTERM -> \"bye\" told: %.0f ms; new service started -> \"hello\" told: %.0f ms\n", byeMs,
           helloMs);
}

TEST_F(AvailabilityTest, SigkillIsToldAsNameLostWithoutAnyCallOfTheApplication) {
    Start();
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<1>, nullptr));
    HeardAfter(1, 1);
    m_monitor->Clear();
    auto killed = Clock::now();
    ASSERT_EQ(0, kill(m_sim.Pid(), SIGKILL));
    EXPECT_EQ(-1, m_sim.WaitForExit(5000));
    ASSERT_TRUE(WaitUntil([&] { return Heard(1).size() == 2; }, 5000)) << m_log.Dump();
    printf("timing: SIGKILL -> \"name-lost\" told: %.0f ms\n", MsSince(killed));
    EXPECT_EQ((std::vector<std::string>{"ready=1", "name-lost=0"}), HeardAfter(1, 2));
    // Noticed from the bus daemon's news, not from a failed call.
    EXPECT_TRUE(LibraryCalls().empty());

    ASSERT_TRUE(m_sim.Start());
    EXPECT_EQ((std::vector<std::string>{"ready=1", "name-lost=0", "hello=1"}), HeardAfter(1, 3));
}

TEST_F(AvailabilityTest, EveryCallbackHearsEachChangeOnceAndARemovedOneNothingMore) {
    Start();
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<1>, nullptr));
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<1>, &m_user));  // another pair
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<2>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return Heard(1).size() == 2 && Heard(2).size() == 1; }, 5000));
    ASSERT_TRUE(Lumora_RemoveAvailabilityCallback(RecordedAvailability<2>, nullptr));
    // Two restarts: "BYE" and "HELLO" twice; a service still away when
    // rechecked is no change.
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 300u)).Ok());
        ASSERT_TRUE(WaitUntil([&] { return Heard(1).size() == 2u + 4u * (i + 1); }, 5000)) << m_log.Dump();
    }
    g_usleep(300 * 1000);
    EXPECT_EQ((std::vector<std::string>{"ready=1", "ready=1", "bye=0", "bye=0", "hello=1", "hello=1", "bye=0", "bye=0",
                                        "hello=1", "hello=1"}),
              Heard(1));
    EXPECT_EQ((std::vector<std::string>{"ready=1"}), Heard(2));
}

TEST_F(AvailabilityTest, AServiceThatSaysItIsNotEnabledIsToldAsByeAndItsReturnAsReady) {
    ASSERT_TRUE(Control(lumora::sim::kCtlSetEnabled, g_variant_new("(b)", FALSE)).Ok());
    ASSERT_TRUE(Lumora_InitService());  // not ready: checked again every 3 s
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<1>, nullptr));
    EXPECT_EQ((std::vector<std::string>{"bye=0"}), HeardAfter(1, 1));
    ASSERT_TRUE(Control(lumora::sim::kCtlSetEnabled, g_variant_new("(b)", TRUE)).Ok());
    // The next check finds it (two checks that found it disabled tell nothing).
    EXPECT_EQ((std::vector<std::string>{"bye=0", "ready=1"}), HeardAfter(1, 2));
}

// ---- callbacks that call the library -------------------------------------------

std::atomic<int> g_removals{0};

void RemovesItself(int available, const char* reason, void* userData) {
    RecordedAvailability<3>(available, reason, userData);
    if (Lumora_RemoveAvailabilityCallback(RemovesItself, userData)) ++g_removals;
}

void SubscribesOnHello(int available, const char* reason, void* userData) {
    RecordedAvailability<4>(available, reason, userData);
    if (available == 1 && std::string(reason) == "hello") {
        if (Lumora_SubscribeWithValue(kVolume, Recorded<5>, nullptr)) ++g_removals;
        char* value = Lumora_Read(kVolume, nullptr);
        CallbackRecorder::Instance().Add(6, kVolume, value, nullptr);
        free(value);
    }
}

TEST_F(AvailabilityTest, ACallbackMayRemoveItselfAndSubscribeAndReadFromInside) {
    g_removals = 0;
    Start();
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RemovesItself, nullptr));
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(SubscribesOnHello, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return Heard(3).size() == 1 && Heard(4).size() == 1; }, 5000));
    EXPECT_EQ(1, g_removals.load());
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 300u)).Ok());
    ASSERT_TRUE(WaitUntil([&] { return Heard(4).size() == 3; }, 5000)) << m_log.Dump();
    // The read from the callback reached the new service; the subscription
    // made there gets its current value, then the changes.
    ASSERT_TRUE(WaitUntil([&] { return !Heard(5).empty(); }, 5000)) << m_log.Dump();
    EXPECT_EQ(2, g_removals.load());
    auto all = Recorder().All();
    std::vector<Delivery> read, subscribed;
    for (const Delivery& delivery : all) {
        if (delivery.callback == 6) read.push_back(delivery);
        if (delivery.callback == 5) subscribed.push_back(delivery);
    }
    ASSERT_EQ(1u, read.size());
    EXPECT_EQ(SimValue(kVolume), read[0].data);
    EXPECT_EQ(SimValue(kVolume), subscribed[0].data);
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":44}"));
    ASSERT_TRUE(WaitUntil([&] { return Heard(5).size() == 2; }, 5000));
    g_usleep(300 * 1000);
    EXPECT_EQ((std::vector<std::string>{"ready=1"}), Heard(3));  // removed inside its first call
    EXPECT_EQ(1u, m_log.Count("service unavailable (bye): telling 1 callback(s)", 'I')) << m_log.Dump();
}

// ---- bad input ---------------------------------------------------------------------

TEST_F(AvailabilityTest, WrongCallsAreRefusedWithOneLineEach) {
    EXPECT_FALSE(Lumora_AddAvailabilityCallback(RecordedAvailability<1>, nullptr));
    EXPECT_FALSE(Lumora_RemoveAvailabilityCallback(RecordedAvailability<1>, nullptr));
    EXPECT_EQ(2u, m_log.Count("dbus not created!", 'E')) << m_log.Dump();

    Start();
    EXPECT_FALSE(Lumora_AddAvailabilityCallback(nullptr, nullptr));
    EXPECT_TRUE(m_log.Has("callback is null", 'E')) << m_log.Dump();
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<1>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return Heard(1).size() == 1; }, 5000));  // its line written
    m_log.Mark();
    EXPECT_FALSE(Lumora_AddAvailabilityCallback(RecordedAvailability<1>, nullptr));
    EXPECT_FALSE(Lumora_RemoveAvailabilityCallback(RecordedAvailability<2>, nullptr));
    std::vector<LogRecord> records = OwnRecords();
    ASSERT_EQ(2u, records.size()) << m_log.Dump();
    EXPECT_NE(std::string::npos, records[0].text.find("is already added")) << records[0].text;
    EXPECT_EQ("AddAvailabilityCallback", records[0].function);
    EXPECT_EQ("LMFServiceAPI.cpp", records[0].file);
    EXPECT_NE(std::string::npos, records[1].text.find("was not added")) << records[1].text;
    EXPECT_EQ("RemoveAvailabilityCallback", records[1].function);
    EXPECT_EQ('E', records[1].level);

    ASSERT_TRUE(Lumora_FiniService());
    m_log.Mark();
    EXPECT_FALSE(Lumora_AddAvailabilityCallback(RecordedAvailability<2>, nullptr));
    EXPECT_FALSE(Lumora_RemoveAvailabilityCallback(RecordedAvailability<1>, nullptr));
    EXPECT_EQ(2u, OwnRecords().size()) << m_log.Dump();
    EXPECT_EQ(2u, m_log.Count("[myapp] the service API is not started: call InitService first", 'E')) << m_log.Dump();
    // The stop removed the callback: a new start tells nothing to it.
    size_t before = Heard(1).size();
    ASSERT_TRUE(Lumora_InitService());
    g_usleep(300 * 1000);
    EXPECT_EQ(before, Heard(1).size());
}

}  // namespace
}  // namespace lumora::test
