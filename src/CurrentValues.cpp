// Subscriptions with the current value: the answer to one request first,
// then the notifications; asked again after every return of the service, so
// that a change made while it was away is not missed.
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "internal/Boundary.h"
#include "internal/Events.h"
#include "internal/Log.h"
#include "internal/ServiceContract.h"

namespace lumora::internal {
namespace {

constexpr const char* kDeliverCurrentValue = "DeliverCurrentValue";

// One followed subscription. told is what its callback heard last, from an
// answer or a notification (hasTold false until then).
struct Follower {
    uint64_t id;
    EventOwner owner;
    std::string subject;
    LumoraSubjectCb callback;
    void* userData;
    bool hasTold;
    std::string told;
    uintptr_t pendingToken;  // the one request whose answer counts, 0 when none
};

// An answer on its way from the reply handler (which runs with the bus
// client's mutex held) to the main loop, where the callback runs without it.
struct Answer {
    uintptr_t token;
    std::string data;
};

// What a request's token stands for: the follower, the subject's count of
// notifications when it was sent (a notification after that makes the
// answer stale), and whether its callback had heard nothing yet then.
struct Pending {
    uint64_t follower;
    uint64_t notificationsAtSend;
    bool first;
};

// Guarded by g_mutex, a leaf lock never held while anything else is called.
GMutex g_mutex;
std::vector<Follower> g_followers;
std::map<std::string, uint64_t, std::less<>> g_notifications;  // per followed subject
std::map<uintptr_t, Pending> g_pending;
uint64_t g_nextId = 1;
uintptr_t g_nextToken = 1;
// Read on every notification without the lock: zero costs nothing more.
std::atomic<size_t> g_followerCount{0};

Follower* FindFollower(uint64_t id) {
    auto it = std::find_if(g_followers.begin(), g_followers.end(), [id](const Follower& f) { return f.id == id; });
    return it != g_followers.end() ? &*it : nullptr;
}

// After followers left: the count, and the notification counters of the
// subjects nobody follows any more.
void Recount() {
    g_followerCount.store(g_followers.size());
    for (auto it = g_notifications.begin(); it != g_notifications.end();) {
        bool followed = std::any_of(g_followers.begin(), g_followers.end(),
                                    [&](const Follower& f) { return f.subject == it->first; });
        it = followed ? std::next(it) : g_notifications.erase(it);
    }
}

// Forgets what the removed followers were waiting for.
void DropPendingOf(uint64_t follower) {
    for (auto it = g_pending.begin(); it != g_pending.end();) {
        it = it->second.follower == follower ? g_pending.erase(it) : std::next(it);
    }
}

// Stops following every follower for which gone holds, and forgets the
// answers they were waiting for.
template <typename Predicate>
void EraseFollowers(Predicate gone) {
    ContextAutoLock lock(&g_mutex);
    for (auto it = g_followers.begin(); it != g_followers.end();) {
        if (!gone(*it)) {
            ++it;
            continue;
        }
        DropPendingOf(it->id);
        it = g_followers.erase(it);
    }
    Recount();
}

gboolean DeliverCurrentValue(gpointer data);

// The reply handler's callback: the bus client's mutex is held here, so the
// answer goes on to the main loop.
void OnCurrentValue(const char* /*subject*/, char* data, void* userData) {
    auto* answer = new Answer{reinterpret_cast<uintptr_t>(userData), data != nullptr ? data : ""};
    g_idle_add(DeliverCurrentValue, answer);
}

// What the answer of token means now; false (after a line when it is worth
// one) when it is not to be delivered. On true, callback, userData, subject
// and the follower's told value are set.
bool TakeAnswer(const Answer& answer, LumoraSubjectCb& callback, void*& userData, std::string& subject) {
    ContextAutoLock lock(&g_mutex);
    auto pending = g_pending.find(answer.token);
    if (pending == g_pending.end()) return false;  // unsubscribed, or a newer request counts
    Pending request = pending->second;
    g_pending.erase(pending);
    Follower* follower = FindFollower(request.follower);
    if (follower == nullptr) return false;
    follower->pendingToken = 0;
    if (g_notifications[follower->subject] != request.notificationsAtSend) {
        LMF_LOGE_IN(kDeliverCurrentValue, "stale answer for %s dropped: a notification came first",
                    follower->subject.c_str());
        return false;
    }
    if (answer.data == contract::kErrorJson && !request.first) {
        LMF_LOGE_IN(kDeliverCurrentValue, "no current value of %s after the service came back; keeping %s",
                    follower->subject.c_str(), follower->hasTold ? "the last one" : "none");
        return false;
    }
    if (follower->hasTold && follower->told == answer.data) return false;  // nothing new
    follower->hasTold = true;
    follower->told = answer.data;
    callback = follower->callback;
    userData = follower->userData;
    subject = follower->subject;
    return true;
}

gboolean DeliverCurrentValue(gpointer data) {
    auto* answer = static_cast<Answer*>(data);
    GuardedVoid(kDeliverCurrentValue, [answer] {
        LumoraSubjectCb callback = nullptr;
        void* userData = nullptr;
        std::string subject;
        if (!TakeAnswer(*answer, callback, userData, subject)) return;
        if (callback != nullptr) callback(subject.c_str(), answer->data.data(), userData);
    });
    delete answer;
    return G_SOURCE_REMOVE;
}

// Sends the request for follower id's current value; a newer one replaces
// any that is still out. Lines are logged for site.
void Ask(LogSite site, DBusClient& client, uint64_t id) {
    std::string subject;
    uintptr_t token = 0;
    {
        ContextAutoLock lock(&g_mutex);
        Follower* follower = FindFollower(id);
        if (follower == nullptr) return;
        if (follower->pendingToken != 0) g_pending.erase(follower->pendingToken);
        token = g_nextToken++;
        follower->pendingToken = token;
        // Until the callback heard something, a failed answer is news too.
        g_pending[token] = {id, g_notifications[follower->subject], !follower->hasTold};
        subject = follower->subject;
    }
    int result = client.Request(subject.c_str(), nullptr, OnCurrentValue, reinterpret_cast<void*>(token));
    if (result == 0) return;
    LMF_LOGE_FOR(site, "the current value of %s is asked again when the service is available (%d)", subject.c_str(),
                 result);
    ContextAutoLock lock(&g_mutex);
    g_pending.erase(token);
    if (Follower* follower = FindFollower(id)) follower->pendingToken = 0;
}

}  // namespace

void ReportNotification(const char* subject, const char* data) {
    if (g_followerCount.load(std::memory_order_relaxed) == 0 || subject == nullptr) return;
    ContextAutoLock lock(&g_mutex);
    auto counted = g_notifications.find(std::string_view(subject));
    if (counted == g_notifications.end()) return;
    ++counted->second;
    for (Follower& follower : g_followers) {
        if (follower.subject != subject) continue;
        follower.hasTold = true;
        follower.told = data != nullptr ? data : "";
    }
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

void FollowCurrentValue(LogSite site, EventOwner owner, DBusClient& client, const std::string& subject,
                        LumoraSubjectCb callback, void* userData) {
    uint64_t id = 0;
    {
        ContextAutoLock lock(&g_mutex);
        id = g_nextId++;
        g_followers.push_back({id, owner, subject, callback, userData, false, std::string(), 0});
        g_notifications.emplace(subject, 0);
        Recount();
    }
    Ask(site, client, id);
}

void ForgetCurrentValue(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData) {
    EraseFollowers([&](const Follower& f) {
        return f.owner == owner && f.subject == subject && f.callback == callback && f.userData == userData;
    });
}

void DropCurrentValues(EventOwner owner) {
    EraseFollowers([owner](const Follower& f) { return f.owner == owner; });
}

uint64_t FollowersMark() {
    ContextAutoLock lock(&g_mutex);
    return g_nextId;
}

void CatchUpCurrentValues(const char* reason, uint64_t mark) {
    std::vector<uint64_t> ids;
    {
        ContextAutoLock lock(&g_mutex);
        for (const Follower& follower : g_followers)
            if (follower.id < mark) ids.push_back(follower.id);
    }
    DBusClient* client = DBusClient::m_pInstance;
    if (ids.empty() || client == nullptr) return;
    LMF_LOGI_IN("CatchUpCurrentValues", "service %s: asking %zu current value(s) again", reason, ids.size());
    // Each request only starts its call: they are all in flight together.
    for (uint64_t id : ids) Ask(LMF_SITE("CatchUpCurrentValues"), *client, id);
}

}  // namespace lumora::internal
