// Some application callbacks run while the library holds one of its locks: a
// request's callback runs with the client mutex held, the channel callback
// with LMFServiceAPI::m_mutex held. Neither lock is recursive, so a callback
// that calls an operation taking the same lock (or m_mutex while the client
// mutex is held, against the lock order) would hang its thread for good.
// The library marks the thread while such a callback runs, and every
// operation that takes a lock first asks whether it may: a refused call logs
// one error line and fails instead of hanging.
#ifndef LUMORA_INTERNAL_REENTRY_H
#define LUMORA_INTERNAL_REENTRY_H

#include "internal/Log.h"

namespace lumora::internal {

// The locks an operation takes, or that a running callback holds.
enum LibraryLock : unsigned {
    kServiceMutex = 1u,  // LMFServiceAPI::m_mutex, always taken before the client mutex
    kClientMutex = 2u,   // the bus client's mutex
};

// Marks this thread, for the life of the object, as running an application
// callback while the library holds `locks`. Nests.
class CallbackUnderLock {
public:
    explicit CallbackUnderLock(unsigned locks);
    ~CallbackUnderLock();
    CallbackUnderLock(const CallbackUnderLock&) = delete;
    CallbackUnderLock& operator=(const CallbackUnderLock&) = delete;

private:
    unsigned m_previous;
};

// The name of a lock that an operation taking `locks` would wait for on this
// thread for ever, or null when the operation may go ahead.
const char* BlockingLock(unsigned locks);

// Counts one refusal on this thread (Lumora_GetRefusedCallCount()).
void CountRefusal();

// The refusals counted on this thread.
unsigned RefusalCount();

}  // namespace lumora::internal

// True, after one error line, when the calling operation (which takes
// `locks`) runs inside a callback of this thread that holds one of them or
// would break the lock order; the caller then fails at once.
#define LMF_REFUSED_IN_CALLBACK(locks)                                                                          \
    (::lumora::internal::BlockingLock(locks) != nullptr &&                                                      \
     (LMF_LOGE("refused: %s() was called from a callback that runs with %s held, and would deadlock", __func__, \
               ::lumora::internal::BlockingLock(locks)),                                                        \
      ::lumora::internal::CountRefusal(), true))

#endif  // LUMORA_INTERNAL_REENTRY_H
