// Several application threads drive the library's public functions at random
// while the main loop, on a thread of its own, delivers a stream of
// notifications, and the service is restarted under them (SIGTERM, SIGKILL,
// its own "Restart") as is the bus daemon. The run is seeded
// (LUMORA_STRESS_SEED), bounded (LUMORA_STRESS_SECONDS) and made of rounds:
// each round starts the library, races a channel-callback registration
// against the removal of the only subscription, churns, suffers one fault,
// lets it settle and checks what must hold whatever happened; the last
// round has no fault and holds everything strictly.
#include <errno.h>
#include <gtest/gtest.h>
#include <lumora/lumora-api.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "AppThread.h"
#include "MainLoopThread.h"
#include "Registrations.h"
#include "SimProcess.h"
#include "StressBed.h"
#include "Violations.h"
#include "internal/ServiceContract.h"

namespace lumora::test {
namespace {

using Clock = std::chrono::steady_clock;

enum class Fault { kNone, kTerminate, kKill, kControlRestart, kBusRestart };

const char* FaultName(Fault fault) {
    switch (fault) {
        case Fault::kNone:
            return "no fault";
        case Fault::kTerminate:
            return "SIGTERM of the service";
        case Fault::kKill:
            return "SIGKILL of the service";
        case Fault::kControlRestart:
            return "the service's own restart";
        case Fault::kBusRestart:
            return "a restart of the bus daemon";
    }
    return "?";
}

constexpr const char* kChannelSubject = lumora::contract::subjects::kStbStatus;
constexpr int kChurnMinMs = 2500;
constexpr int kChurnSpreadMs = 1500;
constexpr int kQuietChurnMs = 3000;
// What a round may take at worst, its checks included, while things work:
// no fault round starts unless it and the quiet round still fit the budget.
constexpr int kFaultRoundMs = 9000;
constexpr int kQuietRoundMs = 8000;
// The waits of the checks: generous next to what they take (milliseconds),
// and never past the run's hard end.
constexpr int kBackMs = 6000;    // the service available to the library, subscriptions registered again
constexpr int kHearMs = 3000;    // a notification's way to every live callback
constexpr int kSilentMs = 500;   // the same for a library seen not listening
constexpr int kRuleMs = 500;     // a match rule on its way to the bus daemon
constexpr int kAnswerMs = 5000;  // the quiet round's requests
constexpr int kHardEndMs = 58000;

int MsSince(Clock::time_point start) {
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// A hint for a service that seems away: the readiness marker is
// machine-wide, and another lumora-sim on the machine removes it as it stops.
std::string MarkerNote() {
    return ReadyMarkerExists() ? std::string()
                               : " (the readiness marker is missing: another lumora-sim on this machine?)";
}

// Whether the library reads through to the service: it is connected, and
// the service is there for it.
bool ReadSucceeds() {
    char* value = Lumora_Read(kValueSubjects[0].c_str(), nullptr);
    free(value);
    return value != nullptr;
}

// Emits to the service's subscribers from a thread of its own, as fast as
// a busy television would, until stopped.
class Feed {
public:
    Feed(StressBed& bed, uint64_t seed) : m_bed(bed), m_rng(seed), m_thread([this] { Run(); }) {}
    ~Feed() { Stop(); }
    void Stop() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
    }
    size_t Sent() const { return m_sent.load(); }

private:
    void Run() {
        static const char* const kKinds[] = {"stb", "program", "list", "current"};
        for (uint64_t n = 0; !m_stop; ++n) {
            bool sent = m_rng() % 100 < 85 ? m_bed.Feed(kPlainSubjects[m_rng() % kPlainSubjects.size()],
                                                        "{\"feed\":" + std::to_string(n) + "}")
                                           : m_bed.FeedEvent(kKinds[m_rng() % 4]);
            if (sent) ++m_sent;
            std::this_thread::sleep_for(std::chrono::milliseconds(2 + m_rng() % 5));
        }
    }

    StressBed& m_bed;
    std::mt19937_64 m_rng;
    std::atomic<bool> m_stop{false};
    std::atomic<size_t> m_sent{0};
    std::thread m_thread;  // last: starts once the members it uses exist
};

class StressTest : public testing::Test {
protected:
    void SetUp() override {
        m_seed = BeginSeededTest();
        printf(
            "stress seed %llu (LUMORA_STRESS_SEED makes the same choices again; the interleaving still varies), %d s\n",
            static_cast<unsigned long long>(m_seed), StressSeconds());
        fflush(stdout);
        m_start = Clock::now();
        ASSERT_TRUE(m_bed.Start()) << SeedText();
    }

