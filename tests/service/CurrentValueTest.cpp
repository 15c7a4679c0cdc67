// Subscriptions with the current value: the value first, then every change,
// each once and in order; an answer older than a notification is dropped; and
// after every return of the service the values are asked again, so that a
// change made while it was away reaches the application without any emit.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "ServiceFixture.h"

namespace lumora::test {
namespace {

constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";
constexpr const char* kSource = "Ctx/Media/Source/Info/Current";
constexpr const char* kApp = "Ctx/App/Info/Current";
constexpr const char* kErrorText = "{\"Status\":\"Error\"}";

std::vector<std::string> DataTo(int callback) {
    std::vector<std::string> data;
    for (const Delivery& delivery : CallbackRecorder::Instance().All())
        if (delivery.callback == callback) data.push_back(delivery.data);
    return data;
}

class CurrentValueTest : public EventTest {
protected:
    std::string ScenarioWith(const std::string& subject, const std::string& value) {
        return ScenarioWithValue(m_dir, subject, value);
    }

    // What callback received once count deliveries came and a moment passed
    // in which a further one would have come.
    std::vector<std::string> DataAfter(int callback, size_t count, int timeoutMs = 5000) {
        EXPECT_TRUE(WaitUntil([&] { return DataTo(callback).size() >= count; }, timeoutMs)) << m_log.Dump();
        g_usleep(400 * 1000);
        return DataTo(callback);
    }

    bool Delay(const char* subject, unsigned ms) {
        return Control(lumora::sim::kCtlSetDelay, g_variant_new("(su)", subject, ms)).Ok();
    }

    int m_user = 5;
};

TEST_F(CurrentValueTest, TheCurrentValueComesFirstThenEveryChangeEachOnceInOrder) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, Recorded<1>, &m_user));
    const std::string now = SimValue(kVolume);
    EXPECT_EQ(std::vector<std::string>{now}, DataAfter(1, 1));
    auto first = Recorder().All()[0];
    EXPECT_EQ(kVolume, first.subject);
    EXPECT_EQ(&m_user, first.userData);
    // Subscribed first, asked second.
    auto calls = LibraryCalls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ("RequestSync", calls[0].member);
    EXPECT_EQ(3, calls[0].requestType);
    EXPECT_EQ("RequestAsync", calls[1].member);
    EXPECT_EQ(5, calls[1].requestType);
    EXPECT_EQ(kVolume, calls[1].subject);

    ASSERT_TRUE(Emit(kVolume, "{\"Level\":1}"));
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":2}"));
    EXPECT_EQ((std::vector<std::string>{now, "{\"Level\":1}", "{\"Level\":2}"}), DataAfter(1, 3));
}

TEST_F(CurrentValueTest, AChangeThatComesBeforeTheAnswerWinsAndTheStaleAnswerIsDropped) {
    Start();
    // Held long enough to emit meanwhile, short enough for the subscription's
    // own call (the same subject) to be answered within its time-out.
    ASSERT_TRUE(Delay(kVolume, 700));
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, Recorded<1>, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return SimStatus()["delayedAnswers"].asUInt() == 1; }, 5000));
    ASSERT_TRUE(Emit(kVolume, "{\"Level\":55}"));
    const std::string line = "stale answer for Ctx/Sound/Volume/Level/Current dropped: a notification came first";
    ASSERT_TRUE(WaitUntil([&] { return m_log.Has(line, 'E'); }, 5000)) << m_log.Dump();
    EXPECT_EQ(std::vector<std::string>{"{\"Level\":55}"}, DataAfter(1, 1));
    auto dropped = m_log.Find(line);
    ASSERT_EQ(1u, dropped.size()) << m_log.Dump();
    EXPECT_EQ("DeliverCurrentValue", dropped[0].function);
    EXPECT_EQ("LMFServiceAPI.cpp", dropped[0].file);
}

