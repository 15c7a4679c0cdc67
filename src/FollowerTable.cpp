// The subscriptions with the current value and what their answers become.
#include "internal/FollowerTable.h"

#include <algorithm>
#include <string_view>

#include "internal/ServiceContract.h"

namespace lumora::internal {

uint64_t FollowerTable::Add(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData) {
    uint64_t id = m_nextId++;
    m_followers.emplace(id, Follower{owner, subject, callback, userData, false, std::string(), 0});
    m_subjects[subject].followers.push_back(id);
    return id;
}

// A subject nobody follows any more forgets its count of notifications.
void FollowerTable::Erase(std::map<uint64_t, Follower>::iterator it) {
    const uint64_t id = it->first;
    if (it->second.pendingToken != 0) m_pending.erase(it->second.pendingToken);
    auto subject = m_subjects.find(it->second.subject);
    if (subject != m_subjects.end()) {
        std::vector<uint64_t>& ids = subject->second.followers;
        ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end());
        if (ids.empty()) m_subjects.erase(subject);
    }
    m_followers.erase(it);
}

size_t FollowerTable::Remove(const std::function<bool(EventOwner, const std::string&, LumoraSubjectCb, void*)>& gone) {
    size_t removed = 0;
    for (auto it = m_followers.begin(); it != m_followers.end();) {
        const Follower& f = it->second;
        if (!gone(f.owner, f.subject, f.callback, f.userData)) {
            ++it;
            continue;
        }
        Erase(it++);
        ++removed;
    }
    return removed;
}

bool FollowerTable::Has(EventOwner owner, const std::string& subject, LumoraSubjectCb callback,
                        void* userData) const {
    auto followed = m_subjects.find(subject);
    if (followed == m_subjects.end()) return false;
    return std::any_of(followed->second.followers.begin(), followed->second.followers.end(), [&](uint64_t id) {
        const Follower& f = m_followers.at(id);
        return f.owner == owner && f.callback == callback && f.userData == userData;
    });
}

std::vector<std::pair<uint64_t, EventOwner>> FollowerTable::Between(uint64_t from, uint64_t to) const {
    std::vector<std::pair<uint64_t, EventOwner>> found;
    for (auto it = m_followers.lower_bound(from); it != m_followers.end() && it->first < to; ++it)
        found.emplace_back(it->first, it->second.owner);
    return found;
}

bool FollowerTable::Prepare(uint64_t id, uintptr_t& token, std::string& subject) {
    Follower* follower = Find(id);
    if (follower == nullptr) return false;
    if (follower->pendingToken != 0) m_pending.erase(follower->pendingToken);
    token = m_nextToken++;
    follower->pendingToken = token;
    // Until the callback heard something, a failed answer is news too.
    m_pending[token] = {id, m_subjects[follower->subject].notifications, !follower->hasTold};
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
    auto followed = m_subjects.find(std::string_view(subject));
    if (followed == m_subjects.end()) return;
    ++followed->second.notifications;
    for (uint64_t id : followed->second.followers) {
        Follower& follower = m_followers.at(id);
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
    if (m_subjects[follower->subject].notifications != request.notificationsAtSend) return Outcome::kStale;
    const bool failed = data == contract::kErrorJson;
    if (failed && !request.first) return Outcome::kKeepLast;
    if (failed && serviceAway) return Outcome::kLater;
    if (follower->hasTold && follower->told == data) return Outcome::kUnchanged;
    follower->hasTold = true;
    follower->told = data;
    return Outcome::kDeliver;
}

FollowerTable::Follower* FollowerTable::Find(uint64_t id) {
    auto it = m_followers.find(id);
    return it != m_followers.end() ? &it->second : nullptr;
}

}  // namespace lumora::internal
