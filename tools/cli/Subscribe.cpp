// lumora: the subscribe command, one JSON line per change notification (and
// per change of the service's availability) until SIGINT or SIGTERM.
#include <lumora/lumora-api.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Cli.h"
#include "internal/ServiceContract.h"

namespace lumora::cli {

namespace {

using Args = std::vector<std::string>;
namespace contract = lumora::contract;

Args Distinct(const Args& subjects) {
    Args distinct;
    for (const std::string& subject : subjects) {
        if (std::find(distinct.begin(), distinct.end(), subject) == distinct.end()) distinct.push_back(subject);
    }
    return distinct;
}

// The service's own announcements come on the same signal as subjects; a
// subscription to them would take them away from the library's restart
// handling.
bool IsServiceAnnouncement(const std::string& subject) {
    return subject == contract::kHello || subject == contract::kBye;
}

void OnNotification(const char* subject, char* data, void*) { PrintEvent(subject, data != nullptr ? data : ""); }

// With --initial: the current value first, and again whenever it changed
// while the service was away. A first answer without a value, or with the
// error text, is a note on stderr, not a line of output.
void OnValue(const char* subject, char* data, void* told) {
    auto* valueTold = static_cast<bool*>(told);
    bool first = !*valueTold;
    *valueTold = true;
    if (first && data != nullptr && strcmp(data, contract::kEmptyJson) == 0) {
        Warn(std::string("the service has no data for ") + subject);
        return;
    }
    if (first && data != nullptr && strcmp(data, contract::kErrorJson) == 0) {
        Warn(std::string("the service answered ") + subject + " with an error");
        return;
    }
    OnNotification(subject, data, nullptr);
}

// The service going away and coming back, between the notifications. The
// first call only tells the state at the start.
void OnAvailability(int available, const char* reason, void* started) {
    auto* toldOnce = static_cast<bool*>(started);
    if (!*toldOnce) {
        *toldOnce = true;
        return;
    }
    PrintAvailability(available == 1, reason);
}

std::string SubscribeRefusal(const std::string& subject) {
    if (subject.size() <= 2) return "the library takes no subject of two characters or fewer (" + subject + ")";
    return "the library refused the subscription to " + subject;
}

// One per subject: whether its current value was told yet (--initial).
struct Subscription {
    std::string subject;
    bool valueTold = false;
};
using Subscriptions = std::vector<Subscription>;

void UnsubscribeAll(Subscriptions& subscriptions, size_t count, bool initial) {
    for (size_t i = 0; i < count; ++i) {
        Subscription& subscription = subscriptions[i];
        if (initial) {
            Lumora_Unsubscribe(subscription.subject.c_str(), OnValue, &subscription.valueTold);
        } else {
            Lumora_Unsubscribe(subscription.subject.c_str(), OnNotification, nullptr);
        }
    }
}

bool Subscribe(Subscription& subscription, bool initial) {
    const std::string& subject = subscription.subject;
    if (!MayUseSubject(subject)) return false;
    // Subscribed first and read second by the library, which drops a value
    // older than a notification: no change is lost or told out of order.
    bool done = initial ? Lumora_SubscribeWithValue(subject.c_str(), OnValue, &subscription.valueTold)
                        : Lumora_Subscribe(subject.c_str(), OnNotification, nullptr);
    if (done) return true;
    Fail(SubscribeRefusal(subject));
    return false;
}

// All or none.
bool SubscribeAll(Subscriptions& subscriptions, bool initial) {
    for (size_t i = 0; i < subscriptions.size(); ++i) {
        if (Subscribe(subscriptions[i], initial)) continue;
        UnsubscribeAll(subscriptions, i, initial);
        return false;
    }
    return true;
}

// Subscribes, prints, and waits for the loop to be stopped.
int Follow(const Options& options, const Args& subjects, GMainLoop* loop) {
    if (!StartService()) return kFailed;
    Subscriptions subscriptions;
    for (const std::string& subject : subjects) subscriptions.push_back({subject});
    bool started = false;
    if (!Lumora_AddAvailabilityCallback(OnAvailability, &started)) {
        StopService();
        return Fail("the library refused to tell the service's availability");
    }
    if (!SubscribeAll(subscriptions, options.initial)) {
        StopService();
        return kFailed;
    }
    g_main_loop_run(loop);
    UnsubscribeAll(subscriptions, subscriptions.size(), options.initial);
    Lumora_RemoveAvailabilityCallback(OnAvailability, &started);
    StopService();
    return kOk;
}

}  // namespace

int RunSubscribe(const Options& options, const Args& args) {
    Args subjects = Distinct(args);
    for (const std::string& subject : subjects) {
        if (!IsServiceAnnouncement(subject)) continue;
        fprintf(stderr, "lumora: %s is the service's own announcement, not a subject\n", subject.c_str());
        fprintf(stderr, "usage: lumora subscribe [--initial] SUBJECT...\n");
        return kUsage;
    }
    return FollowUntilStopped([&](GMainLoop* loop) { return Follow(options, subjects, loop); });
}

}  // namespace lumora::cli
