// What an application hears over time beside its notifications: whether the
// service can be used (availability callbacks), and the current value of a
// subject followed by its changes (subscriptions with the current value,
// caught up again after every return of the service).
//
// The bus client reports what it learns (the service answered, "HELLO",
// "BYE", a closed or new connection, a notification) and goes on: a report
// only records the event and wakes the main loop, which then calls the
// application with no library lock held. Nothing here changes what the bus
// client does or sends; the name watch and the current-value requests exist
// only while an application uses these features.
#ifndef LUMORA_INTERNAL_EVENTS_H
#define LUMORA_INTERNAL_EVENTS_H

#include <gio/gio.h>
#include <lumora/lumora-c.h>

#include <cstdint>
#include <string>

#include "internal/Log.h"

class DBusClient;

namespace lumora::internal {

// ---- reports of the bus client (any thread, any library lock held) ----------

// The service can be used: reason "ready" (it answered that it is enabled),
// "hello" (its "HELLO" was taken up; the subscriptions are registered again)
// or "reconnected" (after a new bus connection).
void ReportServiceAvailable(const char* reason);
// The service cannot be used: reason "bye", "name-lost" or "bus-closed".
void ReportServiceUnavailable(const char* reason);
// The bus client's connection is now connection (null: none).
void ReportConnection(GDBusConnection* connection);
// A "Response" for subscribers of subject is about to be delivered (the
// main-loop thread). Costs one atomic load while no subscription with the
// current value exists.
void ReportNotification(const char* subject, const char* data);

// ---- availability callbacks ----------------------------------------------------

// Who registered a callback or a subscription: the service API (and the
// plain functions) or the object interface. Each owner's go when it stops.
enum class EventOwner { kServiceApi, kObjectInterface };

// Adds (callback, userData) of owner; false, after one line logged for
// site (the operation of the caller's class), for a null callback or a pair
// already added. The current state,
// when known, reaches the callback from the main loop soon after.
bool AddAvailabilityListener(LogSite site, EventOwner owner, LumoraAvailabilityCb callback, void* userData);
// Removes the pair; false, after one line, when it was not added. No call of
// it starts after this returns.
bool RemoveAvailabilityListener(LogSite site, EventOwner owner, LumoraAvailabilityCb callback, void* userData);
void DropAvailabilityListeners(EventOwner owner);

// ---- subscriptions with the current value ---------------------------------------

// Whether subject can be subscribed with its current value: not one of the
// statistics subjects, whose answers are records and not text. Logs one line
// for site when not.
bool HasTextValue(LogSite site, const char* subject);
// Starts following (subject, callback, userData), just subscribed by owner,
// and asks client for the subject's current value. The callback gets the
// answer first, unless a notification came before it.
void FollowCurrentValue(LogSite site, EventOwner owner, DBusClient& client, const std::string& subject,
                        LumoraSubjectCb callback, void* userData);
// Stops following the triple (it was unsubscribed); nothing when it is not
// followed.
void ForgetCurrentValue(EventOwner owner, const std::string& subject, LumoraSubjectCb callback, void* userData);
void DropCurrentValues(EventOwner owner);
// A mark of the followers that exist now: those followed later are not
// older than an event recorded now.
uint64_t FollowersMark();
// Asks again for the current value of every subject followed before mark,
// all requests in flight together; each callback hears the answer only when
// it differs from what it was told last. Run by the main loop when the
// service became available (reason as reported), with no library lock held.
// A subscription made after the service came back asked the new service
// already.
void CatchUpCurrentValues(const char* reason, uint64_t mark);

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_EVENTS_H
