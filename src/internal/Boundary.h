// The one place where C++ exceptions stop: every exported C function and every
// GLib callback of the library runs its body through Guarded(), so that nothing
// thrown inside (an allocation failure, a std::string built from a null
// pointer) crosses into C code or GLib. The failure is logged once, here.
#ifndef LUMORA_INTERNAL_BOUNDARY_H
#define LUMORA_INTERNAL_BOUNDARY_H

#include <exception>
#include <utility>

#include "internal/Log.h"

namespace lumora::internal {

// Runs fn() and returns its result; on an exception logs what, as a line of
// the operation where (in the including file's unit), and returns fallback.
template <typename R, typename Fn>
R Guarded(const char* where, R fallback, Fn&& fn) noexcept {
    try {
        return std::forward<Fn>(fn)();
    } catch (const std::exception& e) {
        LMF_LOGE_IN(where, "unexpected exception: %s", e.what());
    } catch (...) {
        LMF_LOGE_IN(where, "unexpected exception");
    }
    return fallback;
}

template <typename Fn>
void GuardedVoid(const char* where, Fn&& fn) noexcept {
    Guarded(where, 0, [&fn] {
        std::forward<Fn>(fn)();
        return 0;
    });
}

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_BOUNDARY_H
