#include "Registrations.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>

#include "Violations.h"

namespace lumora::test {

namespace {

std::atomic<uint64_t> g_nextId{1};

const char* KindName(Kind kind) {
    switch (kind) {
        case Kind::kSubscription:
            return "subscription";
        case Kind::kSubscriptionWithValue:
            return "subscription with the current value";
        case Kind::kAvailability:
            return "availability callback";
    }
    return "?";
}

const char* RemovalName(Kind kind) {
    return kind == Kind::kAvailability ? "Lumora_RemoveAvailabilityCallback" : "Lumora_Unsubscribe";
}

void SubjectBody(int index, const char* subject, const char* data, void* userData) {
    auto* record = static_cast<Registration*>(userData);
    if (record == nullptr) {
        Violations::Instance().Add(Rule::kOther, "subject callback " + std::to_string(index) + " got no userData");
        return;
    }
    bool removedOnEntry = record->Enter();
    if (record->Callback() != index)
        Violations::Instance().Add(Rule::kOther,
                                   record->Name() + ": reached through callback " + std::to_string(index));
    if (subject == nullptr || record->Subject() != subject)
        Violations::Instance().Add(Rule::kOther, record->Name() + ": called for subject " +
                                                     std::string(subject != nullptr ? subject : "(null)"));
    record->Pause();
    record->Hear(data != nullptr ? data : "(null)");
    record->Leave(removedOnEntry);
}

// One distinct function per index: the body takes the index, so that no two
// instances are folded into one address.
template <int N>
void NumberedSubjectCallback(const char* subject, char* data, void* userData) {
    SubjectBody(N, subject, data, userData);
}

template <int... N>
constexpr std::array<LumoraSubjectCb, sizeof...(N)> MakeSubjectCallbacks(std::integer_sequence<int, N...>) {
    return {&NumberedSubjectCallback<N>...};
}

constexpr auto kSubjectCallbackTable = MakeSubjectCallbacks(std::make_integer_sequence<int, kSubjectCallbacks>());

}  // namespace

uint64_t Mix(uint64_t x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

Registration::Registration(Kind kind, std::string subject, int callback, uint64_t pauseSeed, int minPauseUs,
                           int maxPauseUs)
    : m_kind(kind),
      m_subject(std::move(subject)),
      m_callback(callback),
      m_id(g_nextId.fetch_add(1)),
      m_pauseSeed(pauseSeed),
      m_minPauseUs(minPauseUs),
      m_maxPauseUs(maxPauseUs) {}

std::string Registration::Name() const {
    std::string name = std::string(KindName(m_kind)) + " #" + std::to_string(m_id);
    if (!m_subject.empty()) name += " of " + m_subject;
    return name;
}

const char* Registration::KindText() const { return KindName(m_kind); }

bool Registration::Enter() {
    m_inside.fetch_add(1);
    m_calls.fetch_add(1);
    bool removed = m_removed.load();
    if (removed) {
        m_startedAfterRemoval.fetch_add(1);
        std::string what = std::string(": a call started after ") + RemovalName(m_kind) + " had returned";
        Violations::Instance().Add(Rule::kNoCallAfterRemoval, Name() + what, KindText() + what);
    }
    return removed;
}

// Long enough that a removal on another thread can meet a running call.
void Registration::Pause() {
    if (m_maxPauseUs <= 0) return;
    uint64_t spread = static_cast<uint64_t>(m_maxPauseUs - m_minPauseUs + 1);
    uint64_t pause = static_cast<uint64_t>(m_minPauseUs) + Mix(m_pauseSeed + m_calls.load()) % spread;
    std::this_thread::sleep_for(std::chrono::microseconds(pause));
}

void Registration::Hear(const std::string& data) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_heard.push_back(data);
}

void Registration::Leave(bool removedOnEntry) {
    if (!removedOnEntry && m_removed.load()) {
        m_runningAtRemoval.fetch_add(1);
        std::string what = std::string(": ") + RemovalName(m_kind) + " returned while a call was running";
        Violations::Instance().Add(Rule::kNoCallAfterRemoval, Name() + what, KindText() + what);
    }
    m_inside.fetch_sub(1);
}

bool Registration::HasHeard(const std::string& data) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const std::string& heard : m_heard)
        if (heard == data) return true;
    return false;
}

std::string Registration::LastHeard() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_heard.empty() ? std::string() : m_heard.back();
}

void ChannelRecord::Hear(int event, const std::string& data) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_events.emplace_back(event, data);
}

bool ChannelRecord::HasHeard(int event, const std::string& data) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& heard : m_events)
        if (heard.first == event && heard.second == data) return true;
    return false;
}

size_t ChannelRecord::Calls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_events.size();
}

LumoraSubjectCb SubjectCallback(int index) { return kSubjectCallbackTable.at(static_cast<size_t>(index)); }

void AvailabilityCallback(int available, const char* reason, void* userData) {
    auto* record = static_cast<Registration*>(userData);
    if (record == nullptr) {
        Violations::Instance().Add(Rule::kOther, "availability callback got no userData");
        return;
    }
    bool removedOnEntry = record->Enter();
    std::string state = available == 1 ? "1" : "0";
    // Told once per change: never the same state twice in a row.
    if (record->Calls() > 1 && record->LastHeard() == state)
        Violations::Instance().Add(
            Rule::kOther,
            record->Name() + ": told " + state + " twice in a row (" + (reason != nullptr ? reason : "no reason") + ")",
            "an availability callback told the same state twice in a row");
    record->Pause();
    record->Hear(state);
    record->Leave(removedOnEntry);
}

void RequestCallback(const char* subject, char* data, void* userData) {
    auto* record = static_cast<RequestRecord*>(userData);
    if (record == nullptr) {
        Violations::Instance().Add(Rule::kOther, "request callback got no userData");
        return;
    }
    int calls = record->calls.fetch_add(1) + 1;
    {
        std::lock_guard<std::mutex> lock(record->mutex);
        record->data = data != nullptr ? data : "(null)";
    }
    if (calls > 1)
        Violations::Instance().Add(
            Rule::kRequestAnsweredOnce,
            "request of " + record->subject + ": callback called " + std::to_string(calls) + " times",
            "a request's callback called more than once");
    if (subject == nullptr || record->subject != subject)
        Violations::Instance().Add(Rule::kOther, "request of " + record->subject + " answered for subject " +
                                                     std::string(subject != nullptr ? subject : "(null)"));
}

void ChannelCallback(LMF_EVENT_TYPE event, char* data, int /*count*/, void* userData) {
    std::string text = data != nullptr ? data : "(null)";
    free(data);
    auto* record = static_cast<ChannelRecord*>(userData);
    if (record == nullptr) {
        Violations::Instance().Add(Rule::kOther, "channel callback got no userData");
        return;
    }
    record->Hear(static_cast<int>(event), text);
}

}  // namespace lumora::test
