// ContextAutoLock. GLib's mutex is built on futexes that ThreadSanitizer cannot
// see, so a TSan build tells it about each acquire and release by hand.
#include <lumora/ContextAutoLock.h>

#if defined(__SANITIZE_THREAD__)
#define LUMORA_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define LUMORA_TSAN 1
#endif
#endif

#ifdef LUMORA_TSAN
#include <sanitizer/tsan_interface.h>
#endif

ContextAutoLock::ContextAutoLock(GMutex* mutex) : m_pMutex(mutex) {
    if (m_pMutex == nullptr) return;
    g_mutex_lock(m_pMutex);
#ifdef LUMORA_TSAN
    __tsan_acquire(m_pMutex);
#endif
}

ContextAutoLock::~ContextAutoLock() {
    if (m_pMutex == nullptr) return;
#ifdef LUMORA_TSAN
    __tsan_release(m_pMutex);
#endif
    g_mutex_unlock(m_pMutex);
}
