// Subscriptions of the GObject API: "changed" once per change and in order,
// the current value first with WITH_VALUE, independent subscriptions of one
// subject, what the service is told (one registration per subject and kind,
// dropped with the last subscription, by cancel or by the last unref), and
// changes heard again from a new service after the old one was killed.
#include <signal.h>

#include "GlibFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";
constexpr const char* kSource = "Ctx/Media/Source/Info/Current";

class GlibSubscriptionTest : public GlibTest {
protected:
    LumoraSubscription* Subscribe(const char* subject, LumoraSubscribeFlags flags) {
        GError* error = nullptr;
        LumoraSubscription* subscription = lumora_client_subscribe(m_client, subject, flags, &error);
        EXPECT_EQ(nullptr, error) << error->message;
        g_clear_error(&error);
        return subscription;
    }
    bool WaitForChanges(const ChangeRecorder& recorder, size_t count, int timeoutMs = 5000) {
        return IterateUntil([&] { return recorder.data.size() >= count; }, timeoutMs);
    }
};

TEST_F(GlibSubscriptionTest, ChangedIsEmittedOncePerChangeInOrderAfterTheValueIsSet) {
    Start();
    LumoraSubscription* subscription = Subscribe(kVolume, LUMORA_SUBSCRIBE_FLAGS_NONE);
    ASSERT_NE(nullptr, subscription);
    EXPECT_STREQ(kVolume, lumora_subscription_get_subject(subscription));
    EXPECT_EQ(LUMORA_SUBSCRIBE_FLAGS_NONE, lumora_subscription_get_flags(subscription));
    EXPECT_EQ(nullptr, lumora_subscription_dup_value(subscription));
    ChangeRecorder recorder;
    recorder.Connect(subscription);
    EXPECT_EQ((std::vector<std::string>{"3 " + std::string(kVolume)}), SubscriptionTraffic());

    for (int level = 1; level <= 3; ++level) ASSERT_TRUE(Emit(kVolume, "{\"Level\":" + std::to_string(level) + "}"));
    ASSERT_TRUE(WaitForChanges(recorder, 3));
    IterateFor(300);
    std::vector<std::string> expected{"{\"Level\":1}", "{\"Level\":2}", "{\"Level\":3}"};
    EXPECT_EQ(expected, recorder.data);
    EXPECT_EQ(expected, recorder.valueAtEmission);
    EXPECT_EQ(3, recorder.valueNotifications);
    char* value = nullptr;
    g_object_get(subscription, "value", &value, nullptr);
    EXPECT_STREQ("{\"Level\":3}", value);
    g_free(value);
    EXPECT_EQ(std::this_thread::get_id(), recorder.thread);
    g_object_unref(subscription);
}

TEST_F(GlibSubscriptionTest, WithValueTheCurrentValueComesFirstThenEveryChange) {
    Start();
    LumoraSubscription* subscription = Subscribe(kVolume, LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE);
    ASSERT_NE(nullptr, subscription);
    ChangeRecorder recorder;
    recorder.Connect(subscription);
    const std::string now = SimValue(kVolume);
    ASSERT_TRUE(WaitForChanges(recorder, 1));
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":9}"));
    ASSERT_TRUE(WaitForChanges(recorder, 2));
    IterateFor(300);
    EXPECT_EQ((std::vector<std::string>{now, "{\"Level\":9}"}), recorder.data);
    g_object_unref(subscription);
}

TEST_F(GlibSubscriptionTest, TwoSubscriptionsOfASubjectAreIndependentAndTheServiceIsToldOnce) {
    Start();
    LumoraSubscription* first = Subscribe(kVolume, LUMORA_SUBSCRIBE_FLAGS_NONE);
    LumoraSubscription* second = Subscribe(kVolume, LUMORA_SUBSCRIBE_FLAGS_NONE);
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    ChangeRecorder one;
    ChangeRecorder two;
    one.Connect(first);
    two.Connect(second);
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":1}"));
    ASSERT_TRUE(IterateUntil([&] { return one.data.size() == 1 && two.data.size() == 1; }));
    EXPECT_EQ((std::vector<std::string>{"3 " + std::string(kVolume)}), SubscriptionTraffic());

    lumora_subscription_cancel(first);
    EXPECT_TRUE(lumora_subscription_is_cancelled(first));
    EXPECT_FALSE(lumora_subscription_is_cancelled(second));
    EXPECT_EQ((std::vector<std::string>{"3 " + std::string(kVolume)}), SubscriptionTraffic());
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":2}"));
    ASSERT_TRUE(WaitForChanges(two, 2));
    IterateFor(300);
    EXPECT_EQ(std::vector<std::string>{"{\"Level\":1}"}, one.data);
    EXPECT_EQ((std::vector<std::string>{"{\"Level\":1}", "{\"Level\":2}"}), two.data);

    lumora_subscription_cancel(second);
    EXPECT_EQ((std::vector<std::string>{"3 " + std::string(kVolume), "4 " + std::string(kVolume)}),
              SubscriptionTraffic());
    lumora_subscription_cancel(second);  // again: nothing more
    EXPECT_EQ(2u, SubscriptionTraffic().size());
    g_object_unref(first);
    g_object_unref(second);
    EXPECT_EQ(2u, SubscriptionTraffic().size());
}

