/* LumoraClient: the process's use of the context service, as a GObject. */
#ifndef LUMORA_CLIENT_H
#define LUMORA_CLIENT_H

#if !defined(__LUMORA_GLIB_H_INSIDE__) && !defined(LUMORA_GLIB_COMPILATION)
#error "Only <lumora-glib/lumora-glib.h> can be included directly."
#endif

#include <gio/gio.h>
#include <lumora-glib/lumora-glib-export.h>
#include <lumora-glib/lumora-subscription.h>

G_BEGIN_DECLS

/**
 * LumoraClient:
 *
 * The context service as this process uses it: reads, writes, requests and
 * subscriptions of subjects (slash-separated names such as
 * `Ctx/Media/Source/Info/Current`), whose values travel as JSON text.
 *
 * There is one client per process, lumora_client_get_default() (g_object_new()
 * of the type, as a binding's constructor calls it, gives the same instance
 * while it lives). Creating it
 * starts the C library's service API (one counted start, as
 * `Lumora_InitService()`); its last unref stops it (one counted stop, as
 * `Lumora_FiniService()`), and so does the end of the process when the
 * client is still alive then. Other users of the C interface in the same
 * process keep their own starts.
 *
 * Main contexts: the C library hears the bus on the global default main
 * context, which the application must iterate (on any thread) for answers,
 * changes and availability to arrive. Each function below says in which
 * context its callback or signal is then emitted.
 *
 * Threads: every function may be called from any thread.
 *
 * Texts: subjects, inputs and data must be valid UTF-8; a %NULL or invalid
 * text is refused with %LUMORA_CLIENT_ERROR_INVALID_ARGUMENT, never with a
 * critical warning, so that callers of other languages get a #GError.
 */
#define LUMORA_TYPE_CLIENT (lumora_client_get_type ())
LUMORA_GLIB_EXPORT
G_DECLARE_FINAL_TYPE (LumoraClient, lumora_client, LUMORA, CLIENT, GObject)

/**
 * LumoraClient:available:
 *
 * Whether the service can be used now. It changes as the C library's
 * availability callbacks tell, each change notified once, in the
 * thread-default main context of the thread that created the client (the
 * first lumora_client_get_default() of the process, or the first after the
 * client was finalised); #LumoraClient::availability-changed follows each
 * notification.
 */

/**
 * LumoraClient::availability-changed:
 * @client: the #LumoraClient
 * @available: the new value of #LumoraClient:available
 * @reason: why, as the C library says it: `ready`, `hello` or
 *   `reconnected` when the service became usable; `bye`, `name-lost`,
 *   `no-answer` or `bus-closed` when it stopped being usable
 *
 * Emitted once per change of #LumoraClient:available, after its
 * notification, in the same main context.
 */

/**
 * lumora_client_get_default:
 *
 * The client of this process, created (and the service API started) on
 * the first call. The start blocks while the C library connects to the bus
 * and for up to 0.3 s while it asks the service whether it is enabled. When
 * the service API cannot be started (the platform's feature switch disables
 * the service), the client is still returned, its #LumoraClient:available
 * stays %FALSE and every operation fails with %LUMORA_CLIENT_ERROR_FAILED.
 *
 * Returns: (transfer full): a new reference to the client; drop it with
 *   g_object_unref()
 */
LUMORA_GLIB_EXPORT
LumoraClient *lumora_client_get_default (void);

/**
 * lumora_client_get_available:
 * @client: a #LumoraClient
 *
 * The value of #LumoraClient:available.
 *
 * Returns: whether the service can be used, as last notified
 */
LUMORA_GLIB_EXPORT
gboolean lumora_client_get_available (LumoraClient *client);

