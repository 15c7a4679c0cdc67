// When an application removes a callback on one thread while the main loop
// runs callbacks on another, the removal returns only once that callback is
// not running, and it is never called again: an application may free its
// user data as soon as Remove or Unsubscribe returns. From inside the
// callback itself, the removal returns at once.
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

// What the application keeps as user data: a callback that finds it removed
// (on entry or on exit) has used freed memory.
struct Watched {
    std::atomic<int> calls{0};
    std::atomic<bool> running{false};
    std::atomic<bool> removed{false};
    std::atomic<int> afterRemoval{0};
};

// Slow on purpose, so that a removal from another thread lands while it runs.
constexpr int kCallbackMs = 300;

void Enter(Watched* watched) {
    if (watched->removed) ++watched->afterRemoval;
    watched->running = true;
    ++watched->calls;
}

void Leave(Watched* watched) {
    std::this_thread::sleep_for(std::chrono::milliseconds(kCallbackMs));
    if (watched->removed) ++watched->afterRemoval;
    watched->running = false;
}

void SlowAvailability(int, const char*, void* userData) {
    auto* watched = static_cast<Watched*>(userData);
    Enter(watched);
    Leave(watched);
}

void SlowValue(const char*, char*, void* userData) {
    auto* watched = static_cast<Watched*>(userData);
    Enter(watched);
    Leave(watched);
}

void QuickValue(const char*, char*, void* userData) { Enter(static_cast<Watched*>(userData)); }

class CallbackRemovalTest : public EventTest {
protected:
    // Waits until the callback of watched runs, removes it with remove on
    // this thread, and says whether it was still running when remove
    // returned.
    template <typename Remove>
    bool RunningWhenRemoved(Watched& watched, Remove remove) {
        EXPECT_TRUE(WaitUntil([&] { return watched.running.load(); }, 5000)) << m_log.Dump();
        auto started = Clock::now();
        EXPECT_TRUE(remove());
        bool running = watched.running.load();
        watched.removed = true;
        printf("timing: removal returned after %.0f ms (callback runs %d ms)\n", MsSince(started), kCallbackMs);
        return running;
    }

    // Gives the main loop time for any call that might still come.
    void Settle() { g_usleep(2 * kCallbackMs * 1000); }
};

TEST_F(CallbackRemovalTest, RemovingAnAvailabilityCallbackWaitsForItsRunningCallAndEndsItsCalls) {
    Start();
    Watched watched;
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(SlowAvailability, &watched));
    EXPECT_FALSE(
        RunningWhenRemoved(watched, [&] { return Lumora_RemoveAvailabilityCallback(SlowAvailability, &watched); }));
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 100u)).Ok());
    Settle();
    EXPECT_EQ(1, watched.calls.load());
    EXPECT_EQ(0, watched.afterRemoval.load());
}

TEST_F(CallbackRemovalTest, UnsubscribingASubscriptionWithTheValueWaitsForTheRunningValueCallback) {
    Start();
    Watched watched;
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, SlowValue, &watched));
    EXPECT_FALSE(RunningWhenRemoved(watched, [&] { return Lumora_Unsubscribe(kVolume, SlowValue, &watched); }));
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":3}"));
    Settle();
    EXPECT_EQ(1, watched.calls.load());
    EXPECT_EQ(0, watched.afterRemoval.load());
}

TEST_F(CallbackRemovalTest, UnsubscribingWaitsForTheRunningNotificationCallback) {
    Start();
    Watched watched;
    ASSERT_TRUE(Lumora_Subscribe(kVolume, SlowValue, &watched));
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":4}"));
    EXPECT_FALSE(RunningWhenRemoved(watched, [&] { return Lumora_Unsubscribe(kVolume, SlowValue, &watched); }));
    EXPECT_EQ(0, watched.afterRemoval.load());
}

TEST_F(CallbackRemovalTest, ACallbackRemovedWhileAnotherOfItsSubjectRunsIsNotCalledForThatNotification) {
    Start();
    Watched slow;
    Watched next;
    ASSERT_TRUE(Lumora_Subscribe(kVolume, SlowValue, &slow));
    ASSERT_TRUE(Lumora_Subscribe(kVolume, QuickValue, &next));
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":5}"));
    ASSERT_TRUE(WaitUntil([&] { return slow.running.load(); }, 5000));
    ASSERT_TRUE(Lumora_Unsubscribe(kVolume, QuickValue, &next));
    next.removed = true;
    ASSERT_TRUE(WaitUntil([&] { return !slow.running.load(); }, 5000));
    Settle();
    EXPECT_EQ(0, next.calls.load());
}

