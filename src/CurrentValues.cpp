// Subscriptions with the current value: the answer to one request first,
// then the notifications; asked again after every return of the service, so
// that a change made while it was away is not missed.
//
// The requests go out as a window: at most kAskWindow in flight, the next
// as each is answered (or dropped unanswered), so that a thousand values
// caught up at once never meet the bus's limit of replies pending per
// connection (128 on a stock system bus), which would fail the rest.
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "internal/Boundary.h"
#include "internal/CallbackGate.h"
#include "internal/Events.h"
#include "internal/FollowerTable.h"
#include "internal/HandOff.h"
#include "internal/Log.h"
#include "internal/ServiceContract.h"

namespace lumora::internal {
namespace {

constexpr const char* kDeliverCurrentValue = "DeliverCurrentValue";
constexpr const char* kCatchUpCurrentValues = "CatchUpCurrentValues";
// Beside the registrations of a return of the service (a window of their
// own), well under the bus's 128.
constexpr size_t kAskWindow = 32;

// An answer on its way from the reply handler (which runs with the bus
// client's mutex held) to the main loop, where the callback runs without it.
struct Answer {
    uintptr_t token;
    std::string data;
    bool unanswered;  // the request was freed without an answer
};

// A follower waiting for a place in the window, and the operation whose
// lines its request writes.
struct Waiting {
    uint64_t id;
    LogSite site;
};

// Guarded by g_mutex, a leaf lock: only the gate's is taken while it is held.
GMutex g_mutex;
FollowerTable g_table;
std::deque<Waiting> g_waiting;
std::set<uintptr_t> g_inFlight;  // tokens of requests sent and not yet answered
// Read on every notification without the lock: zero costs nothing more.
std::atomic<size_t> g_followerCount{0};

gboolean DeliverCurrentValue(gpointer data);

// The reply handler's callback: the bus client's mutex is held here, so the
// answer goes on to the main loop.
void PostAnswer(Answer* answer) {
    HandOffSend(answer);
    g_idle_add(DeliverCurrentValue, answer);
}

void OnCurrentValue(const char* /*subject*/, char* data, void* userData) {
    PostAnswer(new Answer{reinterpret_cast<uintptr_t>(userData), data != nullptr ? data : "", false});
}

// Takes the next waiting follower into the window: its token and subject.
// False when the window is full or nobody waits.
bool TakeWaiting(Waiting& waiting, uintptr_t& token, std::string& subject) {
    ContextAutoLock lock(&g_mutex);
    while (g_inFlight.size() < kAskWindow && !g_waiting.empty()) {
        waiting = g_waiting.front();
        g_waiting.pop_front();
        if (!g_table.Prepare(waiting.id, token, subject)) continue;  // unsubscribed meanwhile
        g_inFlight.insert(token);
        return true;
    }
    return false;
}

void GiveUp(uintptr_t token) {
    ContextAutoLock lock(&g_mutex);
    g_inFlight.erase(token);
    g_table.Abandon(token);
}

// Sends requests while the window has room. A service known to be away is
// not asked: the value is asked when it is back (a catch-up asks every
// follower older than its return), so that a callback never hears an error
// first only because the service was restarting. No library lock is held.
void Pump() {
    DBusClient* client = DBusClient::m_pInstance;
    Waiting waiting{};
    uintptr_t token = 0;
    std::string subject;
    while (client != nullptr && TakeWaiting(waiting, token, subject)) {
        if (ServiceKnownUnavailable()) {
            LMF_LOGE_FOR(waiting.site, "the current value of %s is asked when the service is back", subject.c_str());
            GiveUp(token);
            continue;
        }
        int result = client->Request(subject.c_str(), nullptr, OnCurrentValue, reinterpret_cast<void*>(token));
        if (result == 0) continue;
        LMF_LOGE_FOR(waiting.site, "the current value of %s is asked again when the service is available (%d)",
                     subject.c_str(), result);
        GiveUp(token);
    }
}

void LogOutcome(FollowerTable::Outcome outcome, const FollowerTable::Target& target) {
    LogSite site = OwnerSite(target.owner, kDeliverCurrentValue);
    switch (outcome) {
        case FollowerTable::Outcome::kStale:
            LMF_LOGE_FOR(site, "stale answer for %s dropped: a notification came first", target.subject.c_str());
            break;
        case FollowerTable::Outcome::kKeepLast:
            LMF_LOGE_FOR(site, "no current value of %s after the service came back; keeping %s", target.subject.c_str(),
                         target.hadValue ? "the last one" : "none");
            break;
        case FollowerTable::Outcome::kLater:
            LMF_LOGE_FOR(site, "the current value of %s is asked when the service is back", target.subject.c_str());
            break;
        default:
            break;
    }
}

// What answer becomes, decided under the lock; a delivery is admitted at
// the gate in the same section, so that an Unsubscribe that removed the
// follower meanwhile either came first (nothing is delivered) or waits for
// the callback.
bool TakeAnswer(const Answer& answer, bool serviceAway, FollowerTable::Target& target, CallbackGate::Ticket& ticket) {
    FollowerTable::Outcome outcome = FollowerTable::Outcome::kNotAwaited;
    {
        ContextAutoLock lock(&g_mutex);
        g_inFlight.erase(answer.token);
        if (answer.unanswered) {
            g_table.Abandon(answer.token);
            return false;
        }
        outcome = g_table.TakeAnswer(answer.token, answer.data, serviceAway, target);
        if (outcome == FollowerTable::Outcome::kDeliver)
            ticket = CallbackGate::Admit(
                {ValuesTable(target.owner), target.subject, CallbackId(target.callback), target.userData});
    }
    LogOutcome(outcome, target);
    return outcome == FollowerTable::Outcome::kDeliver;
}

gboolean DeliverCurrentValue(gpointer data) {
    auto* answer = static_cast<Answer*>(data);
    HandOffReceive(answer);
    GuardedVoid(kDeliverCurrentValue, [answer] {
        bool serviceAway = ServiceKnownUnavailable();
        FollowerTable::Target target{};
        CallbackGate::Ticket ticket = 0;
        if (TakeAnswer(*answer, serviceAway, target, ticket)) {
            Deliver(ticket, [&] {
                if (target.callback != nullptr)
                    target.callback(target.subject.c_str(), answer->data.data(), target.userData);
            });
        }
        Pump();
    });
    delete answer;
    return G_SOURCE_REMOVE;
}

template <typename Predicate>
void EraseFollowers(Predicate gone) {
    ContextAutoLock lock(&g_mutex);
    g_table.Remove(gone);
    g_followerCount.store(g_table.Size());
}

}  // namespace

CallbackTable ValuesTable(EventOwner owner) {
    return owner == EventOwner::kServiceApi ? CallbackTable::kServiceValues : CallbackTable::kObjectValues;
}

void ReportNotification(const char* subject, const char* data) {
    if (g_followerCount.load(std::memory_order_relaxed) == 0 || subject == nullptr) return;
    ContextAutoLock lock(&g_mutex);
    g_table.Notify(subject, data);
}

// Called with the bus client's mutex held: the window's place is given back
// from the main loop.
void ReportUnansweredRequest(LumoraSubjectCb callback, void* userData) {
    if (callback != OnCurrentValue) return;
    PostAnswer(new Answer{reinterpret_cast<uintptr_t>(userData), std::string(), true});
}

bool HasTextValue(LogSite site, const char* subject) {
    for (const contract::StatisticsKind& kind : contract::kStatisticsKinds) {
        if (subject != nullptr && strcmp(kind.subject, subject) == 0) {
            LMF_LOGE_FOR(site, "%s answers records, not a value to follow: request it instead", subject);
            return false;
        }
    }
    return true;
}

uint64_t FollowCurrentValue(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData) {
    ContextAutoLock lock(&g_mutex);
    uint64_t id = g_table.Add(owner, subject, callback, userData);
    g_followerCount.store(g_table.Size());
    return id;
}

void AskCurrentValue(LogSite site, DBusClient& /*client*/, uint64_t id) {
    {
        ContextAutoLock lock(&g_mutex);
        g_waiting.push_back({id, site});
    }
    Pump();
}

void ForgetCurrentValue(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData) {
    EraseFollowers([&](EventOwner o, const std::string& s, LumoraSubjectCb c, void* u) {
        return o == owner && s == subject && c == callback && u == userData;
    });
}

void DropCurrentValues(EventOwner owner) {
    EraseFollowers([owner](EventOwner o, const std::string&, LumoraSubjectCb, void*) { return o == owner; });
}

bool IsFollowed(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData) {
    ContextAutoLock lock(&g_mutex);
    return g_table.Has(owner, subject, callback, userData);
}

uint64_t FollowersMark() {
    ContextAutoLock lock(&g_mutex);
    return g_table.Mark();
}

size_t FollowerCount() { return g_followerCount.load(); }

void CatchUpCurrentValues(const char* reason, uint64_t from, uint64_t to) {
    size_t counts[2] = {0, 0};
    {
        ContextAutoLock lock(&g_mutex);
        for (const auto& [id, owner] : g_table.Between(from, to)) {
            g_waiting.push_back({id, OwnerSite(owner, kCatchUpCurrentValues)});
            ++counts[owner == EventOwner::kServiceApi ? 0 : 1];
        }
    }
    if (counts[0] + counts[1] == 0) return;
    for (EventOwner owner : {EventOwner::kServiceApi, EventOwner::kObjectInterface}) {
        size_t count = counts[owner == EventOwner::kServiceApi ? 0 : 1];
        if (count == 0) continue;
        LogSite site = OwnerSite(owner, kCatchUpCurrentValues);
        LMF_LOG_SITE(LUMORA_PRIO_INFO, site.unit, site.function, "service %s: asking %zu current value(s) again",
                     reason, count);
    }
    Pump();
}

}  // namespace lumora::internal
