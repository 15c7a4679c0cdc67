/* The errors of the GObject API: one GError domain. */
#ifndef LUMORA_CLIENT_ERROR_H
#define LUMORA_CLIENT_ERROR_H

#if !defined(__LUMORA_GLIB_H_INSIDE__) && !defined(LUMORA_GLIB_COMPILATION)
#error "Only <lumora-glib/lumora-glib.h> can be included directly."
#endif

#include <glib.h>
#include <lumora-glib/lumora-glib-export.h>

G_BEGIN_DECLS

/**
 * LUMORA_CLIENT_ERROR:
 *
 * The error domain of #LumoraClient and #LumoraSubscription. Its codes are
 * those of #LumoraClientError. The domain is registered with GDBus as well
 * (g_dbus_error_register_error_domain()): each code has the D-Bus error name
 * `org.verdin.tv.lumora2.ClientError.` followed by the code's name in
 * CamelCase (`NoData`, `NotAvailable`, ...).
 */
#define LUMORA_CLIENT_ERROR (lumora_client_error_quark ())

/**
 * LumoraClientError:
 * @LUMORA_CLIENT_ERROR_FAILED: None of the reasons below: the service API
 *   could not be started (the platform's feature switch disables the
 *   service on this device, see the log), the library answered a statistics
 *   request with a count but no records, or the library refused a
 *   subscription for a reason it only logs.
 * @LUMORA_CLIENT_ERROR_INVALID_ARGUMENT: A text was %NULL where one is
 *   required (the subject, the data of a write), or the operation does not take the
 *   subject: a subscription's subject of two characters or fewer, unknown
 *   subscribe flags, or one of the five statistics subjects
 *   (`I/TallyDB/.../Duration`) given to an asynchronous read or to a
 *   subscription with the value (they answer records: request them).
 *   Nothing was sent.
 *   The bus client's result -3.
 * @LUMORA_CLIENT_ERROR_NO_DATA: The service has no value for the subject: it
 *   answered `{}`. The bus client's result -4.
 * @LUMORA_CLIENT_ERROR_NOT_AVAILABLE: The service cannot be used now: the
 *   bus is not connected, or the service is not there, not ready or not
 *   enabled; or it went away before it answered an asynchronous read or
 *   request. The bus client's result -5.
 * @LUMORA_CLIENT_ERROR_CALL_FAILED: The call did not get through: there is
 *   no connection object, the bus refused the call, or the service did not
 *   answer within the time-out (1 s for a synchronous read). The bus
 *   client's result -6.
 * @LUMORA_CLIENT_ERROR_NOT_ALLOWED: The subject is internal (its name begins
 *   with `I`) and this process, by its short program name, is not on the
 *   whitelist that the service sent. Nothing was sent.
 * @LUMORA_CLIENT_ERROR_SERVICE: The service refused with a result code of
 *   its own. For a synchronous read the message ends with the code, as
 *   `(service result code N)`, N in decimal and possibly negative; the codes
 *   -2 to -6 are read as the bus client's own results above. An asynchronous
 *   read or request cannot tell the code: the library answers both a service
 *   error and a service that gave no answer within the bus time-out (25 s)
 *   with the same error text, and the message says so.
 * @LUMORA_CLIENT_ERROR_INVALID_UTF8: A text is not valid UTF-8 (the subject,
 *   an input, the data of a write): the service only takes UTF-8. Nothing
 *   was sent.
 * @LUMORA_CLIENT_ERROR_REENTRY_REFUSED: The call was made from inside one of
 *   the C library's callbacks that runs with a library lock held (a request
 *   callback or the channel callback of the C interface), where waiting for
 *   that lock would hang the thread: the library refused it at once and
 *   logged one error line. This API never runs application code with a
 *   library lock held, so only a program that also uses those C callbacks
 *   meets it. Nothing was sent.
 *
 * The codes of #LUMORA_CLIENT_ERROR. Each error's message is this library's
 * own sentence, naming the subject and the reason; the C library logs its
 * own line as well (tag `LMF_API`).
 */
typedef enum {
  LUMORA_CLIENT_ERROR_FAILED,
  LUMORA_CLIENT_ERROR_INVALID_ARGUMENT,
  LUMORA_CLIENT_ERROR_NO_DATA,
  LUMORA_CLIENT_ERROR_NOT_AVAILABLE,
  LUMORA_CLIENT_ERROR_CALL_FAILED,
  LUMORA_CLIENT_ERROR_NOT_ALLOWED,
  LUMORA_CLIENT_ERROR_SERVICE,
  LUMORA_CLIENT_ERROR_INVALID_UTF8,
  LUMORA_CLIENT_ERROR_REENTRY_REFUSED
} LumoraClientError;

/**
 * lumora_client_error_quark:
 *
 * The quark of the #LUMORA_CLIENT_ERROR domain.
 *
 * Returns: the domain's quark, `lumora-client-error-quark`
 */
LUMORA_GLIB_EXPORT
GQuark lumora_client_error_quark (void);

G_END_DECLS

#endif /* LUMORA_CLIENT_ERROR_H */