TEST_F(CurrentValueTest, AFailedAnswerIsTheErrorTextAndTheSubscriptionStays) {
    Start();
    ASSERT_TRUE(Control(lumora::sim::kCtlSetResultCode, g_variant_new("(si)", kApp, 3)).Ok());
    ASSERT_TRUE(Lumora_SubscribeWithValue(kApp, Recorded<1>, nullptr));
    EXPECT_EQ(std::vector<std::string>{kErrorText}, DataAfter(1, 1));
    EXPECT_TRUE(m_log.Has("ERROR!!! : Subejct=Ctx/App/Info/Current ret=3", 'E')) << m_log.Dump();
    ASSERT_TRUE(Emit(kApp, "{\"AppId\":\"x\"}"));
    EXPECT_EQ((std::vector<std::string>{kErrorText, "{\"AppId\":\"x\"}"}), DataAfter(1, 2));
}

TEST_F(CurrentValueTest, UnsubscribingBeforeTheAnswerMeansTheAnswerIsNeverDelivered) {
    Start();
    ASSERT_TRUE(Delay(kVolume, 800));
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_Unsubscribe(kVolume, Recorded<1>, nullptr));
    EXPECT_EQ((std::vector<std::string>{"3 " + std::string(kVolume), "4 " + std::string(kVolume)}),
              SubscriptionTraffic());
    g_usleep(1500 * 1000);
    EXPECT_TRUE(DataTo(1).empty());
    // Subscribing again the ordinary way is a plain subscription.
    ASSERT_TRUE(Lumora_Subscribe(kVolume, Recorded<1>, nullptr));
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 200u)).Ok());
    g_usleep(800 * 1000);
    EXPECT_TRUE(DataTo(1).empty());
}

TEST_F(CurrentValueTest, WhatSubscribeRefusesSubscribeWithValueRefusesWithOneLine) {
    EXPECT_FALSE(Lumora_SubscribeWithValue(kVolume, Recorded<1>, nullptr));
    EXPECT_EQ(1u, m_log.Count("dbus not created!", 'E')) << m_log.Dump();
    Start();
    EXPECT_FALSE(Lumora_SubscribeWithValue("I/Raw/Streaming/Event", Recorded<1>, nullptr));
    EXPECT_EQ(1u, m_log.Count("This subject is not for external apps .. ", 'E')) << m_log.Dump();
    EXPECT_FALSE(Lumora_SubscribeWithValue(nullptr, Recorded<1>, nullptr));
    EXPECT_FALSE(Lumora_SubscribeWithValue(kVolume, nullptr, nullptr));
    EXPECT_TRUE(m_log.Has("[myapp] callback is null", 'E')) << m_log.Dump();
    EXPECT_FALSE(Lumora_SubscribeWithValue("I/TallyDB/App/Duration", Recorded<1>, nullptr));
    EXPECT_TRUE(m_log.Has("I/TallyDB/App/Duration answers records, not a value to follow: request it instead", 'E'))
        << m_log.Dump();
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, Recorded<1>, nullptr));
    m_log.Mark();
    EXPECT_FALSE(Lumora_SubscribeWithValue(kVolume, Recorded<1>, nullptr));  // already subscribed
    EXPECT_EQ(1u, OwnRecords().size()) << m_log.Dump();
    EXPECT_TRUE(m_log.Has(AlreadySubscribed(kVolume, Recorded<1>), 'E')) << m_log.Dump();
    EXPECT_EQ((std::vector<std::string>{"3 " + std::string(kVolume)}), SubscriptionTraffic());
    EXPECT_EQ(1u, DataAfter(1, 1).size());
}

// ---- catching up after the service came back -------------------------------------

TEST_F(CurrentValueTest, AfterSigtermTheNewServicesDifferentValueIsToldWithoutAnyEmit) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_Subscribe(kVolume, Recorded<2>, nullptr));  // a plain one beside it
    const std::string before = SimValue(kVolume);
    ASSERT_EQ(std::vector<std::string>{before}, DataAfter(1, 1));
    const std::string changed = ScenarioWith(kVolume, "{\"Level\":9,\"Mute\":false,\"Max\":100}");

    EXPECT_EQ(0, m_sim.Stop());
    auto restarted = Clock::now();
    ASSERT_TRUE(m_sim.Start(changed));
    ASSERT_TRUE(WaitUntil([&] { return DataTo(1).size() == 2; }, 5000)) << m_log.Dump();
    printf("timing: new service started -> changed value told: %.0f ms\n", MsSince(restarted));
    const std::string after = SimValue(kVolume);
    ASSERT_NE(before, after);
    EXPECT_EQ((std::vector<std::string>{before, after}), DataAfter(1, 2));
    EXPECT_TRUE(DataTo(2).empty());  // plain subscriptions keep their behaviour
    EXPECT_TRUE(m_log.Has("service hello: asking 1 current value(s) again", 'I')) << m_log.Dump();
}

