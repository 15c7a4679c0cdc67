/// @file
/// @brief ContextAutoLock: the scoped lock of every critical section of the
/// library (liblumora-common).
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
    /// Locks mutex (g_mutex_lock), waiting for it as long as it takes; does
    /// nothing for a null mutex.
    explicit ContextAutoLock(GMutex* mutex);
    /// Unlocks the mutex, if any.
    ~ContextAutoLock();
    /// @name Not copyable or movable
    /// A lock belongs to the scope that took it.
    /// @{
    ContextAutoLock(const ContextAutoLock&) = delete;             ///< Deleted.
    ContextAutoLock& operator=(const ContextAutoLock&) = delete;  ///< Deleted.
    ContextAutoLock(ContextAutoLock&&) = delete;                  ///< Deleted.
    ContextAutoLock& operator=(ContextAutoLock&&) = delete;       ///< Deleted.
    /// @}

private:
    GMutex* m_pMutex;
};

#endif  // LUMORA_CONTEXTAUTOLOCK_H