/**
 * lumora_client_read_sync:
 * @client: a #LumoraClient
 * @subject: (nullable): the subject to read; %NULL is refused with
 *   %LUMORA_CLIENT_ERROR_INVALID_ARGUMENT
 * @input: (nullable): a text handed to the service with the subject, or
 *   %NULL (sent as the empty text)
 * @cancellable: (nullable): a #GCancellable, or %NULL
 * @error: return location for a #GError, or %NULL
 *
 * Reads the current value of @subject, blocking the calling thread until the
 * service answers or 1 s has passed (reads of one process take turns, so it
 * may also wait for another thread's read). A read once sent cannot be
 * interrupted: @cancellable is checked before it is sent and after it
 * returns, and a cancelled read fails with %G_IO_ERROR_CANCELLED (the answer,
 * if any, is dropped).
 *
 * Internal subjects (`I...`) need this process on the service's whitelist.
 * The subject is sent as the C interface's read sends it, whatever it is.
 *
 * Returns: (transfer full): the value, JSON text as the service sent it
 *   (the empty text for an empty value), to free with g_free(); %NULL with
 *   @error set on failure (#LumoraClientError, or %G_IO_ERROR_CANCELLED)
 */
LUMORA_GLIB_EXPORT
char *lumora_client_read_sync (LumoraClient  *client,
                               const char    *subject,
                               const char    *input,
                               GCancellable  *cancellable,
                               GError       **error);

/**
 * lumora_client_read:
 * @client: a #LumoraClient
 * @subject: (nullable): the subject to read; %NULL is refused with
 *   %LUMORA_CLIENT_ERROR_INVALID_ARGUMENT
 * @input: (nullable): a text handed to the service with the subject, or %NULL
 * @cancellable: (nullable): a #GCancellable, or %NULL
 * @callback: (scope async) (closure user_data): called once with the outcome
 * @user_data: data for @callback
 *
 * Reads the current value of @subject without blocking, through the C
 * library's asynchronous request. @callback is called exactly once, in the
 * thread-default main context of the calling thread (taken at this call),
 * never from within this call; get the value with lumora_client_read_finish().
 *
 * Cancelling @cancellable completes the read at once with
 * %G_IO_ERROR_CANCELLED (once; an answer that comes later is dropped). A
 * @cancellable cancelled before the call sends nothing. A read still in
 * flight when the service goes away without answering fails with
 * %LUMORA_CLIENT_ERROR_NOT_AVAILABLE.
 *
 * The five statistics subjects answer a request with records, not a text:
 * they are refused here (%LUMORA_CLIENT_ERROR_INVALID_ARGUMENT); use
 * lumora_client_request().
 */
LUMORA_GLIB_EXPORT
void lumora_client_read (LumoraClient        *client,
                         const char          *subject,
                         const char          *input,
                         GCancellable        *cancellable,
                         GAsyncReadyCallback  callback,
                         gpointer             user_data);

/**
 * lumora_client_read_finish:
 * @client: a #LumoraClient
 * @result: the #GAsyncResult given to the callback of lumora_client_read()
 * @error: return location for a #GError, or %NULL
 *
 * The outcome of lumora_client_read(). The value `{}` (the service has no
 * data) is %LUMORA_CLIENT_ERROR_NO_DATA, as for lumora_client_read_sync();
 * the service's error answer is %LUMORA_CLIENT_ERROR_SERVICE.
 *
 * Returns: (transfer full): the value, to free with g_free(); %NULL with
 *   @error set on failure
 */
LUMORA_GLIB_EXPORT
char *lumora_client_read_finish (LumoraClient  *client,
                                 GAsyncResult  *result,
                                 GError       **error);

/**
 * lumora_client_write:
 * @client: a #LumoraClient
 * @subject: (nullable): the subject to write; %NULL is refused with
 *   %LUMORA_CLIENT_ERROR_INVALID_ARGUMENT
 * @data: (nullable): the text to write (usually JSON); %NULL is refused with
 *   %LUMORA_CLIENT_ERROR_INVALID_ARGUMENT
 * @error: return location for a #GError, or %NULL
 *
 * Writes @data to @subject. The write is queued on the bus and not awaited:
 * %TRUE means only that the message left; the service's answer is not
 * read. Any process may write any subject, internal ones included. Does not
 * block.
 *
 * Returns: %TRUE when the write was queued; %FALSE with @error set otherwise
 */
LUMORA_GLIB_EXPORT
gboolean lumora_client_write (LumoraClient  *client,
                              const char    *subject,
                              const char    *data,
                              GError       **error);

