// ContextAutoLock: the scoped lock of every critical section of the library.
#ifndef LUMORA_CONTEXTAUTOLOCK_H
#define LUMORA_CONTEXTAUTOLOCK_H

#include <glib.h>
#include <lumora/lumora-export.h>

/**
 * Locks a GMutex for the lifetime of the object, so that early returns and
 * exceptions release it. The mutex is not recursive: a section must never
 * re-enter a function that takes the same mutex. A null mutex is ignored.
 */
class LUMORA_EXPORT ContextAutoLock {
public:
    explicit ContextAutoLock(GMutex* mutex);
    ~ContextAutoLock();
    ContextAutoLock(const ContextAutoLock&) = delete;
    ContextAutoLock& operator=(const ContextAutoLock&) = delete;
    ContextAutoLock(ContextAutoLock&&) = delete;
    ContextAutoLock& operator=(ContextAutoLock&&) = delete;

private:
    GMutex* m_pMutex;
};

#endif  // LUMORA_CONTEXTAUTOLOCK_H
