// The application's side of every callback registration a stress run makes:
// one record per registration, handed to the library as its userData, that
// remembers what its callback heard and catches a call that overlaps the
// registration's removal. Records live until the run ends, since a late call
// may still reach one.
#ifndef LUMORA_TESTS_STRESS_REGISTRATIONS_H
#define LUMORA_TESTS_STRESS_REGISTRATIONS_H

#include <lumora/lumora-api.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace lumora::test {

enum class Kind { kSubscription, kSubscriptionWithValue, kAvailability };

/// One subscription or availability callback. The thread that removes it
/// calls MarkRemoved() as soon as the removing function has returned; the
/// callback checks the mark on entry (a call that started after the removal)
/// and on exit (a removal that returned while the call was running).
class Registration {
public:
    /// Each call pauses between minPauseUs and maxPauseUs, drawn from pauseSeed
    /// and the call's number.
    Registration(Kind kind, std::string subject, int callback, uint64_t pauseSeed, int minPauseUs, int maxPauseUs);

    Kind What() const { return m_kind; }
    const std::string& Subject() const { return m_subject; }
    int Callback() const { return m_callback; }
    std::string Name() const;
    /// What the registration is ("subscription", ...), for counting by kind.
    const char* KindText() const;

    void MarkRemoved() { m_removed.store(true); }
    bool Removed() const { return m_removed.load(); }

    // The callback's steps, on the main-loop thread.
    bool Enter();
    void Pause();
    void Hear(const std::string& data);
    void Leave(bool removedOnEntry);

    size_t Calls() const { return m_calls.load(); }
    bool Inside() const { return m_inside.load() > 0; }
    bool HasHeard(const std::string& data) const;
    std::string LastHeard() const;
    size_t StartedAfterRemoval() const { return m_startedAfterRemoval.load(); }
    size_t RunningAtRemoval() const { return m_runningAtRemoval.load(); }

private:
    const Kind m_kind;
    const std::string m_subject;
    const int m_callback;
    const uint64_t m_id;
    const uint64_t m_pauseSeed;
    const int m_minPauseUs;
    const int m_maxPauseUs;
    std::atomic<bool> m_removed{false};
    std::atomic<int> m_inside{0};
    std::atomic<size_t> m_calls{0};
    std::atomic<size_t> m_startedAfterRemoval{0};
    std::atomic<size_t> m_runningAtRemoval{0};
    mutable std::mutex m_mutex;
    std::vector<std::string> m_heard;
};

/// One asynchronous request: how often its callback came, and with what.
struct RequestRecord {
    RequestRecord(std::string what, bool steady) : subject(std::move(what)), quiet(steady) {}
    const std::string subject;
    const bool quiet;                   // made while the service was steadily up
    std::atomic<bool> accepted{false};  // the request function returned true
    std::atomic<int> calls{0};
    std::mutex mutex;
    std::string data;
};

/// One registration of the channel callback (CS_RegisterChannelCallback).
class ChannelRecord {
public:
    void Hear(int event, const std::string& data);
    bool HasHeard(int event, const std::string& data) const;
    size_t Calls() const;

private:
    mutable std::mutex m_mutex;
    std::vector<std::pair<int, std::string>> m_events;
};

/// Keeps every record of a run alive until the run is over.
class Arena {
public:
    template <typename T, typename... Args>
    T* Make(Args&&... args) {
        auto owned = std::make_shared<T>(std::forward<Args>(args)...);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_kept.push_back(owned);
        return owned.get();
    }

private:
    std::mutex m_mutex;
    std::deque<std::shared_ptr<void>> m_kept;
};

/// How many distinct subject callbacks there are: the library keeps one
/// callback per subject, so concurrent subscriptions need callbacks of their
/// own.
constexpr int kSubjectCallbacks = 32;

/// The subject callback number index; its userData must be a Registration.
LumoraSubjectCb SubjectCallback(int index);
/// The availability callback; its userData must be a Registration.
void AvailabilityCallback(int available, const char* reason, void* userData);
/// The request callback; its userData must be a RequestRecord.
void RequestCallback(const char* subject, char* data, void* userData);
/// The channel callback; its userData must be a ChannelRecord. Frees data.
void ChannelCallback(LMF_EVENT_TYPE event, char* data, int count, void* userData);

/// A well-mixed 64-bit value of x (splitmix64), for seeded choices.
uint64_t Mix(uint64_t x);

}  // namespace lumora::test

#endif
