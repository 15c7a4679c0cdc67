// The changes of the service's state worth telling.
#include "internal/AvailabilityLog.h"

#include <cstring>

namespace lumora::internal {

bool AvailabilityLog::Record(int available, const char* reason, uint64_t followers, bool queue, uint64_t asked) {
    if (available == 0 && m_current.available == 0) return false;
    if (available == 1 && m_current.available == 1 && reason != nullptr && strcmp(reason, "ready") == 0) return false;
    m_current = {available, reason, followers, asked};
    if (queue) m_changes.push_back(m_current);
    return true;
}

bool AvailabilityLog::Next(Change& out) {
    if (m_changes.empty()) return false;
    out = m_changes.front();
    m_changes.pop_front();
    return true;
}

bool AvailabilityLog::Current(Change& out) const {
    if (m_current.available == kUnknown) return false;
    out = m_current;
    return true;
}

}  // namespace lumora::internal
