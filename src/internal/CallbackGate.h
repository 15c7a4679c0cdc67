// Application callbacks run without the library's locks: a dispatcher copies
// what it will call out of a table under the table's lock and calls it after
// releasing the lock, so that the callback may use the library. A removal on
// another thread could then return while a copied delivery of what it
// removed is about to run or running, and an application that frees its
// user data once the removal returned would see it used afterwards.
//
// The gate closes that gap. A dispatcher admits each delivery while it holds
// the table's lock; a removal, once it took the registration out of the
// table, retires it: admitted deliveries of it that have not begun are
// dropped, and one running on another thread is waited for. From inside the
// callback itself (the same thread), a removal returns at once, and any
// later delivery of it is dropped all the same.
//
// Retire waits with no library lock held: the running callback may take any
// of them. The gate's own mutex is a leaf, never held while anything else is
// called.
#ifndef LUMORA_INTERNAL_CALLBACKGATE_H
#define LUMORA_INTERNAL_CALLBACKGATE_H

#include <cstdint>
#include <string>

namespace lumora::internal {

// The tables whose deliveries pass the gate.
enum class CallbackTable : uint8_t {
    kBusClient,            // DBusClient's subscriptions: (subject, callback)
    kServiceSignals,       // LMFServiceAPI's typed signals: (subject, callback, userData)
    kServiceSubjects,      // LMFServiceAPI's untyped list: (subject, callback, userData)
    kObjectSubjects,       // LumoraAPI's callback table: (subject, callback, userData)
    kServiceAvailability,  // availability callbacks added through the service API
    kObjectAvailability,   // availability callbacks added through LumoraAPI
    kServiceValues,        // subscriptions with the current value of the service API
    kObjectValues,         // subscriptions with the current value of LumoraAPI
};

// One registration, as a delivery names it. A table without subjects leaves
// subject empty; the bus client's table leaves userData null.
struct CallbackKey {
    CallbackTable table;
    std::string subject;
    const void* callback;
    const void* userData;
};

// The registrations a removal ended, within one table: a null subject or
// callback, or anyUserData, matches every one.
struct CallbackMatch {
    CallbackTable table;
    const char* subject = nullptr;
    const void* callback = nullptr;
    bool anyUserData = true;
    const void* userData = nullptr;

    bool Matches(const CallbackKey& key) const;
};

// Names the callback pointer of a registration, whatever its type.
template <typename Fn>
const void* CallbackId(Fn* callback) {
    return reinterpret_cast<const void*>(callback);
}

class CallbackGate {
public:
    using Ticket = uint64_t;

    // Records a delivery about to be made; call with the table's lock held,
    // in the same section that found the registration in the table.
    static Ticket Admit(CallbackKey key);
    // True when the delivery may be made (its registration was not retired
    // since it was admitted); it then counts as running until Finish. Every
    // admitted ticket is finished, whether it began or not.
    static bool Begin(Ticket ticket);
    static void Finish(Ticket ticket);
    // Ends the deliveries of what match names, after it left its table:
    // returns once none of them runs on another thread, and none will start.
    // Call with no library lock held.
    static void Retire(const CallbackMatch& match);

    // The number of deliveries admitted and not finished, for tests.
    static size_t Pending();
};

// Makes the delivery of ticket with fn, unless it was retired meanwhile.
template <typename Fn>
void Deliver(CallbackGate::Ticket ticket, Fn&& fn) {
    struct Finisher {
        CallbackGate::Ticket ticket;
        ~Finisher() { CallbackGate::Finish(ticket); }
    } finisher{ticket};
    if (CallbackGate::Begin(ticket)) fn();
}

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_CALLBACKGATE_H
