// The error domain of the GObject API, and the one place where a result of
// the C library becomes a GError (and is logged).
#include <cstdarg>

#include "ClientInternal.h"

namespace {

// The D-Bus names of the codes, for GDBus to carry them between processes.
const GDBusErrorEntry kDBusNames[] = {
    {LUMORA_CLIENT_ERROR_FAILED, "org.verdin.tv.lumora2.ClientError.Failed"},
    {LUMORA_CLIENT_ERROR_INVALID_ARGUMENT, "org.verdin.tv.lumora2.ClientError.InvalidArgument"},
    {LUMORA_CLIENT_ERROR_NO_DATA, "org.verdin.tv.lumora2.ClientError.NoData"},
    {LUMORA_CLIENT_ERROR_NOT_AVAILABLE, "org.verdin.tv.lumora2.ClientError.NotAvailable"},
    {LUMORA_CLIENT_ERROR_CALL_FAILED, "org.verdin.tv.lumora2.ClientError.CallFailed"},
    {LUMORA_CLIENT_ERROR_NOT_ALLOWED, "org.verdin.tv.lumora2.ClientError.NotAllowed"},
    {LUMORA_CLIENT_ERROR_SERVICE, "org.verdin.tv.lumora2.ClientError.Service"},
    {LUMORA_CLIENT_ERROR_INVALID_UTF8, "org.verdin.tv.lumora2.ClientError.InvalidUtf8"},
    {LUMORA_CLIENT_ERROR_REENTRY_REFUSED, "org.verdin.tv.lumora2.ClientError.ReentryRefused"},
};
static_assert(G_N_ELEMENTS(kDBusNames) - 1 == LUMORA_CLIENT_ERROR_REENTRY_REFUSED, "every code has a D-Bus name");

}  // namespace

GQuark lumora_client_error_quark(void) {
    static gsize quark = 0;
    g_dbus_error_register_error_domain("lumora-client-error-quark", &quark, kDBusNames, G_N_ELEMENTS(kDBusNames));
    return static_cast<GQuark>(quark);
}

namespace lumora::glib {

bool Fail(GError** error, internal::LogSite site, LumoraClientError code, const char* format, ...) {
    va_list args;
    va_start(args, format);
    char* message = g_strdup_vprintf(format, args);
    va_end(args);
    LMF_LOGE_FOR(site, "%s", message);
    g_set_error_literal(error, LUMORA_CLIENT_ERROR, code, message);
    g_free(message);
    return false;
}

// The bus client's results are those of DBusClient (lumora/DBusClient.h);
// any value it does not name is the service's own code, passed through.
bool FailWithResult(GError** error, internal::LogSite site, int result, const char* what, const char* subject,
                    const RefusalWatch& watch) {
    if (watch.Refused()) return FailRefused(error, site, what, subject);
    switch (result) {
        case -2:
            return Fail(error, site, LUMORA_CLIENT_ERROR_FAILED, "the library could not allocate the %s of %s", what,
                        subject);
        case -3:
            return Fail(error, site, LUMORA_CLIENT_ERROR_INVALID_ARGUMENT,
                        "the library refused the %s of %s: a text is null or not valid UTF-8", what, subject);
        case -4:
            return Fail(error, site, LUMORA_CLIENT_ERROR_NO_DATA, "the service has no value for %s", subject);
        case -5:
            return Fail(error, site, LUMORA_CLIENT_ERROR_NOT_AVAILABLE,
                        "the %s of %s was not sent: the bus is not connected or the service is not available", what,
                        subject);
        case -6:
            return Fail(error, site, LUMORA_CLIENT_ERROR_CALL_FAILED,
                        "the %s of %s failed: no bus connection, a failed call or no answer in time", what,
                        subject);
        default:
            return Fail(error, site, LUMORA_CLIENT_ERROR_SERVICE,
                        "the service refused the %s of %s (service result code %d)", what, subject, result);
    }
}

bool FailRefused(GError** error, internal::LogSite site, const char* what, const char* subject) {
    return Fail(error, site, LUMORA_CLIENT_ERROR_REENTRY_REFUSED,
                "the library refused the %s of %s: it was called from inside a callback that runs with a library "
                "lock held, where waiting would hang the thread",
                what, subject);
}

}  // namespace lumora::glib