TEST_F(CurrentValueTest, AfterSigkillAnUnchangedValueIsNotToldAgainAndAChangedOneIs) {
    Start();
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_SubscribeWithValue(kSource, Recorded<2>, nullptr));
    const std::string volume = SimValue(kVolume);
    const std::string source = SimValue(kSource);
    ASSERT_TRUE(WaitUntil([&] { return DataTo(1).size() == 1 && DataTo(2).size() == 1; }, 5000));

    ASSERT_EQ(0, kill(m_sim.Pid(), SIGKILL));
    EXPECT_EQ(-1, m_sim.WaitForExit(5000));
    auto restarted = Clock::now();
    ASSERT_TRUE(m_sim.Start(ScenarioWith(kSource, "{\"Source\":\"HDMI1\",\"SrcType\":\"EXT\"}")));
    ASSERT_TRUE(WaitUntil([&] { return DataTo(2).size() == 2; }, 5000)) << m_log.Dump();
    printf("timing: service killed and started again -> changed value told: %.0f ms\n", MsSince(restarted));
    EXPECT_EQ((std::vector<std::string>{source, SimValue(kSource)}), DataAfter(2, 2));
    EXPECT_EQ(std::vector<std::string>{volume}, DataTo(1));
    // Both were asked again, the unchanged one too.
    EXPECT_TRUE(m_log.Has("service hello: asking 2 current value(s) again", 'I')) << m_log.Dump();
}

TEST_F(CurrentValueTest, TheRequestsOfACatchUpAreInFlightTogether) {
    Start();
    // Every call for these subjects is held 600 ms: the subscriptions too,
    // which the library registers again one after another.
    const char* subjects[] = {kVolume, kSource, kApp};
    for (const char* subject : subjects) ASSERT_TRUE(Delay(subject, 600));
    ASSERT_TRUE(Lumora_SubscribeWithValue(kVolume, Recorded<1>, nullptr));
    ASSERT_TRUE(Lumora_SubscribeWithValue(kSource, Recorded<2>, nullptr));
    ASSERT_TRUE(Lumora_SubscribeWithValue(kApp, Recorded<3>, nullptr));
    ASSERT_TRUE(Recorder().WaitForCount(3, 5000));
    // Changed while the service is away (as far as the application knows).
    ASSERT_TRUE(SetSimValue(kVolume, "{\"Level\":70}"));
    ASSERT_TRUE(SetSimValue(kSource, "{\"Source\":\"HDMI2\"}"));
    ASSERT_TRUE(SetSimValue(kApp, "{\"AppId\":\"y\"}"));
    ASSERT_TRUE(Control(lumora::sim::kCtlRestart, g_variant_new("(u)", 100u)).Ok());
    ASSERT_TRUE(WaitUntil([&] { return m_log.Has("service hello: asking 3 current value(s) again", 'I'); }, 8000))
        << m_log.Dump();
    auto asked = Clock::now();
    ASSERT_TRUE(Recorder().WaitForCount(6, 8000)) << m_log.Dump();
    double ms = MsSince(asked);
    // About 600 ms when the three are in flight together, 1800 ms one after
    // another.
    EXPECT_LT(ms, 1400) << "catch-up took " << ms << " ms";
    printf("timing: catch-up of 3 changed values (answers held 600 ms each): %.0f ms\n", ms);
    EXPECT_EQ("{\"Level\":70}", DataTo(1).back());
    EXPECT_EQ("{\"Source\":\"HDMI2\"}", DataTo(2).back());
    EXPECT_EQ("{\"AppId\":\"y\"}", DataTo(3).back());
}

}  // namespace
}  // namespace lumora::test