    void TearDown() override {
        while (LMFServiceAPI::m_nRefCnt > 0) Lumora_FiniService();
    }

    int ElapsedMs() const { return MsSince(m_start); }
    // A wait of timeoutMs, cut short at the run's hard end.
    bool Wait(const std::function<bool()>& done, int timeoutMs) const {
        return WaitUntil(done, std::max(200, std::min(timeoutMs, kHardEndMs - ElapsedMs())));
    }

    void RunRound(int round, Fault fault, bool quiet);
    bool Inject(Fault fault, std::mt19937_64& rng);
    void CheckRound(Fault fault, const std::vector<std::unique_ptr<AppThread>>& threads);
    bool CheckListening(const std::vector<Registration*>& live, bool channelEver);
    void CheckRegistered(std::set<std::string>& subjects, size_t live, Fault fault, int timeoutMs);
    void CheckHeard(const std::set<std::string>& subjects, const std::vector<Registration*>& live,
                    ChannelRecord* channel, int timeoutMs);
    void CheckAvailability(const std::vector<std::unique_ptr<AppThread>>& threads);
    void CheckRequests(const std::vector<std::unique_ptr<AppThread>>& threads, bool quiet);

    Arena m_arena;  // first: outlives the main loop and every call of the library
    StressBed m_bed;
    MainLoopThread m_loop;
    uint64_t m_seed = 0;
    Clock::time_point m_start;
    Tally m_tally;
    size_t m_fed = 0;
};

void StressTest::RunRound(int round, Fault fault, bool quiet) {
    Violations::Instance().SetRound(round);
    ASSERT_TRUE(Lumora_InitService()) << SeedText() << ", round " << round;
    if (!Wait([] { return LMFServiceAPI::IsAvailable(); }, kBackMs))
        Violations::Instance().Add(Rule::kOther,
                                   "the service is not available after Lumora_InitService" + MarkerNote());
    std::mt19937_64 rng(Mix(m_seed ^ static_cast<uint64_t>(round)));
    Duel duel;
    std::vector<std::unique_ptr<AppThread>> threads;
    for (int i = 0; i < AppThread::kThreads; ++i)
        threads.push_back(std::make_unique<AppThread>(i, Mix(m_seed + static_cast<uint64_t>(round * 16 + i)), quiet,
                                                      m_arena, m_tally, duel));
    auto begin = Clock::now();
    for (auto& thread : threads) thread->Start();
    duel.WaitForEnd();  // the feed would take time from the duel
    Feed feed(m_bed, rng());
    int churnMs = quiet ? kQuietChurnMs : kChurnMinMs + static_cast<int>(rng() % kChurnSpreadMs);
    std::this_thread::sleep_for(std::chrono::milliseconds(churnMs * static_cast<int>(25 + rng() % 35) / 100));
    auto faultStart = Clock::now();
    bool injected = Inject(fault, rng);
    int faultMs = MsSince(faultStart);
    // Some churn after the fault as well, whatever the fault took.
    std::this_thread::sleep_until(
        std::max(begin + std::chrono::milliseconds(churnMs), Clock::now() + std::chrono::milliseconds(300)));
    feed.Stop();
    m_fed += feed.Sent();
    for (auto& thread : threads) thread->Stop();
    ASSERT_TRUE(injected) << "the bus or the service did not come back after " << FaultName(fault) << ", " << SeedText()
                          << ", round " << round;
    auto checkStart = Clock::now();
    CheckRound(fault, threads);
    for (auto& thread : threads) thread->RemoveAll();
    CheckRequests(threads, quiet);
    EXPECT_TRUE(Lumora_FiniService()) << SeedText();
    printf("round %d (%s%s): the fault took %d ms, the checks %d ms; %d ms into the run, %zu violation(s) so far\n",
           round, FaultName(fault), quiet ? ", quiet" : "", faultMs, MsSince(checkStart), ElapsedMs(),
           Violations::Instance().Total());
    fflush(stdout);
}

bool StressTest::Inject(Fault fault, std::mt19937_64& rng) {
    int downMs = static_cast<int>(rng() % 300);
    switch (fault) {
        case Fault::kNone:
            return true;
        case Fault::kTerminate:
            return m_bed.TerminateService(downMs);
        case Fault::kKill:
            return m_bed.KillService(downMs);
        case Fault::kControlRestart:
            return m_bed.RestartThroughControl(100 + static_cast<unsigned>(rng() % 400));
        case Fault::kBusRestart:
            return m_bed.RestartBus(downMs);
    }
    return false;
}

void StressTest::CheckRound(Fault fault, const std::vector<std::unique_ptr<AppThread>>& threads) {
    std::vector<Registration*> live;
    for (const auto& thread : threads) {
        std::vector<Registration*> held = thread->LiveSubscriptions();
        live.insert(live.end(), held.begin(), held.end());
    }
    ChannelRecord* channel = threads[0]->LiveChannel();
    if (!Wait(ReadSucceeds, kBackMs))
        Violations::Instance().Add(
            Rule::kOther, std::string("the library could not read again after ") + FaultName(fault) + MarkerNote(),
            std::string("the library could not read again after ") + FaultName(fault));
    bool listening = CheckListening(live, threads[0]->ChannelEverRegistered());
    std::set<std::string> subjects;
    for (Registration* record : live) subjects.insert(record->Subject());
    if (channel != nullptr) subjects.insert(kChannelSubject);
    CheckRegistered(subjects, live.size() + (channel != nullptr ? 1 : 0), fault, listening ? kBackMs : kSilentMs);
    CheckHeard(subjects, live, channel, listening ? kHearMs : kSilentMs);
    CheckAvailability(threads);
}

// From outside: the bus daemon's match rules of this process's connections.
// After a read that succeeded: its answer came after the daemon had handled
// every match rule the library sent before it on the same connection.
bool StressTest::CheckListening(const std::vector<Registration*>& live, bool channelEver) {
    bool listening = Wait([this] { return m_bed.LibraryListens(); }, kRuleMs);
    if (live.empty() && !channelEver) return listening;
    if (!listening)
        Violations::Instance().Add(Rule::kListensWhileSubscribed,
                                   "the library holds " + std::to_string(live.size()) + " subscription(s)" +
                                       (channelEver ? " and the channel subjects" : "") +
                                       " but its connection has no match rule for \"Response\"",
                                   "subscriptions held, no match rule for \"Response\"");
    return listening;
}

// The service must have every live subject again: otherwise no notification
// can reach it, whatever the library does next. Found subjects stay in the set.
void StressTest::CheckRegistered(std::set<std::string>& subjects, size_t live, Fault fault, int timeoutMs) {
    std::set<std::string> missing = subjects;
    Wait(
        [&] {
            for (auto it = missing.begin(); it != missing.end();)
                it = m_bed.ServiceKnows(*it) ? missing.erase(it) : ++it;
            return missing.empty();
        },
        timeoutMs);
    for (const std::string& subject : missing) {
        subjects.erase(subject);
        Violations::Instance().Add(
            Rule::kLiveSubscriptionHears,
            "after " + std::string(FaultName(fault)) + " the service has no subscriber of " + subject +
                " although the library holds " + std::to_string(live) + " live registration(s)",
            "after " + std::string(FaultName(fault)) + " the service never got a live subject registered again");
    }
}

void StressTest::CheckHeard(const std::set<std::string>& subjects, const std::vector<Registration*>& live,
                            ChannelRecord* channel, int timeoutMs) {
    std::map<std::string, std::string> sent;
    for (const std::string& subject : subjects) {
        std::string value = "{\"check\":\"" + std::to_string(m_seed) + "/" +
                            std::to_string(Violations::Instance().Round()) + "/" + subject + "\"}";
        if (!m_bed.Emit(subject, value)) Violations::Instance().Add(Rule::kOther, "could not emit " + subject);
        sent[subject] = value;
    }
    auto heard = [&](Registration* record) {
        auto it = sent.find(record->Subject());
        return it == sent.end() || record->HasHeard(it->second);
    };
    bool channelHeard = false;
    Wait(
        [&] {
            channelHeard = channel == nullptr || sent.count(kChannelSubject) == 0 ||
                           channel->HasHeard(LMF_EVENT_STB_STATUS, sent[kChannelSubject]);
            return channelHeard && std::all_of(live.begin(), live.end(), heard);
        },
        timeoutMs);
    for (Registration* record : live) {
        if (heard(record)) continue;
        Violations::Instance().Add(
            Rule::kLiveSubscriptionHears,
            record->Name() + " did not hear " + sent[record->Subject()] + " (last heard: " + record->LastHeard() + ")",
            std::string("a live ") + record->KindText() + " did not hear the round's notification");
    }
    if (!channelHeard)
        Violations::Instance().Add(Rule::kLiveSubscriptionHears,
                                   "the channel callback did not hear " + sent[kChannelSubject],
                                   "the channel callback did not hear the round's status");
}

void StressTest::CheckAvailability(const std::vector<std::unique_ptr<AppThread>>& threads) {
    std::vector<Registration*> live;
    for (const auto& thread : threads) {
        std::vector<Registration*> held = thread->LiveAvailability();
        live.insert(live.end(), held.begin(), held.end());
    }
    auto told = [](Registration* record) { return record->LastHeard() == "1"; };
    Wait([&] { return std::all_of(live.begin(), live.end(), told); }, kHearMs);
    for (Registration* record : live) {
        if (told(record)) continue;
        Violations::Instance().Add(
            Rule::kOther,
            record->Name() + " was not told that the service is available (last told: " + record->LastHeard() + ")",
            "a live availability callback was not told that the service is available");
    }
}

// Never twice is checked by the callback itself; here: a refused request is
// never answered, and in the quiet round every accepted one is, once.
void StressTest::CheckRequests(const std::vector<std::unique_ptr<AppThread>>& threads, bool quiet) {
    std::vector<RequestRecord*> requests;
    for (const auto& thread : threads) {
        const std::vector<RequestRecord*>& made = thread->Requests();
        requests.insert(requests.end(), made.begin(), made.end());
    }
    auto answered = [](RequestRecord* record) { return !record->accepted || record->calls.load() > 0; };
    if (quiet) Wait([&] { return std::all_of(requests.begin(), requests.end(), answered); }, kAnswerMs);
    for (RequestRecord* record : requests) {
        if (!record->accepted && record->calls.load() > 0)
            Violations::Instance().Add(Rule::kRequestAnsweredOnce,
                                       "the callback of a refused request of " + record->subject + " was called",
                                       "the callback of a refused request was called");
        if (quiet && !answered(record))
            Violations::Instance().Add(
                Rule::kRequestAnsweredOnce,
                "a request of " + record->subject + " made while the service was up was never answered",
                "a request made while the service was up was never answered");
    }
}

TEST_F(StressTest, SubscriptionsHearEveryEmitWhileThreadsChurnAndTheServiceRestarts) {
    const int budgetMs = StressSeconds() * 1000;
    std::vector<Fault> order = {Fault::kTerminate, Fault::kKill, Fault::kControlRestart, Fault::kBusRestart};
    std::shuffle(order.begin(), order.end(), std::mt19937_64(m_seed));
    int round = 0;
    while (round == 0 || ElapsedMs() + kFaultRoundMs + kQuietRoundMs <= budgetMs) {
        Fault fault = order[static_cast<size_t>(round) % order.size()];
        RunRound(++round, fault, false);
        if (HasFatalFailure()) return;
    }
    RunRound(++round, Fault::kNone, true);
    if (HasFatalFailure()) return;
    printf("%d rounds in %d ms: %zu operations, %zu reads failed, %zu requests refused, %zu notifications fed\n", round,
           ElapsedMs(), m_tally.operations.load(), m_tally.readsFailed.load(), m_tally.requestsRefused.load(), m_fed);
    for (Rule rule : {Rule::kLiveSubscriptionHears, Rule::kNoCallAfterRemoval, Rule::kRequestAnsweredOnce,
                      Rule::kListensWhileSubscribed, Rule::kNoGLibCriticalOrWarning, Rule::kOther}) {
        EXPECT_EQ(0u, Violations::Instance().Count(rule)) << "rule " << RuleName(rule) << ", " << SeedText();
    }
    if (Violations::Instance().Total() > 0) printf("%s", Violations::Instance().Report().c_str());
}

}  // namespace
}  // namespace lumora::test