TEST_F(GlibSubscriptionTest, TheLastUnrefUnsubscribesOnTheBus) {
    Start();
    LumoraSubscription* subscription = Subscribe(kSource, LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE);
    ASSERT_NE(nullptr, subscription);
    ASSERT_TRUE(IterateUntil([&] { return SimStatus()["subscriptions"][kSource].size() == 1; }));
    g_object_unref(subscription);
    EXPECT_EQ((std::vector<std::string>{"3 " + std::string(kSource), "4 " + std::string(kSource)}),
              SubscriptionTraffic());
    EXPECT_TRUE(SimStatus()["subscriptions"][kSource].empty());
    EXPECT_EQ(1u, OwnCount("no longer following Ctx/Media/Source/Info/Current with its current value")) << m_log.Dump();
}

// The subscription's context is one of its own, iterated here by hand: a
// change the library already posted to it is dropped once it is cancelled.
TEST_F(GlibSubscriptionTest, ACancelledSubscriptionEmitsNothingMoreEvenForAChangeAlreadyOnItsWay) {
    Start();
    GMainContext* own = g_main_context_new();
    g_main_context_push_thread_default(own);
    LumoraSubscription* subscription = Subscribe(kVolume, LUMORA_SUBSCRIBE_FLAGS_NONE);
    g_main_context_pop_thread_default(own);
    ChangeRecorder recorder;
    recorder.Connect(subscription);
    auto drainOwn = [own] {
        g_main_context_push_thread_default(own);
        while (g_main_context_iteration(own, FALSE)) {
        }
        g_main_context_pop_thread_default(own);
    };
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":5}"));
    ASSERT_TRUE(IterateUntil([&] { return g_main_context_pending(own); }));
    drainOwn();
    EXPECT_EQ(std::vector<std::string>{"{\"Level\":5}"}, recorder.data);
    EXPECT_EQ(own, recorder.context);

    ASSERT_TRUE(Emit(kVolume, "{\"Level\":6}"));
    ASSERT_TRUE(IterateUntil([&] { return g_main_context_pending(own); }));  // posted, not yet emitted
    lumora_subscription_cancel(subscription);
    drainOwn();
    IterateFor(200);
    drainOwn();
    EXPECT_EQ(std::vector<std::string>{"{\"Level\":5}"}, recorder.data);
    char* value = lumora_subscription_dup_value(subscription);
    EXPECT_STREQ("{\"Level\":5}", value);
    g_free(value);
    g_object_unref(subscription);
    drainOwn();
    g_main_context_unref(own);
}

TEST_F(GlibSubscriptionTest, AWithValueSubscriptionThatJoinsIsToldTheLastValueFirst) {
    Start();
    LumoraSubscription* first = Subscribe(kVolume, LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE);
    ChangeRecorder one;
    one.Connect(first);
    ASSERT_TRUE(WaitForChanges(one, 1));  // the current value (a change before it would win over it)
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":41}"));
    ASSERT_TRUE(WaitForChanges(one, 2));
    LumoraSubscription* second = Subscribe(kVolume, LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE);
    ChangeRecorder two;
    two.Connect(second);
    ASSERT_TRUE(WaitForChanges(two, 1));
    EXPECT_EQ(std::vector<std::string>{"{\"Level\":41}"}, two.data);
    // A plain one of the same subject beside them: each hears each change once.
    LumoraSubscription* plain = Subscribe(kVolume, LUMORA_SUBSCRIBE_FLAGS_NONE);
    ChangeRecorder three;
    three.Connect(plain);
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":42}"));
    ASSERT_TRUE(IterateUntil([&] { return one.data.size() == 3 && two.data.size() == 2 && three.data.size() == 1; }));
    IterateFor(300);
    EXPECT_EQ("{\"Level\":42}", one.data.back());
    EXPECT_EQ((std::vector<std::string>{"{\"Level\":41}", "{\"Level\":42}"}), two.data);
    EXPECT_EQ(std::vector<std::string>{"{\"Level\":42}"}, three.data);
    g_object_unref(first);
    g_object_unref(second);
    g_object_unref(plain);
    // One library subscription per kind; the service hears of the subject
    // once, and forgets it when the last of them goes.
    EXPECT_EQ((std::vector<std::string>{"3 " + std::string(kVolume), "4 " + std::string(kVolume)}),
              SubscriptionTraffic());
}

