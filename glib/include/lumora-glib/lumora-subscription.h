/* LumoraSubscription: one application's interest in the changes of a subject. */
#ifndef LUMORA_SUBSCRIPTION_H
#define LUMORA_SUBSCRIPTION_H

#if !defined(__LUMORA_GLIB_H_INSIDE__) && !defined(LUMORA_GLIB_COMPILATION)
#error "Only <lumora-glib/lumora-glib.h> can be included directly."
#endif

#include <glib-object.h>
#include <lumora-glib/lumora-glib-export.h>

G_BEGIN_DECLS

/**
 * LumoraSubscribeFlags:
 * @LUMORA_SUBSCRIBE_FLAGS_NONE: Only the changes: #LumoraSubscription::changed
 *   is emitted once per change notification of the subject.
 * @LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE: The subject's current value first,
 *   then every change, each once and in order (the C interface's
 *   subscription with the current value). After each return of the service
 *   the value is asked again and told when it differs from the last one
 *   told, so that a change made while the service was away is not missed.
 *   A failed first answer is told as the text `{"Status":"Error"}`, as the C
 *   interface tells it.
 *
 * How lumora_client_subscribe() follows a subject.
 */
typedef enum /*< flags >*/ {
  LUMORA_SUBSCRIBE_FLAGS_NONE = 0,
  LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE = 1 << 0
} LumoraSubscribeFlags;

/**
 * LumoraSubscription:
 *
 * The changes of one subject, for one application object: made by
 * lumora_client_subscribe(), it emits #LumoraSubscription::changed once per
 * change and keeps the last data in #LumoraSubscription:value.
 *
 * Several subscriptions of one subject are independent: each is told every
 * change, and cancelling one leaves the others as they are. The service is
 * told of a subject while at least one subscription follows it.
 *
 * lumora_subscription_cancel() ends the subscription; so does its last
 * unref. A subscription holds a reference to its #LumoraClient.
 *
 * Threads: #LumoraSubscription::changed and the notification of
 * #LumoraSubscription:value are emitted in the thread-default main context
 * of the thread that called lumora_client_subscribe() (taken with
 * g_main_context_ref_thread_default() at that call), which that thread must
 * iterate; the C library hears the service on the global default main
 * context, which the application must iterate as well (on any thread). The
 * functions below may be called from any thread.
 */
#define LUMORA_TYPE_SUBSCRIPTION (lumora_subscription_get_type ())
LUMORA_GLIB_EXPORT
G_DECLARE_FINAL_TYPE (LumoraSubscription, lumora_subscription, LUMORA, SUBSCRIPTION, GObject)

/**
 * LumoraSubscription:subject:
 *
 * The subject followed. Set at construction by lumora_client_subscribe().
 */

/**
 * LumoraSubscription:flags:
 *
 * The #LumoraSubscribeFlags given to lumora_client_subscribe().
 */

/**
 * LumoraSubscription:value: (getter dup_value)
 *
 * The data of the last #LumoraSubscription::changed, or %NULL before the
 * first. Its notification is emitted just before that signal, in the same
 * main context.
 */

/**
 * LumoraSubscription::changed:
 * @subscription: the #LumoraSubscription
 * @data: the subject's new value, JSON text as the service sent it; valid
 *   during the emission (copy it, or read #LumoraSubscription:value later)
 *
 * Emitted once per change of the subject (and, with
 * %LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE, first with the current value), in
 * order, in the thread-default main context of the thread that called
 * lumora_client_subscribe(). Not emitted once the subscription was
 * cancelled or finalised.
 */

/**
 * lumora_subscription_get_subject:
 * @subscription: a #LumoraSubscription
 *
 * The subject followed, as given to lumora_client_subscribe().
 *
 * Returns: (transfer none): the subject; it lives as long as @subscription
 */
LUMORA_GLIB_EXPORT
const char *lumora_subscription_get_subject (LumoraSubscription *subscription);

/**
 * lumora_subscription_get_flags:
 * @subscription: a #LumoraSubscription
 *
 * The flags given to lumora_client_subscribe().
 *
 * Returns: the flags
 */
LUMORA_GLIB_EXPORT
LumoraSubscribeFlags lumora_subscription_get_flags (LumoraSubscription *subscription);

/**
 * lumora_subscription_dup_value:
 * @subscription: a #LumoraSubscription
 *
 * The data of the last #LumoraSubscription::changed emitted, or %NULL
 * before the first. It changes just before that signal is emitted, in the
 * subscription's main context; a copy is returned, so any thread may ask.
 *
 * Returns: (transfer full) (nullable): a copy of the last data (JSON text,
 *   as the service sent it), to free with g_free()
 */
LUMORA_GLIB_EXPORT
char *lumora_subscription_dup_value (LumoraSubscription *subscription);

/**
 * lumora_subscription_is_cancelled:
 * @subscription: a #LumoraSubscription
 *
 * Whether lumora_subscription_cancel() was called.
 *
 * Returns: %TRUE once cancelled
 */
LUMORA_GLIB_EXPORT
gboolean lumora_subscription_is_cancelled (LumoraSubscription *subscription);

/**
 * lumora_subscription_cancel:
 * @subscription: a #LumoraSubscription
 *
 * Stops following the subject. When it returns, #LumoraSubscription::changed
 * is not emitted again for @subscription (a change already being emitted on
 * another thread may still finish), and when @subscription was the last one
 * of its subject (of its kind: with or without the value), the service has
 * been told to forget the subject. Calling it again does nothing. The last
 * unref of a subscription cancels it.
 *
 * It may block for as long as the C library's unsubscribe takes (about
 * 1 s at most, while the service answers). Do not call it from inside a
 * request callback of the C interface (lumora-c.h), which runs with that
 * library's client mutex held.
 */
LUMORA_GLIB_EXPORT
void lumora_subscription_cancel (LumoraSubscription *subscription);

G_END_DECLS

#endif /* LUMORA_SUBSCRIPTION_H */
