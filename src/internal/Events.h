// What an application hears over time beside its notifications: whether the
// service can be used (availability callbacks), and the current value of a
// subject followed by its changes (subscriptions with the current value,
// caught up again after every return of the service).
//
// The bus client reports what it learns (the service answered, "HELLO",
// "BYE", a closed or new connection, a notification) and goes on: a report
// only records the event and wakes the main loop, which then calls the
// application with no library lock held. The name watch and the
// current-value requests exist only while an application uses these
// features; without them the bus client behaves, and logs, as it always did.
#ifndef LUMORA_INTERNAL_EVENTS_H
#define LUMORA_INTERNAL_EVENTS_H

#include <gio/gio.h>
#include <lumora/lumora-c.h>

#include <cstdint>
#include <string>

#include "internal/CallbackGate.h"
#include "internal/Log.h"

class DBusClient;

namespace lumora::internal {

// ---- reports of the bus client (any thread, any library lock held) ----------

// The service can be used: reason "ready" (it answered that it is enabled),
// "hello" (its "HELLO" was taken up; the subscriptions are registered again)
// or "reconnected" (after a new bus connection).
void ReportServiceAvailable(const char* reason);
// The service is coming back (reason as for ReportServiceAvailable) and has
// been sent every subscription: the current values may be asked from now on,
// while the availability callbacks are told once the subscriptions were
// answered (ReportServiceAvailable).
void ReportServiceReturning(const char* reason);
// The service cannot be used: reason "bye", "name-lost", "no-answer" or
// "bus-closed".
void ReportServiceUnavailable(const char* reason);
// The bus client's connection is now connection (null: none).
void ReportConnection(GDBusConnection* connection);
// A "Response" for subscribers of subject is about to be delivered (the
// main-loop thread). Costs one atomic load while no subscription with the
// current value exists.
void ReportNotification(const char* subject, const char* data);
// A request of callback and userData was freed without its callback being
// called (the service went away, a new start, a stop).
void ReportUnansweredRequest(LumoraSubjectCb callback, void* userData);

// ---- what the bus client asks -----------------------------------------------

// Whether the application has availability callbacks or subscriptions with
// the current value.
bool EventsInUse();
// Whether it has availability callbacks, which need the service's "HELLO"
// and "BYE" whatever its subscriptions.
bool AvailabilityWanted();
// Whether the service is known to be away (the last state reported).
bool ServiceKnownUnavailable();

// ---- availability callbacks ----------------------------------------------------

// Who registered a callback or a subscription: the service API (and the
// plain functions) or the object interface. Each owner's go when it stops.
enum class EventOwner { kServiceApi, kObjectInterface };

// The unit and function of owner's class that its lines name.
LogSite OwnerSite(EventOwner owner, const char* function);
CallbackTable AvailabilityTable(EventOwner owner);
CallbackTable ValuesTable(EventOwner owner);

// Adds (callback, userData) of owner; false, after one line logged for
// site (the operation of the caller's class), for a null callback or a pair
// already added. The current state, when known, reaches the callback from
// the main loop soon after. Takes the bus client's mutex (to listen for the
// service's news).
bool AddAvailabilityListener(LogSite site, EventOwner owner, LumoraAvailabilityCb callback, void* userData);
// Removes the pair; false, after one line, when it was not added. Once it
// returns, its callback runs nowhere and will not run again: call it with no
// library lock held.
bool RemoveAvailabilityListener(LogSite site, EventOwner owner, LumoraAvailabilityCb callback, void* userData);
// Removes every pair of owner; retire them (CallbackGate) once no library
// lock is held.
void DropAvailabilityListeners(EventOwner owner);

// ---- subscriptions with the current value ---------------------------------------

// Whether subject can be subscribed with its current value: not one of the
// statistics subjects, whose answers are records and not text. Logs one line
// for site when not.
bool HasTextValue(LogSite site, const char* subject);
// Starts following (subject, callback, userData), just subscribed by owner:
// call it in the same section, under the owner's lock, as the subscription,
// so that no removal can come between them. Returns its id for
// AskCurrentValue.
uint64_t FollowCurrentValue(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData);
// Asks client for the current value of follower id (with no library lock
// held), or when the service is away, as soon as it is back. The callback
// gets the answer first, unless a notification came before it.
void AskCurrentValue(LogSite site, DBusClient& client, uint64_t id);
// Stops following the triple (it was unsubscribed); nothing when it is not
// followed. Retire its deliveries once no library lock is held.
void ForgetCurrentValue(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData);
void DropCurrentValues(EventOwner owner);
// Whether the triple is followed, for tests.
bool IsFollowed(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData);
// A mark of the followers that exist now: those followed later are not
// older than an event recorded now.
uint64_t FollowersMark();
// The number of followers; read without the lock.
size_t FollowerCount();
// Asks again for the current value of every subject followed from mark from
// up to (not including) mark to, a window of requests in flight at a time;
// each callback hears the answer only when it differs from what it was told
// last. Run by the main loop when the service came back (reason as
// reported), with no library lock held. A subscription made after the
// service came back asked the new service already.
void CatchUpCurrentValues(const char* reason, uint64_t from, uint64_t to);

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_EVENTS_H
