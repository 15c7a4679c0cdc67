// The rules behind availability callbacks, subscriptions with the current
// value and callbacks that call back into the library, without a bus: which
// answers reach a callback, which states are news, which calls are refused,
// and when a removal returns.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "internal/AvailabilityLog.h"
#include "internal/CallbackGate.h"
#include "internal/FollowerTable.h"
#include "internal/Reentry.h"
#include "internal/ServiceContract.h"

namespace lumora::internal {
namespace {

using Outcome = FollowerTable::Outcome;

constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";

void Callback(const char*, char*, void*) {}
void Other(const char*, char*, void*) {}

// ---- the current values: which answer counts ----------------------------------------

class FollowerTableTest : public testing::Test {
protected:
    uintptr_t Ask(uint64_t id) {
        uintptr_t token = 0;
        std::string subject;
        EXPECT_TRUE(m_table.Prepare(id, token, subject));
        EXPECT_EQ(kVolume, subject);
        return token;
    }
    Outcome Answer(uintptr_t token, const std::string& data, bool serviceAway = false) {
        return m_table.TakeAnswer(token, data, serviceAway, m_target);
    }

    FollowerTable m_table;
    FollowerTable::Target m_target{};
    int m_user = 0;
};

TEST_F(FollowerTableTest, TheFirstAnswerIsDeliveredToItsCallbackWithItsUserData) {
    uint64_t id = m_table.Add(EventOwner::kServiceApi, kVolume, Callback, &m_user);
    EXPECT_EQ(Outcome::kDeliver, Answer(Ask(id), "{\"Level\":3}"));
    EXPECT_EQ(kVolume, m_target.subject);
    EXPECT_EQ(&Callback, m_target.callback);
    EXPECT_EQ(&m_user, m_target.userData);
    EXPECT_FALSE(m_target.hadValue);
}

TEST_F(FollowerTableTest, AnAnswerAskedBeforeANotificationOfItsSubjectIsStale) {
    uint64_t id = m_table.Add(EventOwner::kServiceApi, kVolume, Callback, nullptr);
    uintptr_t token = Ask(id);
    m_table.Notify(kVolume, "{\"Level\":9}");
    EXPECT_EQ(Outcome::kStale, Answer(token, "{\"Level\":3}"));
    // A notification of another subject does not make it stale.
    token = Ask(id);
    m_table.Notify("Ctx/App/Info/Current", "{}");
    EXPECT_EQ(Outcome::kDeliver, Answer(token, "{\"Level\":4}"));
}

TEST_F(FollowerTableTest, OnlyTheLastRequestOfAFollowerCounts) {
    uint64_t id = m_table.Add(EventOwner::kServiceApi, kVolume, Callback, nullptr);
    uintptr_t older = Ask(id);
    uintptr_t newer = Ask(id);
    EXPECT_EQ(Outcome::kNotAwaited, Answer(older, "{\"Level\":1}"));
    EXPECT_EQ(Outcome::kDeliver, Answer(newer, "{\"Level\":2}"));
    EXPECT_EQ(Outcome::kNotAwaited, Answer(newer, "{\"Level\":2}"));  // once
}

TEST_F(FollowerTableTest, WhatTheCallbackWasToldLastIsNotToldAgain) {
    uint64_t id = m_table.Add(EventOwner::kServiceApi, kVolume, Callback, nullptr);
    EXPECT_EQ(Outcome::kDeliver, Answer(Ask(id), "{\"Level\":1}"));
    EXPECT_EQ(Outcome::kUnchanged, Answer(Ask(id), "{\"Level\":1}"));
    m_table.Notify(kVolume, "{\"Level\":2}");  // told by the notification
    EXPECT_EQ(Outcome::kUnchanged, Answer(Ask(id), "{\"Level\":2}"));
    EXPECT_EQ(Outcome::kDeliver, Answer(Ask(id), "{\"Level\":3}"));
    EXPECT_TRUE(m_target.hadValue);
}

TEST_F(FollowerTableTest, AFailedAnswerIsNewsOnlyForTheFirstAskAndNotWhileTheServiceIsAway) {
    uint64_t first = m_table.Add(EventOwner::kServiceApi, kVolume, Callback, nullptr);
    EXPECT_EQ(Outcome::kLater, Answer(Ask(first), contract::kErrorJson, true));
    EXPECT_EQ(Outcome::kDeliver, Answer(Ask(first), contract::kErrorJson, false));
    EXPECT_EQ(Outcome::kDeliver, Answer(Ask(first), "{\"Level\":1}"));
    EXPECT_EQ(Outcome::kKeepLast, Answer(Ask(first), contract::kErrorJson));
}

TEST_F(FollowerTableTest, ARemovedFollowerAwaitsNothingAndTheOthersStay) {
    uint64_t kept = m_table.Add(EventOwner::kServiceApi, kVolume, Callback, nullptr);
    uint64_t gone = m_table.Add(EventOwner::kObjectInterface, kVolume, Other, &m_user);
    uintptr_t keptToken = Ask(kept);
    uintptr_t goneToken = Ask(gone);
    EXPECT_EQ(1u, m_table.Remove([](EventOwner owner, const std::string&, LumoraSubjectCb, void*) {
        return owner == EventOwner::kObjectInterface;
    }));
    EXPECT_FALSE(m_table.Has(EventOwner::kObjectInterface, kVolume, Other, &m_user));
    EXPECT_TRUE(m_table.Has(EventOwner::kServiceApi, kVolume, Callback, nullptr));
    EXPECT_EQ(Outcome::kNotAwaited, Answer(goneToken, "{}"));
    EXPECT_EQ(Outcome::kDeliver, Answer(keptToken, "{\"Level\":5}"));
    uintptr_t token = 0;
    std::string subject;
    EXPECT_FALSE(m_table.Prepare(gone, token, subject));
}

TEST_F(FollowerTableTest, AnAbandonedRequestIsNoLongerAwaited) {
    uint64_t id = m_table.Add(EventOwner::kServiceApi, kVolume, Callback, nullptr);
    uintptr_t token = Ask(id);
    m_table.Abandon(token);
    EXPECT_EQ(Outcome::kNotAwaited, Answer(token, "{\"Level\":1}"));
}

TEST_F(FollowerTableTest, TheMarkSeparatesFollowersOlderThanAnEventFromNewerOnes) {
    uint64_t old = m_table.Add(EventOwner::kServiceApi, kVolume, Callback, nullptr);
    uint64_t mark = m_table.Mark();
    uint64_t newer = m_table.Add(EventOwner::kObjectInterface, kVolume, Other, nullptr);
    auto older = m_table.Between(0, mark);
    ASSERT_EQ(1u, older.size());
    EXPECT_EQ(old, older[0].first);
    EXPECT_EQ(EventOwner::kServiceApi, older[0].second);
    auto since = m_table.Between(mark, m_table.Mark());
    ASSERT_EQ(1u, since.size());
    EXPECT_EQ(newer, since[0].first);
    EXPECT_EQ(EventOwner::kObjectInterface, since[0].second);
}

// ---- availability: which states are news -------------------------------------------

TEST(AvailabilityLogTest, AServiceStillAwayIsNoNewsAndEachReturnIs) {
    AvailabilityLog log;
    AvailabilityLog::Change change{};
    EXPECT_FALSE(log.Current(change));
    EXPECT_TRUE(log.Record(1, "ready", 1, true));
    EXPECT_TRUE(log.Record(0, "bye", 1, true));
    EXPECT_FALSE(log.Record(0, "name-lost", 1, true));  // away already
    EXPECT_TRUE(log.Record(1, "hello", 2, true));
    EXPECT_TRUE(log.Record(1, "hello", 3, true));   // another restart: values may have changed
    EXPECT_FALSE(log.Record(1, "ready", 3, true));  // a check that finds it still there
    std::vector<std::string> told;
    while (log.Next(change)) told.push_back(std::string(change.reason) + "=" + std::to_string(change.available));
    EXPECT_EQ((std::vector<std::string>{"ready=1", "bye=0", "hello=1", "hello=1"}), told);
    ASSERT_TRUE(log.Current(change));
    EXPECT_STREQ("hello", change.reason);
    EXPECT_EQ(3u, change.followers);
}

TEST(AvailabilityLogTest, WithNobodyToTellTheStateIsKeptButNothingIsQueued) {
    AvailabilityLog log;
    EXPECT_TRUE(log.Record(1, "ready", 1, false));
    EXPECT_TRUE(log.Record(0, "no-answer", 1, false));
    AvailabilityLog::Change change{};
    EXPECT_FALSE(log.Next(change));
    ASSERT_TRUE(log.Current(change));
    EXPECT_EQ(0, change.available);
    EXPECT_STREQ("no-answer", change.reason);
}

// ---- callbacks that call back into the library --------------------------------------

TEST(ReentryTest, AnOperationIsRefusedExactlyWhenItWouldWaitForALockItsThreadHolds) {
    EXPECT_EQ(nullptr, BlockingLock(kServiceMutex | kClientMutex));  // no callback running
    {
        CallbackUnderLock request(kClientMutex);  // a request's callback
        EXPECT_STREQ("the client mutex", BlockingLock(kClientMutex));
        EXPECT_STREQ("the client mutex", BlockingLock(kServiceMutex | kClientMutex));
        // m_mutex after the client mutex is the reverse of the lock order.
        EXPECT_STREQ("the client mutex", BlockingLock(kServiceMutex));
        EXPECT_EQ(nullptr, BlockingLock(0));  // a write takes no lock
    }
    {
        CallbackUnderLock channel(kServiceMutex);  // the channel callback
        EXPECT_STREQ("LMFServiceAPI::m_mutex", BlockingLock(kServiceMutex));
        EXPECT_STREQ("LMFServiceAPI::m_mutex", BlockingLock(kServiceMutex | kClientMutex));
        EXPECT_EQ(nullptr, BlockingLock(kClientMutex));  // in the lock order
        {
            CallbackUnderLock nested(kClientMutex);
            EXPECT_STREQ("the client mutex", BlockingLock(kClientMutex));
        }
        EXPECT_EQ(nullptr, BlockingLock(kClientMutex));  // the nested mark ended
    }
    EXPECT_EQ(nullptr, BlockingLock(kServiceMutex | kClientMutex));
    // The mark is the thread's own.
    CallbackUnderLock request(kClientMutex);
    const char* elsewhere = "unset";
    std::thread([&] { elsewhere = BlockingLock(kClientMutex); }).join();
    EXPECT_EQ(nullptr, elsewhere);
}

// ---- the gate: when a removal returns ----------------------------------------------

CallbackKey Key(const char* subject, const void* userData) {
    return {CallbackTable::kServiceSubjects, subject, CallbackId(Callback), userData};
}

TEST(CallbackGateTest, ADeliveryRetiredBeforeItBeganIsNeverMade) {
    int user = 0;
    CallbackGate::Ticket ticket = CallbackGate::Admit(Key(kVolume, &user));
    CallbackGate::Retire({CallbackTable::kServiceSubjects, kVolume, CallbackId(Callback), false, &user});
    bool made = false;
    Deliver(ticket, [&] { made = true; });
    EXPECT_FALSE(made);
    EXPECT_EQ(0u, CallbackGate::Pending());
}

TEST(CallbackGateTest, ARetireMatchesOnlyItsTableSubjectCallbackAndUserData) {
    int user = 0;
    int other = 0;
    CallbackGate::Ticket same = CallbackGate::Admit(Key(kVolume, &user));
    CallbackGate::Ticket otherUser = CallbackGate::Admit(Key(kVolume, &other));
    CallbackGate::Ticket otherSubject = CallbackGate::Admit(Key("Ctx/App/Info/Current", &user));
    CallbackGate::Ticket otherTable =
        CallbackGate::Admit({CallbackTable::kObjectSubjects, kVolume, CallbackId(Callback), &user});
    CallbackGate::Retire({CallbackTable::kServiceSubjects, kVolume, CallbackId(Callback), false, &user});
    int made = 0;
    for (auto ticket : {same, otherUser, otherSubject, otherTable}) Deliver(ticket, [&] { ++made; });
    EXPECT_EQ(3, made);
}

TEST(CallbackGateTest, ARetireOnAnotherThreadReturnsOnlyAfterTheRunningDeliveryEnded) {
    int user = 0;
    CallbackGate::Ticket ticket = CallbackGate::Admit(Key(kVolume, &user));
    std::atomic<bool> running{false};
    std::atomic<bool> ended{false};
    std::atomic<bool> endedBeforeReturn{false};
    std::thread loop([&] {
        Deliver(ticket, [&] {
            running = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            ended = true;
        });
    });
    while (!running) std::this_thread::yield();
    CallbackGate::Retire({CallbackTable::kServiceSubjects, kVolume, CallbackId(Callback), false, &user});
    endedBeforeReturn = ended.load();
    loop.join();
    EXPECT_TRUE(endedBeforeReturn);
}

TEST(CallbackGateTest, ARetireFromInsideTheRunningDeliveryReturnsAtOnce) {
    int user = 0;
    CallbackGate::Ticket ticket = CallbackGate::Admit(Key(kVolume, &user));
    CallbackGate::Ticket later = CallbackGate::Admit(Key(kVolume, &user));
    bool retired = false;
    Deliver(ticket, [&] {
        CallbackGate::Retire({CallbackTable::kServiceSubjects, kVolume, CallbackId(Callback), false, &user});
        retired = true;
    });
    EXPECT_TRUE(retired);
    bool made = false;
    Deliver(later, [&] { made = true; });  // removed from inside the earlier one
    EXPECT_FALSE(made);
}

}  // namespace
}  // namespace lumora::internal
