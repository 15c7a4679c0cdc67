// An application thread of a stress round: drives the library's public
// functions at random (seeded) until it is told to stop, and keeps what it
// holds so that the round's checks know what must still work.
#ifndef LUMORA_TESTS_STRESS_APPTHREAD_H
#define LUMORA_TESTS_STRESS_APPTHREAD_H

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Registrations.h"

namespace lumora::test {

/// Subjects the threads subscribe to; the first four have a current value
/// and take subscriptions with the value too, so that both kinds meet.
extern const std::vector<std::string> kPlainSubjects;
extern const std::vector<std::string> kValueSubjects;

/// The race of the round's start: one thread registers the channel callback
/// while another removes the library's only subscription.
/// Everyone else waits for its end without spinning: on a machine of two
/// cores, any other busy thread would slow one side down.
class Duel {
public:
    void Meet();        // returns once both sides are there
    void Finish();      // one side is through
    void WaitForEnd();  // returns once both sides are through

private:
    std::atomic<int> m_arrived{0};
    std::mutex m_mutex;
    std::condition_variable m_ended;
    int m_finished = 0;
};

/// What the threads did, for the run's summary.
struct Tally {
    std::atomic<size_t> operations{0};
    std::atomic<size_t> readsFailed{0};
    std::atomic<size_t> requestsRefused{0};
};

class AppThread {
public:
    static constexpr int kPlainSlots = 3;
    static constexpr int kValueSlots = 2;
    static constexpr int kAvailabilitySlots = 2;
    static constexpr int kThreads = 3;

    /// Thread 0 owns the channel callback, thread 1 holds the round's first
    /// subscription; both meet at duel before anything else.
    AppThread(int index, uint64_t seed, bool quiet, Arena& arena, Tally& tally, Duel& duel);
    ~AppThread();
    AppThread(const AppThread&) = delete;
    AppThread& operator=(const AppThread&) = delete;

    void Start();
    void Stop();  // returns once the thread has ended

    /// @name After Stop, from the checking thread
    /// @{
    std::vector<Registration*> LiveSubscriptions() const;
    std::vector<Registration*> LiveAvailability() const;
    ChannelRecord* LiveChannel() const { return m_channelRegistered ? m_channel : nullptr; }
    /// Whether the channel callback was registered in this round: its current
    /// list stays subscribed until the service is stopped.
    bool ChannelEverRegistered() const { return m_channelEver; }
    const std::vector<RequestRecord*>& Requests() const { return m_requests; }
    /// Removes what the thread still holds, marking each removal.
    void RemoveAll();
    /// @}

private:
    void Run();
    void Step();
    void ToggleSubscription(Registration*& slot, int callback, bool withValue);
    void ToggleAvailability(Registration*& slot);
    void ToggleChannel();
    void Read();
    void Request();
    int Draw(int bound) { return static_cast<int>(m_rng() % static_cast<uint64_t>(bound)); }
    // Each slot has a callback of its own (SubjectCallback's numbers).
    int PlainCallback(int slot) const { return m_index * kPlainSlots + slot; }
    int ValueCallback(int slot) const { return kThreads * kPlainSlots + m_index * kValueSlots + slot; }

    const int m_index;
    const bool m_quiet;
    std::mt19937_64 m_rng;
    Arena& m_arena;
    Tally& m_tally;
    Duel& m_duel;
    std::array<Registration*, kPlainSlots> m_plain{};
    std::array<Registration*, kValueSlots> m_value{};
    std::array<Registration*, kAvailabilitySlots> m_availability{};
    ChannelRecord* m_channel = nullptr;
    bool m_channelRegistered = false;
    bool m_channelEver = false;
    std::vector<RequestRecord*> m_requests;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace lumora::test

#endif
