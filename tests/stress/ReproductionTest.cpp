// Focused loops for two races that the stress run meets by chance, each made
// to happen on purpose in every iteration:
// - CS_RegisterChannelCallback() on one thread while Lumora_Unsubscribe()
//   removes the library's only subscription on another: afterwards the
//   library holds the channel subjects and must still listen for the
//   service's "Response" signal;
// - a removal on an application thread while the main loop is about to call,
//   or is calling, the removed callback: once Lumora_Unsubscribe() or
//   Lumora_RemoveAvailabilityCallback() has returned, no call may start, and
//   none may still be running.
#include <errno.h>
#include <gtest/gtest.h>
#include <lumora/lumora-api.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "AppThread.h"
#include "MainLoopThread.h"
#include "Registrations.h"
#include "StressBed.h"
#include "Violations.h"
#include "internal/ServiceContract.h"

namespace lumora::test {
namespace {

constexpr const char* kOnlySubject = "Ctx/Media/Source/Changed";
constexpr const char* kChannelSubject = lumora::contract::subjects::kStbStatus;
constexpr int kRaces = 60;
constexpr int kRemovals = 60;
constexpr int kSlowUs = 20000;  // a callback slow enough to be caught running
constexpr int kOnlyCallback = 20;
constexpr int kGateCallback = 21;
constexpr int kTargetCallback = 22;

// Polls every 100 us: a slow callback runs for kSlowUs only.
bool SpinUntil(const std::function<bool()>& done, int timeoutMs) {
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return true;
}

void Busy(int microseconds) {
    auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(microseconds);
    while (std::chrono::steady_clock::now() < until) {
    }
}

class ReproductionTest : public testing::Test {
protected:
    void SetUp() override {
        m_seed = BeginSeededTest();
        printf("seed %llu\n", static_cast<unsigned long long>(m_seed));
        ASSERT_TRUE(m_bed.Start()) << SeedText();
    }

    void TearDown() override {
        while (LMFServiceAPI::m_nRefCnt > 0) Lumora_FiniService();
        EXPECT_EQ(0u, Violations::Instance().Count(Rule::kNoGLibCriticalOrWarning)) << Violations::Instance().Report();
        EXPECT_EQ(0u, Violations::Instance().Count(Rule::kOther)) << Violations::Instance().Report();
    }

    std::string Unique(const std::string& what, int iteration) const {
        return "{\"repro\":\"" + std::to_string(m_seed) + "/" + what + "/" + std::to_string(iteration) + "\"}";
    }

    void RaceRegistrationAgainstLastRemoval(int iteration, int& notListening, int& notHeard);
    bool RemoveWhileCalled(bool withValue, bool whileRunning, Registration* gate, int iteration);

