// What the units of liblumora-glib share: errors, argument checks, the hop
// to an application's main context, and the steps of the client's
// operations that other units call. Not installed.
#ifndef LUMORA_GLIB_CLIENTINTERNAL_H
#define LUMORA_GLIB_CLIENTINTERNAL_H

#include <lumora-glib/lumora-glib.h>
#include <lumora/lumora-c.h>

#include <exception>
#include <utility>

#include "internal/Log.h"

class DBusClient;

namespace lumora::glib {

// ---- errors (ClientError.cpp) ---------------------------------------------------

// Sets *error (when error is not null) to a new LUMORA_CLIENT_ERROR of code
// with the formatted message, and logs the message once at error priority
// as a line of site (LMF_SITE(__func__) of the public function). Always
// false, so that a check can return it.
bool Fail(GError** error, internal::LogSite site, LumoraClientError code, const char* format, ...) G_GNUC_PRINTF(4, 5);

// Whether the C library refused a call made across this object's life, on
// this thread, as made from inside one of its callbacks that holds a library
// lock: the count of such refusals grew. It reports them as a failed call.
class RefusalWatch {
public:
    RefusalWatch() : m_before(Lumora_GetRefusedCallCount()) {}
    bool Refused() const { return Lumora_GetRefusedCallCount() != m_before; }

private:
    unsigned m_before;
};

// The error of a result of the bus client (DBusClient's int results: -3 to
// -6, -2, or the service's own code), for an operation of site on
// subject ("read", "request", "write" in what), or the refusal that watch
// saw. result is not 0.
bool FailWithResult(GError** error, internal::LogSite site, int result, const char* what, const char* subject,
                    const RefusalWatch& watch);

// LUMORA_CLIENT_ERROR_REENTRY_REFUSED for the operation what on subject.
bool FailRefused(GError** error, internal::LogSite site, const char* what, const char* subject);

// Runs fn() at a boundary with C or GLib and returns its result. Nothing
// thrown inside (an allocation failure) crosses it: the failure becomes
// LUMORA_CLIENT_ERROR_FAILED in *error, logged as a line of site, and
// fallback is returned.
template <typename R, typename Fn>
R Guard(GError** error, internal::LogSite site, R fallback, Fn&& fn) noexcept {
    try {
        return std::forward<Fn>(fn)();
    } catch (const std::exception& e) {
        Fail(error, site, LUMORA_CLIENT_ERROR_FAILED, "unexpected failure: %s", e.what());
    } catch (...) {
        Fail(error, site, LUMORA_CLIENT_ERROR_FAILED, "unexpected failure");
    }
    return fallback;
}

// ---- arguments (Arguments.cpp) --------------------------------------------------

// Whether text (the argument name) may be sent: not null when required, and
// valid UTF-8. Otherwise LUMORA_CLIENT_ERROR_INVALID_ARGUMENT.
bool CheckText(GError** error, internal::LogSite site, const char* name, const char* text, bool required);

// Whether subject is one of the five statistics subjects, which answer
// records instead of a text.
bool IsStatisticsSubject(const char* subject);

// The bus client of the started service API, or null with
// LUMORA_CLIENT_ERROR_FAILED when client could not start it.
DBusClient* StartedBusClient(LumoraClient* client, GError** error, internal::LogSite site);

// Whether this process may use subject: only internal subjects ("I" and at
// least one more character) need it on the service's whitelist. Otherwise
// LUMORA_CLIENT_ERROR_NOT_ALLOWED.
bool MayUseSubject(GError** error, internal::LogSite site, DBusClient& bus, const char* subject);

// ---- main contexts (Delivery.cpp) ----------------------------------------------

// Runs fn(data) once from an idle source of context, at default priority,
// never from within this call (also when context is this thread's own and
// is being dispatched: the caller may hold a lock of the C library that the
// application's code must not run under). Then destroy(data). Sources of one
// context run in the order they were posted. Thread-safe.
void PostTo(GMainContext* context, const char* name, GSourceFunc fn, gpointer data, GDestroyNotify destroy);

// ---- asynchronous operations (ClientRequests.cpp) -------------------------------

// Completes every asynchronous read and request still waiting for an
// answer with LUMORA_CLIENT_ERROR_NOT_AVAILABLE: the service went away
// (reason), and the C library drops any answer that comes while it is away.
// Called from the C library's availability callback.
void FailPendingCalls(const char* reason);

// ---- statistics (StatisticsVariant.cpp) -----------------------------------------

// The records of a statistics answer as a new floating variant of the
// subject's array type (see lumora_client_request_finish), or null when
// subject is not a statistics subject. result is the StatisticsResult that
// the C library handed to the request's callback (its records are read, not
// kept), or null for an empty array.
GVariant* StatisticsVariant(const char* subject, const void* result);

// ---- subscriptions (Followers.cpp, LumoraSubscription.cpp) -----------------------

// A new subscription of subject (checked, flags valid), registered with the
// C library when it is the first of its subject and kind; null with *error
// set on failure.
LumoraSubscription* NewSubscription(LumoraClient* client, const char* subject, LumoraSubscribeFlags flags,
                                    GError** error);

}  // namespace lumora::glib

#endif  // LUMORA_GLIB_CLIENTINTERNAL_H
