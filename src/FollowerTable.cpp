// The subscriptions with the current value and what their answers become.
#include "internal/FollowerTable.h"

#include <algorithm>
#include <string_view>

#include "internal/ServiceContract.h"

namespace lumora::internal {

uint64_t FollowerTable::Add(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData) {
    uint64_t id = m_nextId++;
    m_followers.push_back({id, owner, subject, callback, userData, false, std::string(), 0});
    m_notifications.emplace(subject, 0);
    return id;
}

size_t FollowerTable::Remove(const std::function<bool(EventOwner, const std::string&, LumoraSubjectCb, void*)>& gone) {
    size_t removed = 0;
    for (auto it = m_followers.begin(); it != m_followers.end();) {
        if (!gone(it->owner, it->subject, it->callback, it->userData)) {
            ++it;
            continue;
        }
        const uint64_t id = it->id;
        for (auto pending = m_pending.begin(); pending != m_pending.end();)
            pending = pending->second.follower == id ? m_pending.erase(pending) : std::next(pending);
        it = m_followers.erase(it);
        ++removed;
    }
    if (removed != 0) ForgetUnfollowedSubjects();
    return removed;
}

bool FollowerTable::Has(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData) const {
    return std::any_of(m_followers.begin(), m_followers.end(), [&](const Follower& f) {
        return f.owner == owner && f.subject == subject && f.callback == callback && f.userData == userData;
    });
}

std::vector<std::pair<uint64_t, EventOwner>> FollowerTable::Between(uint64_t from, uint64_t to) const {
    std::vector<std::pair<uint64_t, EventOwner>> found;
    for (const Follower& follower : m_followers)
        if (follower.id >= from && follower.id < to) found.emplace_back(follower.id, follower.owner);
    return found;
}

bool FollowerTable::Prepare(uint64_t id, uintptr_t& token, std::string& subject) {
    Follower* follower = Find(id);
    if (follower == nullptr) return false;
    if (follower->pendingToken != 0) m_pending.erase(follower->pendingToken);
    token = m_nextToken++;
    follower->pendingToken = token;
    // Until the callback heard something, a failed answer is news too.
    m_pending[token] = {id, m_notifications[follower->subject], !follower->hasTold};
    subject = follower->subject;
    return true;
}

void FollowerTable::Abandon(uintptr_t token) {
    auto pending = m_pending.find(token);
    if (pending == m_pending.end()) return;
    Follower* follower = Find(pending->second.follower);
    if (follower != nullptr && follower->pendingToken == token) follower->pendingToken = 0;
    m_pending.erase(pending);
}

void FollowerTable::Notify(const char* subject, const char* data) {
    auto counted = m_notifications.find(std::string_view(subject));
    if (counted == m_notifications.end()) return;
    ++counted->second;
    for (Follower& follower : m_followers) {
        if (follower.subject != subject) continue;
        follower.hasTold = true;
        follower.told = data != nullptr ? data : "";
    }
}

FollowerTable::Outcome FollowerTable::TakeAnswer(uintptr_t token, const std::string& data, bool serviceAway,
                                                 Target& target) {
    auto pending = m_pending.find(token);
    if (pending == m_pending.end()) return Outcome::kNotAwaited;
    Pending request = pending->second;
    m_pending.erase(pending);
    Follower* follower = Find(request.follower);
    if (follower == nullptr) return Outcome::kNotAwaited;
    follower->pendingToken = 0;
    target = {follower->owner, follower->subject, follower->callback, follower->userData, follower->hasTold};
    if (m_notifications[follower->subject] != request.notificationsAtSend) return Outcome::kStale;
    const bool failed = data == contract::kErrorJson;
    if (failed && !request.first) return Outcome::kKeepLast;
    if (failed && serviceAway) return Outcome::kLater;
    if (follower->hasTold && follower->told == data) return Outcome::kUnchanged;
    follower->hasTold = true;
    follower->told = data;
    return Outcome::kDeliver;
}

FollowerTable::Follower* FollowerTable::Find(uint64_t id) {
    auto it = std::find_if(m_followers.begin(), m_followers.end(), [id](const Follower& f) { return f.id == id; });
    return it != m_followers.end() ? &*it : nullptr;
}

// The notification counters of the subjects nobody follows any more.
void FollowerTable::ForgetUnfollowedSubjects() {
    for (auto it = m_notifications.begin(); it != m_notifications.end();) {
        bool followed = std::any_of(m_followers.begin(), m_followers.end(),
                                    [&](const Follower& f) { return f.subject == it->first; });
        it = followed ? std::next(it) : m_notifications.erase(it);
    }
}

}  // namespace lumora::internal