TEST_F(CallbackRemovalTest, TheObjectInterfaceWaitsForItsRunningCallbacksToo) {
    ASSERT_TRUE(Lumora_InitService());
    LumoraAPI* api = LumoraAPI::GetInstance();
    ASSERT_TRUE(api->InitializeService());
    Watched value;
    ASSERT_TRUE(api->SubscribeWithValue(kVolume, SlowValue, &value));
    EXPECT_FALSE(RunningWhenRemoved(value, [&] { return api->UnSubscribe(kVolume, SlowValue, &value) || true; }));
    Watched availability;
    ASSERT_TRUE(api->AddAvailabilityCallback(SlowAvailability, &availability));
    EXPECT_FALSE(RunningWhenRemoved(availability,
                                    [&] { return api->RemoveAvailabilityCallback(SlowAvailability, &availability); }));
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 100u)).Ok());
    Settle();
    EXPECT_EQ(0, value.afterRemoval.load());
    EXPECT_EQ(0, availability.afterRemoval.load());
}

TEST_F(CallbackRemovalTest, TheLastStopWaitsForTheRunningCallbacksAndEndsThem) {
    Start();
    Watched watched;
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, SlowValue, &watched));
    EXPECT_FALSE(RunningWhenRemoved(watched, [&] { return Lumora_FiniService(); }));
    EXPECT_EQ(0, watched.afterRemoval.load());
}

// ---- a subscription and its removal racing on two threads -----------------------

TEST_F(CallbackRemovalTest, ASubscriptionWithTheValueRemovedMeanwhileLeavesNoFollowerBehind) {
    Start();
    // An answer held a while, so that the subscription's request is still out
    // when the other thread removes it.
    ASSERT_TRUE(Control(lumora::sim::kCtlSetDelay, g_variant_new("(su)", kVolume, 20u)).Ok());
    // Other threads keep the cores busy, so that either thread may be
    // preempted anywhere in its call.
    std::atomic<bool> busy{true};
    std::vector<std::thread> spinners;
    for (int i = 0; i < 2; ++i)
        spinners.emplace_back([&busy] {
            while (busy) std::this_thread::yield();
        });
    int orphans = 0;
    for (int round = 0; round < 100; ++round) {
        Watched watched;
        std::atomic<bool> go{false};
        std::atomic<bool> subscribed{false};
        std::thread subscriber([&] {
            while (!go) std::this_thread::yield();
            EXPECT_TRUE(Lumora_SubscribeWithValue(kVolume, QuickValue, &watched));
            subscribed = true;
        });
        std::thread remover([&] {
            while (!go) std::this_thread::yield();
            // Removed as soon as there is something to remove.
            for (bool last = false; !Lumora_Unsubscribe(kVolume, QuickValue, &watched); last = subscribed) {
                if (last) return;
                std::this_thread::yield();
            }
            watched.removed = true;
        });
        go = true;
        subscriber.join();
        remover.join();
        if (!watched.removed) Lumora_Unsubscribe(kVolume, QuickValue, &watched);
        watched.removed = true;
        g_usleep(60 * 1000);  // the held answer comes back
        if (watched.afterRemoval.load() != 0) ++orphans;
    }
    busy = false;
    for (std::thread& spinner : spinners) spinner.join();
    EXPECT_EQ(0, orphans);
}

// ---- the object interface's registrations end with it --------------------------

TEST_F(CallbackRemovalTest, FinalizeServiceEndsTheObjectInterfacesAvailabilityCallbacksAndValues) {
    LumoraAPI* api = LumoraAPI::GetInstance();
    ASSERT_TRUE(api->InitializeService());
    ASSERT_TRUE(api->AddAvailabilityCallback(RecordedAvailability<1>, nullptr));
    ASSERT_TRUE(api->SubscribeWithValue(kVolume, Recorded<2>, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(2, 5000));
    ASSERT_TRUE(api->FinalizeService());
    Recorder().Clear();
    // The service API starts the shared client again; the service restarts
    // with another volume.
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(RecordedAvailability<3>, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(1, 5000));
    ASSERT_TRUE(SetSimValue(kVolume, "{\"Level\":61}"));
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 100u)).Ok());
    ASSERT_TRUE(WaitUntil([&] { return Recorder().Count() >= 3; }, 5000)) << m_log.Dump();
    g_usleep(600 * 1000);
    for (const Delivery& delivery : Recorder().All()) EXPECT_EQ(3, delivery.callback) << delivery.subject;
}

}  // namespace
}  // namespace lumora::test
