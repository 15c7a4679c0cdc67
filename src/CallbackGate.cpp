// The deliveries admitted from the library's callback tables and not yet
// finished, by thread, and the removals that wait for them.
#include "internal/CallbackGate.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

namespace lumora::internal {
namespace {

enum class State : uint8_t { kAdmitted, kRunning, kRetired };

struct Entry {
    CallbackGate::Ticket ticket;
    CallbackKey key;
    std::thread::id thread;
    State state;
};

// Guarded by g_mutex, a leaf: nothing else is called while it is held. The
// list is short (the deliveries of one notification, at most a few tables'
// worth), so it is searched in order.
std::mutex g_mutex;
std::condition_variable g_finished;
std::vector<Entry> g_entries;
CallbackGate::Ticket g_nextTicket = 1;

Entry* Find(CallbackGate::Ticket ticket) {
    auto it = std::find_if(g_entries.begin(), g_entries.end(),
                           [ticket](const Entry& entry) { return entry.ticket == ticket; });
    return it != g_entries.end() ? &*it : nullptr;
}

// Retires what match names and says whether one of its deliveries runs on
// another thread. Called with g_mutex held.
bool RetireAndFindRunning(const CallbackMatch& match) {
    const std::thread::id self = std::this_thread::get_id();
    bool runningElsewhere = false;
    for (Entry& entry : g_entries) {
        if (!match.Matches(entry.key)) continue;
        if (entry.state == State::kAdmitted) entry.state = State::kRetired;
        if (entry.state == State::kRunning && entry.thread != self) runningElsewhere = true;
    }
    return runningElsewhere;
}

}  // namespace

bool CallbackMatch::Matches(const CallbackKey& key) const {
    if (key.table != table) return false;
    if (subject != nullptr && key.subject != subject) return false;
    if (callback != nullptr && key.callback != callback) return false;
    return anyUserData || key.userData == userData;
}

CallbackGate::Ticket CallbackGate::Admit(CallbackKey key) {
    std::lock_guard<std::mutex> lock(g_mutex);
    Ticket ticket = g_nextTicket++;
    g_entries.push_back({ticket, std::move(key), std::this_thread::get_id(), State::kAdmitted});
    return ticket;
}

bool CallbackGate::Begin(Ticket ticket) {
    std::lock_guard<std::mutex> lock(g_mutex);
    Entry* entry = Find(ticket);
    if (entry == nullptr || entry->state == State::kRetired) return false;
    entry->state = State::kRunning;
    entry->thread = std::this_thread::get_id();
    return true;
}

void CallbackGate::Finish(Ticket ticket) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        auto it = std::find_if(g_entries.begin(), g_entries.end(),
                               [ticket](const Entry& entry) { return entry.ticket == ticket; });
        if (it == g_entries.end()) return;
        g_entries.erase(it);
    }
    g_finished.notify_all();
}

void CallbackGate::Retire(const CallbackMatch& match) {
    std::unique_lock<std::mutex> lock(g_mutex);
    g_finished.wait(lock, [&match] { return !RetireAndFindRunning(match); });
}

size_t CallbackGate::Pending() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_entries.size();
}

}  // namespace lumora::internal