TEST_F(GlibSubscriptionTest, ChangesAreHeardFromANewServiceAfterTheOldOneWasKilled) {
    Start();
    LumoraSubscription* subscription = Subscribe(kVolume, LUMORA_SUBSCRIBE_FLAGS_NONE);
    ChangeRecorder recorder;
    recorder.Connect(subscription);
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":1}"));
    ASSERT_TRUE(WaitForChanges(recorder, 1));

    ASSERT_EQ(0, kill(m_sim.Pid(), SIGKILL));
    EXPECT_EQ(-1, m_sim.WaitForExit(5000));
    ASSERT_TRUE(WaitForAvailable(false));
    ASSERT_TRUE(m_sim.Start());
    ASSERT_TRUE(WaitForAvailable(true));
    // Registered again by the C library with the new service.
    ASSERT_TRUE(IterateUntil([&] { return SimStatus()["subscriptions"][kVolume].size() == 1; }));
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":2}"));
    ASSERT_TRUE(WaitForChanges(recorder, 2)) << m_log.Dump();
    EXPECT_EQ((std::vector<std::string>{"{\"Level\":1}", "{\"Level\":2}"}), recorder.data);
    g_object_unref(subscription);
}

TEST_F(GlibSubscriptionTest, WhatASubscriptionDoesNotTakeIsRefusedWithAnErrorAndNothingIsSent) {
    Start();
    GError* error = nullptr;
    EXPECT_EQ(nullptr, lumora_client_subscribe(m_client, "ab", LUMORA_SUBSCRIBE_FLAGS_NONE, &error));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_INVALID_ARGUMENT, ClientErrorCode(error));
    EXPECT_STREQ("subject \"ab\" is too short: a subject has three characters or more", error->message);
    g_clear_error(&error);
    EXPECT_EQ(nullptr, lumora_client_subscribe(m_client, "I/Raw/Streaming/Event", LUMORA_SUBSCRIBE_FLAGS_NONE, &error));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_NOT_ALLOWED, ClientErrorCode(error));
    g_clear_error(&error);
    EXPECT_EQ(nullptr, lumora_client_subscribe(m_client, "I/TallyDB/App/Duration", LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE,
                                               &error));
    EXPECT_EQ(LUMORA_CLIENT_ERROR_INVALID_ARGUMENT, ClientErrorCode(error));
    g_clear_error(&error);
    EXPECT_EQ(nullptr, lumora_client_subscribe(m_client, kVolume, static_cast<LumoraSubscribeFlags>(4), &error));
    EXPECT_STREQ("unknown subscribe flags 0x4", error->message);
    g_clear_error(&error);
    EXPECT_TRUE(LibraryCalls().empty());
}

TEST_F(GlibSubscriptionTest, ASubscriptionHoldsTheClientAndTheServiceApiStopsWithTheLastOfBoth) {
    Start();
    LumoraSubscription* subscription = Subscribe(kVolume, LUMORA_SUBSCRIBE_FLAGS_NONE);
    g_clear_object(&m_client);
    EXPECT_EQ(1, LMFServiceAPI::m_nRefCnt);
    ChangeRecorder recorder;
    recorder.Connect(subscription);
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":7}"));
    ASSERT_TRUE(WaitForChanges(recorder, 1));
    g_object_unref(subscription);
    EXPECT_EQ(0, LMFServiceAPI::m_nRefCnt);
    EXPECT_EQ((std::vector<std::string>{"3 " + std::string(kVolume), "4 " + std::string(kVolume)}),
              SubscriptionTraffic());
}

}  // namespace
}  // namespace lumora::test