/**
 * lumora_client_request:
 * @client: a #LumoraClient
 * @subject: (nullable): the subject to ask for; %NULL is refused with
 *   %LUMORA_CLIENT_ERROR_INVALID_ARGUMENT
 * @input: (nullable): a text handed to the service with the subject, or %NULL
 * @cancellable: (nullable): a #GCancellable, or %NULL
 * @callback: (scope async) (closure user_data): called once with the outcome
 * @user_data: data for @callback
 *
 * Asks for @subject's value without blocking, as the C library's request
 * does; the five usage-statistics subjects answer records instead of a
 * text. @callback is called exactly once, in the thread-default main
 * context of the calling thread (taken at this call), never from within
 * this call; get the answer with lumora_client_request_finish().
 * Cancellation as for lumora_client_read().
 */
LUMORA_GLIB_EXPORT
void lumora_client_request (LumoraClient        *client,
                            const char          *subject,
                            const char          *input,
                            GCancellable        *cancellable,
                            GAsyncReadyCallback  callback,
                            gpointer             user_data);

/**
 * lumora_client_request_finish:
 * @client: a #LumoraClient
 * @result: the #GAsyncResult given to the callback of lumora_client_request()
 * @error: return location for a #GError, or %NULL
 *
 * The answer of lumora_client_request().
 *
 * For every subject but the statistics ones: a variant of type `s`, the
 * answer's text as the service sent it (`{}` included: a request, unlike a
 * read, hands on what the service said).
 *
 * For the five statistics subjects: an array of tuples, one tuple per
 * record, the fields in the order of the C header's record type (field1,
 * field2, ...), each as the service sent it: the fields that travel as
 * unsigned 32-bit values (`u`, field1 and field2 of every record) are of type
 * `u` with the service's value (so values of 2^31 and more stay positive,
 * where the C record holds them negative), the 32-bit signed ones `i`, the
 * texts `s`:
 *
 * - `I/TallyDB/Onoff/Duration`: `a(uu)`
 * - `I/TallyDB/App/Duration`: `a(uussis)`
 * - `I/TallyDB/Channel/Duration`: `a(uusiiss)`
 * - `I/TallyDB/Genre/Duration`: `a(uuss)`
 * - `I/TallyDB/Content/Duration`: `a(uusssssssii)`
 *
 * The service's error answer, for any subject, is %LUMORA_CLIENT_ERROR_SERVICE.
 *
 * Returns: (transfer full): the answer, a non-floating variant; %NULL with
 *   @error set on failure
 */
LUMORA_GLIB_EXPORT
GVariant *lumora_client_request_finish (LumoraClient  *client,
                                        GAsyncResult  *result,
                                        GError       **error);

/**
 * lumora_client_subscribe:
 * @client: a #LumoraClient
 * @subject: (nullable): the subject to follow (three characters or more);
 *   %NULL is refused with %LUMORA_CLIENT_ERROR_INVALID_ARGUMENT
 * @flags: how to follow it
 * @error: return location for a #GError, or %NULL
 *
 * Follows the changes of @subject: the subscription returned emits
 * #LumoraSubscription::changed once per change (and first with the current
 * value, with %LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE), in the thread-default main
 * context of the calling thread, taken at this call. The subscriptions
 * survive restarts of the service: the C library registers them again when
 * the service says it is back.
 *
 * The first subscription of a subject (of its kind, with or without the
 * value) tells the service, blocking for up to about 1 s while it answers;
 * later ones of the same subject do not send anything. A with-value
 * subscription of a subject that another one already follows is told the
 * value last told to that one, then every change. Subscribing while the
 * service is away is allowed: it is registered when the service comes back.
 * One made while the C library has had no bus connection at all since it
 * started is accepted but hears nothing, as with the C interface, which
 * keeps nothing then.
 *
 * Do not call it from inside a request callback of the C interface
 * (lumora-c.h), which runs with that library's client mutex held.
 *
 * Returns: (transfer full): the subscription, to cancel with
 *   lumora_subscription_cancel() or by dropping the last reference; %NULL
 *   with @error set on failure
 */
LUMORA_GLIB_EXPORT
LumoraSubscription *lumora_client_subscribe (LumoraClient          *client,
                                             const char            *subject,
                                             LumoraSubscribeFlags   flags,
                                             GError               **error);

G_END_DECLS

#endif /* LUMORA_CLIENT_H */
