// Hand-offs through GLib, told to ThreadSanitizer.
//
// Data that one thread fills and then gives to GLib for another thread (the
// user data of g_main_context_invoke, g_idle_add or g_timeout_add, of a GDBus
// call's reply or a signal's delivery, of a GDBus filter) reaches that thread
// in order: GLib's main-context lock and wake-up, or GDBus's worker queue,
// stand between the two. GLib is not built with ThreadSanitizer, so that order
// is invisible to it, and the receiver's first reads look like races with the
// sender's writes.
//
// The sending thread calls HandOffSend(data) just before handing data to
// GLib; the callback calls HandOffReceive(data) before it touches data. In a
// ThreadSanitizer build the pair is the happens-before edge that GLib
// provides; in any other build both are empty.
//
// Use it only where GLib itself carries data from the one call to the other
// callback: an annotation anywhere else would hide a race.
#ifndef LUMORA_INTERNAL_HANDOFF_H
#define LUMORA_INTERNAL_HANDOFF_H

#if defined(__SANITIZE_THREAD__)
#define LUMORA_HANDOFF_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define LUMORA_HANDOFF_TSAN 1
#endif
#endif

#ifdef LUMORA_HANDOFF_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace lumora::internal {

/// On the sending thread, just before data goes to GLib.
inline void HandOffSend(const void* data) {
#ifdef LUMORA_HANDOFF_TSAN
    __tsan_release(const_cast<void*>(data));
#else
    (void)data;
#endif
}

/// In the callback, on the receiving thread, before data is used.
inline void HandOffReceive(const void* data) {
#ifdef LUMORA_HANDOFF_TSAN
    __tsan_acquire(const_cast<void*>(data));
#else
    (void)data;
#endif
}

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_HANDOFF_H
