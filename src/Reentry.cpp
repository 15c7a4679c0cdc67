// The per-thread record of the library locks held around application callbacks.
#include "internal/Reentry.h"

namespace lumora::internal {

namespace {

thread_local unsigned t_heldLocks = 0;
thread_local unsigned t_refusals = 0;  // calls refused on this thread, ever

}  // namespace

CallbackUnderLock::CallbackUnderLock(unsigned locks) : m_previous(t_heldLocks) { t_heldLocks |= locks; }

CallbackUnderLock::~CallbackUnderLock() { t_heldLocks = m_previous; }

const char* BlockingLock(unsigned locks) {
    unsigned held = t_heldLocks;
    if (held == 0) return nullptr;
    if ((held & locks & kClientMutex) != 0) return "the client mutex";
    if ((held & locks & kServiceMutex) != 0) return "LMFServiceAPI::m_mutex";
    // m_mutex after the client mutex is the reverse of the lock order: another
    // thread may hold m_mutex while it waits for the client mutex.
    if ((locks & kServiceMutex) != 0 && (held & kClientMutex) != 0) return "the client mutex";
    return nullptr;
}

void CountRefusal() { ++t_refusals; }

unsigned RefusalCount() { return t_refusals; }

}  // namespace lumora::internal
