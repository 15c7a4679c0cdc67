// The followers of each subject. The C library takes one callback per
// subject (a second registration of the same callback is refused, whatever
// its user data), so each kind of following has one callback of its own
// here, registered once per subject, and this table fans its changes out to
// the subscriptions.
#include <lumora/ContextAutoLock.h>
#include <lumora/lumora-c.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Followers.h"
#include "internal/HandOff.h"

namespace lumora::glib {

struct Target {
    std::atomic<int> refs{1};
    GWeakRef subscription;  // empty once the subscription's disposal began
    GMainContext* context;  // owned; set at creation, then only read
};

}  // namespace lumora::glib

namespace {

using lumora::glib::Target;

// One subject followed in one way: its subscriptions in the order they came,
// each holding a reference to its target, and (with the value) the last
// value the library told.
struct Followed {
    std::vector<Target*> targets;
    std::optional<std::string> lastValue;
};

using Key = std::pair<std::string, bool>;  // subject, with the value

// Serialises what the C library is told: held across its subscribe and
// unsubscribe calls, so that the first follower's registration and the last
// one's removal of a subject never cross. Always taken before g_tableLock,
// and never from a callback of the C library.
GMutex g_registrationLock;
// Guards g_followed. Held while deliveries are posted (so that they keep the
// order of the changes), during which only GLib's context lock is taken; the
// C library is never called with it held.
GMutex g_tableLock;
std::map<Key, Followed> g_followed;

Target* Acquire(Target* target) {
    target->refs.fetch_add(1);
    return target;
}

// One change on its way to one subscription's context.
struct Delivery {
    Target* target;
    char* data;
};

gboolean RunDelivery(gpointer data) {
    auto* delivery = static_cast<Delivery*>(data);
    lumora::internal::HandOffReceive(delivery);
    auto* subscription = static_cast<LumoraSubscription*>(g_weak_ref_get(&delivery->target->subscription));
    if (subscription == nullptr) return G_SOURCE_REMOVE;
    lumora::glib::DeliverChange(subscription, delivery->data);
    g_object_unref(subscription);
    return G_SOURCE_REMOVE;
}

void FreeDelivery(gpointer data) {
    auto* delivery = static_cast<Delivery*>(data);
    lumora::glib::ReleaseTarget(delivery->target);
    g_free(delivery->data);
    delete delivery;
}

// With g_tableLock held.
void Post(Target* target, const std::string& data) {
    auto* delivery = new Delivery{Acquire(target), g_strdup(data.c_str())};
    lumora::glib::PostTo(target->context, "lumora-glib change", RunDelivery, delivery, FreeDelivery);
}

// A change of subject from the C library: on the thread that iterates the
// global default main context, with no library lock held.
void Deliver(const char* subject, const char* data, bool withValue) {
    lumora::glib::Guard(nullptr, LMF_SITE("Deliver"), 0, [&] {
        std::string text = data != nullptr ? data : "";
        ContextAutoLock lock(&g_tableLock);
        auto found = g_followed.find(Key(subject != nullptr ? subject : "", withValue));
        if (found == g_followed.end()) return 0;
        if (withValue) found->second.lastValue = text;
        for (Target* target : found->second.targets) Post(target, text);
        return 0;
    });
}

void OnChange(const char* subject, char* data, void*) { Deliver(subject, data, false); }
void OnValue(const char* subject, char* data, void*) { Deliver(subject, data, true); }

// Adds target under the table lock; true when it is the first of its key.
bool Join(Target* target, const Key& key) {
    ContextAutoLock lock(&g_tableLock);
    Followed& followed = g_followed[key];
    bool first = followed.targets.empty();
    followed.targets.push_back(Acquire(target));
    if (!first && followed.lastValue) Post(target, *followed.lastValue);
    return first;
}

// Removes target under the table lock; true when it was the last of its key.
bool Leave(Target* target, const Key& key) {
    ContextAutoLock lock(&g_tableLock);
    auto found = g_followed.find(key);
    if (found == g_followed.end()) return false;
    std::vector<Target*>& targets = found->second.targets;
    auto it = std::find(targets.begin(), targets.end(), target);
    if (it == targets.end()) return false;
    targets.erase(it);
    lumora::glib::ReleaseTarget(target);
    if (!targets.empty()) return false;
    g_followed.erase(found);
    return true;
}

}  // namespace

namespace lumora::glib {

Target* NewTarget(LumoraSubscription* subscription) {
    auto* target = new Target;
    g_weak_ref_init(&target->subscription, subscription);
    target->context = g_main_context_ref_thread_default();
    return target;
}

void ReleaseTarget(Target* target) {
    if (target->refs.fetch_sub(1) != 1) return;
    g_weak_ref_clear(&target->subscription);
    g_main_context_unref(target->context);
    delete target;
}

// The target is in the table before the library is told, so that a change
// or the current value that comes while it is being told is not missed.
bool Follow(Target* target, const char* subject, bool withValue, GError** error, internal::LogSite site) {
    ContextAutoLock registration(&g_registrationLock);
    Key key(subject, withValue);
    if (!Join(target, key)) return true;
    RefusalWatch watch;
    bool registered = withValue ? Lumora_SubscribeWithValue(subject, OnValue, nullptr)
                                : Lumora_Subscribe(subject, OnChange, nullptr);
    if (registered) {
        LMF_LOG_SITE(LUMORA_PRIO_INFO, site.unit, site.function, "following %s%s", subject,
                     withValue ? " with its current value" : "");
        return true;
    }
    Leave(target, key);
    if (watch.Refused()) return FailRefused(error, site, "subscription", subject);
    return Fail(error, site, LUMORA_CLIENT_ERROR_CALL_FAILED, "the library refused the subscription to %s (see its log)",
                subject);
}

void Unfollow(Target* target, const char* subject, bool withValue) {
    ContextAutoLock registration(&g_registrationLock);
    if (!Leave(target, Key(subject, withValue))) return;
    // Waits for the callback if it runs on another thread now; g_tableLock is
    // not held, which that callback takes.
    if (!Lumora_Unsubscribe(subject, withValue ? OnValue : OnChange, nullptr))
        LMF_LOGE_IN("Unfollow", "the library did not know the subscription to %s", subject);
    else
        LMF_LOGI_IN("Unfollow", "no longer following %s%s", subject, withValue ? " with its current value" : "");
}

}  // namespace lumora::glib
