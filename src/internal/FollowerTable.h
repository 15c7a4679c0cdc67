// The subscriptions with the current value and the rules for their answers:
// an answer counts only for the request that is still awaited, only when no
// notification of the subject came after it was asked (the notification is
// newer), and only when it tells the callback something new. Plain logic
// without a lock or a bus: its owner guards it.
#ifndef LUMORA_INTERNAL_FOLLOWERTABLE_H
#define LUMORA_INTERNAL_FOLLOWERTABLE_H

#include <lumora/lumora-c.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "internal/Events.h"

namespace lumora::internal {

class FollowerTable {
public:
    // What an answer is to become.
    enum class Outcome {
        kDeliver,     // new for the callback: deliver it
        kNotAwaited,  // unsubscribed meanwhile, or a newer request counts
        kStale,       // a notification came after the request: it is newer
        kKeepLast,    // a failed answer after the first: the last value stays
        kLater,       // a failed first answer while the service is away: asked again when it is back
        kUnchanged,   // what the callback was told last
    };

    // Where a delivery goes.
    struct Target {
        EventOwner owner;
        std::string subject;
        LumoraSubjectCb callback;
        void* userData;
        bool hadValue;  // whether the callback had been told a value before
    };

    uint64_t Add(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData);
    // Removes the followers for which gone holds, with the requests they
    // awaited; returns how many went.
    size_t Remove(const std::function<bool(EventOwner, const std::string&, LumoraSubjectCb, void*)>& gone);
    bool Has(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData) const;
    size_t Size() const { return m_followers.size(); }
    // Followers added from now on have ids from the mark up.
    uint64_t Mark() const { return m_nextId; }
    // The followers from mark from up to (not including) mark to, with their
    // owners, in table order.
    std::vector<std::pair<uint64_t, EventOwner>> Between(uint64_t from, uint64_t to) const;

    // A request for follower id's value: its token and subject; a newer
    // request replaces one still awaited. False when id is not followed.
    bool Prepare(uint64_t id, uintptr_t& token, std::string& subject);
    // The request of token could not be sent, or was dropped unanswered.
    void Abandon(uintptr_t token);
    // A notification of subject with data is being delivered: it is what
    // the subject's followers were told last, and newer than any answer to
    // a request sent before it.
    void Notify(const char* subject, const char* data);
    // What the answer data to token is to become; serviceAway tells whether
    // the service is known to be away now. On kDeliver, target is set and
    // the follower counts as told data.
    Outcome TakeAnswer(uintptr_t token, const std::string& data, bool serviceAway, Target& target);

private:
    struct Follower {
        EventOwner owner;
        std::string subject;
        LumoraSubjectCb callback;
        void* userData;
        bool hasTold;
        std::string told;
        uintptr_t pendingToken;  // the one request whose answer counts, 0 when none
    };
    // What a request's token stands for: the follower, the subject's count
    // of notifications when it was sent, and whether its callback had heard
    // nothing yet then.
    struct Pending {
        uint64_t follower;
        uint64_t notificationsAtSend;
        bool first;
    };
    // Per followed subject: its notifications so far and its followers.
    struct Subject {
        uint64_t notifications = 0;
        std::vector<uint64_t> followers;
    };

    Follower* Find(uint64_t id);
    void Erase(std::map<uint64_t, Follower>::iterator it);

    // By id, which grows with every follower: in the order they were added.
    std::map<uint64_t, Follower> m_followers;
    std::map<std::string, Subject, std::less<>> m_subjects;
    std::map<uintptr_t, Pending> m_pending;
    uint64_t m_nextId = 1;
    uintptr_t m_nextToken = 1;
};

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_FOLLOWERTABLE_H