    Arena m_arena;
    StressBed m_bed;
    MainLoopThread m_loop;
    uint64_t m_seed = 0;
};

// The removal starts 20 to 200 us (drawn from the seed) ahead of the
// registration, so that it takes the client's lock first while the
// registration is already on its way: the overlap the field reports show.
void ReproductionTest::RaceRegistrationAgainstLastRemoval(int iteration, int& notListening, int& notHeard) {
    ASSERT_TRUE(Lumora_InitService()) << SeedText();
    auto* only = m_arena.Make<Registration>(Kind::kSubscription, kOnlySubject, kOnlyCallback, 0, 0, 0);
    ASSERT_TRUE(Lumora_Subscribe(kOnlySubject, SubjectCallback(kOnlyCallback), only)) << SeedText();
    auto* channel = m_arena.Make<ChannelRecord>();
    uint64_t draw = Mix(m_seed + static_cast<uint64_t>(iteration));
    int lead = 20 + static_cast<int>(draw % 181);
    Duel duel;
    bool registered = false;
    bool removed = false;
    std::thread registrar([&] {
        duel.Meet();
        Busy(lead);
        registered = CS_RegisterChannelCallback(ChannelCallback, channel);
    });
    std::thread remover([&] {
        duel.Meet();
        removed = Lumora_Unsubscribe(kOnlySubject, SubjectCallback(kOnlyCallback), only);
        only->MarkRemoved();
    });
    registrar.join();
    remover.join();
    ASSERT_TRUE(registered && removed) << SeedText() << ", iteration " << iteration;
    // The read's answer comes after the daemon handled every match rule that
    // the library sent before it on the same connection.
    char* value = Lumora_Read(kValueSubjects[0].c_str(), nullptr);
    ASSERT_NE(nullptr, value) << SeedText();
    free(value);
    bool listening = WaitUntil([this] { return m_bed.LibraryListens(); }, 200);
    std::string status = Unique("stb", iteration);
    ASSERT_TRUE(m_bed.Emit(kChannelSubject, status)) << SeedText();
    bool heard = WaitUntil([&] { return channel->HasHeard(LMF_EVENT_STB_STATUS, status); }, listening ? 3000 : 300);
    if (!listening) ++notListening;
    if (!heard) ++notHeard;
    CS_UnRegisterChannelCallback();
    ASSERT_TRUE(Lumora_FiniService()) << SeedText();
}

TEST_F(ReproductionTest, RegisteringTheChannelCallbackWhileTheOnlySubscriptionGoesKeepsTheLibraryListening) {
    int notListening = 0;
    int notHeard = 0;
    for (int iteration = 0; iteration < kRaces; ++iteration) {
        RaceRegistrationAgainstLastRemoval(iteration, notListening, notHeard);
        if (HasFatalFailure()) return;
    }
    printf("registration against removal: not listening afterwards in %d of %d races, the status unheard in %d\n",
           notListening, kRaces, notHeard);
    EXPECT_EQ(0, notListening) << "the library held the channel subjects without a \"Response\" match rule after "
                               << notListening << " of " << kRaces << " races, " << SeedText();
    EXPECT_EQ(0, notHeard) << "the channel callback did not hear the status emitted after " << notHeard << " of "
                           << kRaces << " races, " << SeedText();
}

TEST_F(ReproductionTest, NoAvailabilityCallbackRunsOnceItsRemovalHasReturnedOnAnotherThread) {
    ASSERT_TRUE(Lumora_InitService()) << SeedText();
    // [removed while running?]: iterations where a call was still running
    // when the removal returned, and where one started after it.
    int running[2] = {0, 0};
    int started[2] = {0, 0};
    for (int iteration = 0; iteration < kRemovals; ++iteration) {
        // The state is known: adding the callback has the main loop tell it
        // at once. Removed while that call runs, or right after the adding.
        bool whileRunning = iteration % 2 == 0;
        auto* record = m_arena.Make<Registration>(Kind::kAvailability, "", -1, 0, kSlowUs, kSlowUs);
        ASSERT_TRUE(Lumora_AddAvailabilityCallback(AvailabilityCallback, record)) << SeedText();
        if (whileRunning) {
            ASSERT_TRUE(SpinUntil([&] { return record->Inside(); }, 3000)) << SeedText();
        }
        ASSERT_TRUE(Lumora_RemoveAvailabilityCallback(AvailabilityCallback, record)) << SeedText();
        record->MarkRemoved();
        std::this_thread::sleep_for(std::chrono::microseconds(kSlowUs + 30000));
        ASSERT_TRUE(WaitUntil([&] { return !record->Inside(); }, 3000)) << SeedText();
        if (record->RunningAtRemoval() > 0) ++running[whileRunning];
        if (record->StartedAfterRemoval() > 0) ++started[whileRunning];
    }
    const int each = kRemovals / 2;
    printf(
        "availability callback removed while it ran: the removal returned during the call in %d of %d, a call "
        "started after it in %d; removed right after being added: %d and %d of %d\n",
        running[1], each, started[1], running[0], started[0], each);
    EXPECT_EQ(0, running[1] + running[0]) << "Lumora_RemoveAvailabilityCallback returned while its callback was "
                                             "running on the main loop, "
                                          << SeedText();
    EXPECT_EQ(0, started[1] + started[0])
        << "an availability callback started after its removal had returned, " << SeedText();
}

// The target subscribes after the gate, so that a notification reaches the
// gate first. Removed while the slow gate runs (the target's call is still
// to come), or while the slow target itself runs. True when a call of the
// target overlapped or followed the return of its removal.
bool ReproductionTest::RemoveWhileCalled(bool withValue, bool whileRunning, Registration* gate, int iteration) {
    Kind kind = withValue ? Kind::kSubscriptionWithValue : Kind::kSubscription;
    int pause = whileRunning ? kSlowUs : 0;
    auto* target = m_arena.Make<Registration>(kind, kOnlySubject, kTargetCallback, 0, pause, pause);
    LumoraSubjectCb callback = SubjectCallback(kTargetCallback);
    bool added = withValue ? Lumora_SubscribeWithValue(kOnlySubject, callback, target)
                           : Lumora_Subscribe(kOnlySubject, callback, target);
    EXPECT_TRUE(added) << SeedText();
    // The current value's answer first, so that only the notification is left.
    if (withValue) {
        EXPECT_TRUE(WaitUntil([&] { return target->Calls() > 0 && !target->Inside(); }, 3000)) << SeedText();
    }
    Registration* watched = whileRunning ? target : gate;
    // On a loaded machine (sanitizers, two cores) the spinning thread can
    // sleep through the whole slow call: a call missed is not a removal
    // while running, so the change is sent again, a few times at most.
    bool caught = false;
    for (int attempt = 0; attempt < 5 && !caught && !HasFailure(); ++attempt) {
        size_t before = watched->Calls();
        EXPECT_TRUE(m_bed.Emit(kOnlySubject, Unique(whileRunning ? "running" : "queued", iteration * 10 + attempt)))
            << SeedText();
        EXPECT_TRUE(SpinUntil([&] { return watched->Calls() > before; }, 3000)) << SeedText();
        caught = watched->Inside();
        if (!caught) {
            printf("attempt %d of iteration %d: the call had ended when it was seen\n", attempt, iteration);
            EXPECT_TRUE(WaitUntil([&] { return !gate->Inside() && !target->Inside(); }, 3000)) << SeedText();
        }
    }
    EXPECT_TRUE(caught) << "the slow callback was never seen running, " << SeedText();
    EXPECT_TRUE(Lumora_Unsubscribe(kOnlySubject, callback, target)) << SeedText();
    target->MarkRemoved();
    EXPECT_TRUE(WaitUntil([&] { return !gate->Inside() && !target->Inside(); }, 3000)) << SeedText();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    return target->RunningAtRemoval() > 0 || target->StartedAfterRemoval() > 0;
}

TEST_F(ReproductionTest, NoSubscriptionCallbackRunsOnceUnsubscribeHasReturnedOnAnotherThread) {
    ASSERT_TRUE(Lumora_InitService()) << SeedText();
    auto* gate = m_arena.Make<Registration>(Kind::kSubscription, kOnlySubject, kGateCallback, 0, kSlowUs, kSlowUs);
    ASSERT_TRUE(Lumora_Subscribe(kOnlySubject, SubjectCallback(kGateCallback), gate)) << SeedText();
    // [with the value?][while running?]: iterations where a call overlapped
    // or followed the removal.
    int found[2][2] = {{0, 0}, {0, 0}};
    for (int iteration = 0; iteration < kRemovals; ++iteration) {
        bool withValue = iteration % 2 == 0;
        bool whileRunning = (iteration / 2) % 2 == 1;
        if (RemoveWhileCalled(withValue, whileRunning, gate, iteration)) ++found[withValue][whileRunning];
        if (HasFailure()) return;
    }
    const int each = kRemovals / 4;
    printf(
        "subscription removed while queued behind another callback: a call started after Lumora_Unsubscribe "
        "returned in %d of %d (with the current value) and %d of %d (plain)\n",
        found[1][0], each, found[0][0], each);
    printf(
        "subscription removed while its own callback ran: Lumora_Unsubscribe returned during the call in %d of %d "
        "(with the current value) and %d of %d (plain)\n",
        found[1][1], each, found[0][1], each);
    EXPECT_EQ(0, found[1][0]) << "with the current value, queued: " << SeedText();
    EXPECT_EQ(0, found[1][1]) << "with the current value, running: " << SeedText();
    EXPECT_EQ(0, found[0][0]) << "plain, queued: " << SeedText();
    EXPECT_EQ(0, found[0][1]) << "plain, running: " << SeedText();
}

}  // namespace
}  // namespace lumora::test
