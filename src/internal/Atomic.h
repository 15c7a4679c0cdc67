// Relaxed atomic access to plain fields that some operations read without the
// lock that guards their writes (the availability flags, the connection
// pointer). The fields keep their plain types; only the accesses are atomic,
// so such a read sees either the old or the new value, never a torn one.
#ifndef LUMORA_INTERNAL_ATOMIC_H
#define LUMORA_INTERNAL_ATOMIC_H

namespace lumora::internal {

template <typename T>
inline T AtomicLoad(const T& field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <typename T>
inline void AtomicStore(T& field, T value) {
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_ATOMIC_H
