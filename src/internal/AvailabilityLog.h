// The states of the service as the bus client reports them, reduced to the
// changes that an availability callback is told and that make the current
// values be asked again. Plain logic without a lock or a bus: its owner
// guards it.
#ifndef LUMORA_INTERNAL_AVAILABILITYLOG_H
#define LUMORA_INTERNAL_AVAILABILITYLOG_H

#include <cstdint>
#include <deque>

namespace lumora::internal {

class AvailabilityLog {
public:
    static constexpr int kUnknown = -1;

    struct Change {
        int available;       // 1, 0, or kUnknown
        const char* reason;  // one of the static reason texts
        uint64_t followers;  // the followers' mark when it was recorded
        uint64_t asked;      // followers below this mark were asked already, as the return began
    };

    // Takes a reported state. A service still away is no news (a check says
    // so every 3 s), nor is a check that finds it still there ("ready"
    // while available); every other report of it being there is, since the
    // current values may have changed meanwhile. News becomes the current
    // state, and is queued for the dispatch when queue is set. Returns
    // whether it was news.
    bool Record(int available, const char* reason, uint64_t followers, bool queue, uint64_t asked = 0);
    // The oldest queued change; false when none is left.
    bool Next(Change& out);
    // The current state; false while none was reported.
    bool Current(Change& out) const;

private:
    std::deque<Change> m_changes;
    Change m_current = {kUnknown, nullptr, 0, 0};
};

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_AVAILABILITYLOG_H
