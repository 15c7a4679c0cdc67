// LumoraSubscription: one application's following of a subject, until it is
// cancelled or its last reference goes.
#include <lumora/DBusClient.h>

#include <cstring>

#include "Followers.h"

struct _LumoraSubscription {
    GObject parent_instance;

    // Set by NewSubscription before the subscription follows anything, then
    // only read: the client (a reference), the subject and the flags.
    LumoraClient* client;
    char* subject;
    LumoraSubscribeFlags flags;

    // Guards the fields below. A leaf: nothing else is taken while it is held.
    GMutex lock;
    // Where the changes go while it follows; owned, null once cancelled.
    lumora::glib::Target* target;
    // The data of the last "changed".
    char* value;
    // Set by lumora_subscription_cancel(); also for an object that
    // lumora_client_subscribe() did not make, which never follows anything.
    gboolean cancelled;
};

G_DEFINE_FINAL_TYPE(LumoraSubscription, lumora_subscription, G_TYPE_OBJECT)

namespace {

using lumora::glib::Fail;
using lumora::internal::LogSite;

enum { PROP_0, PROP_SUBJECT, PROP_FLAGS, PROP_VALUE, N_PROPS };
GParamSpec* g_props[N_PROPS];

enum { SIGNAL_CHANGED, N_SIGNALS };
guint g_signals[N_SIGNALS];

bool WithValue(LumoraSubscribeFlags flags) { return (flags & LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE) != 0; }

// The bits a caller passed as flags. A C caller or a binding may pass any
// value; read as the C++ enumeration, whose values span one bit, another
// value would be undefined, so the bits are read as they are.
unsigned FlagBits(const LumoraSubscribeFlags& flags) {
    unsigned bits = 0;
    static_assert(sizeof bits == sizeof flags, "the flags are an int");
    memcpy(&bits, &flags, sizeof bits);
    return bits;
}

// The checks of a subscription, as the C library makes them, before anything
// is made or sent.
bool MayFollow(LumoraClient* client, const char* subject, unsigned flags, GError** error, LogSite site) {
    if (!lumora::glib::CheckText(error, site, "subject", subject, true)) return false;
    if ((flags & ~static_cast<unsigned>(LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE)) != 0)
        return Fail(error, site, LUMORA_CLIENT_ERROR_INVALID_ARGUMENT, "unknown subscribe flags 0x%x", flags);
    if (strlen(subject) <= 2)
        return Fail(error, site, LUMORA_CLIENT_ERROR_INVALID_ARGUMENT,
                    "subject \"%s\" is too short: a subject has three characters or more", subject);
    if ((flags & LUMORA_SUBSCRIBE_FLAGS_WITH_VALUE) != 0 && lumora::glib::IsStatisticsSubject(subject))
        return Fail(error, site, LUMORA_CLIENT_ERROR_INVALID_ARGUMENT,
                    "%s answers records, not a value to follow: request it with lumora_client_request()", subject);
    DBusClient* bus = lumora::glib::StartedBusClient(client, error, site);
    return bus != nullptr && lumora::glib::MayUseSubject(error, site, *bus, subject);
}

void lumora_subscription_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
    auto* subscription = LUMORA_SUBSCRIPTION(object);
    switch (id) {
        case PROP_SUBJECT:
            g_value_set_string(value, subscription->subject);
            break;
        case PROP_FLAGS:
            g_value_set_flags(value, subscription->flags);
            break;
        case PROP_VALUE:
            g_value_take_string(value, lumora_subscription_dup_value(subscription));
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
}

void lumora_subscription_dispose(GObject* object) {
    auto* subscription = LUMORA_SUBSCRIPTION(object);
    lumora_subscription_cancel(subscription);
    // May be the client's last reference: the service API then stops, after
    // the subscription was removed from it.
    g_clear_object(&subscription->client);
    G_OBJECT_CLASS(lumora_subscription_parent_class)->dispose(object);
}

void lumora_subscription_finalize(GObject* object) {
    auto* subscription = LUMORA_SUBSCRIPTION(object);
    g_free(subscription->subject);
    g_free(subscription->value);
    g_mutex_clear(&subscription->lock);
    G_OBJECT_CLASS(lumora_subscription_parent_class)->finalize(object);
}

}  // namespace

static void lumora_subscription_class_init(LumoraSubscriptionClass* klass) {
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->get_property = lumora_subscription_get_property;
    object_class->dispose = lumora_subscription_dispose;
    object_class->finalize = lumora_subscription_finalize;

    auto readable = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    g_props[PROP_SUBJECT] = g_param_spec_string("subject", nullptr, nullptr, "", readable);
    g_props[PROP_FLAGS] = g_param_spec_flags("flags", nullptr, nullptr, LUMORA_TYPE_SUBSCRIBE_FLAGS,
                                             LUMORA_SUBSCRIBE_FLAGS_NONE, readable);
    g_props[PROP_VALUE] = g_param_spec_string("value", nullptr, nullptr, nullptr,
                                              static_cast<GParamFlags>(readable | G_PARAM_EXPLICIT_NOTIFY));
    g_object_class_install_properties(object_class, N_PROPS, g_props);

    g_signals[SIGNAL_CHANGED] = g_signal_new("changed", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, nullptr,
                                             nullptr, nullptr, G_TYPE_NONE, 1, G_TYPE_STRING);
}

static void lumora_subscription_init(LumoraSubscription* subscription) {
    subscription->subject = g_strdup("");
    subscription->cancelled = TRUE;
    g_mutex_init(&subscription->lock);
}

const char* lumora_subscription_get_subject(LumoraSubscription* subscription) {
    g_return_val_if_fail(LUMORA_IS_SUBSCRIPTION(subscription), nullptr);
    return subscription->subject;
}

LumoraSubscribeFlags lumora_subscription_get_flags(LumoraSubscription* subscription) {
    g_return_val_if_fail(LUMORA_IS_SUBSCRIPTION(subscription), LUMORA_SUBSCRIBE_FLAGS_NONE);
    return subscription->flags;
}

char* lumora_subscription_dup_value(LumoraSubscription* subscription) {
    g_return_val_if_fail(LUMORA_IS_SUBSCRIPTION(subscription), nullptr);
    g_mutex_lock(&subscription->lock);
    char* value = g_strdup(subscription->value);
    g_mutex_unlock(&subscription->lock);
    return value;
}

gboolean lumora_subscription_is_cancelled(LumoraSubscription* subscription) {
    g_return_val_if_fail(LUMORA_IS_SUBSCRIPTION(subscription), TRUE);
    g_mutex_lock(&subscription->lock);
    gboolean cancelled = subscription->cancelled;
    g_mutex_unlock(&subscription->lock);
    return cancelled;
}

void lumora_subscription_cancel(LumoraSubscription* subscription) {
    g_return_if_fail(LUMORA_IS_SUBSCRIPTION(subscription));
    g_mutex_lock(&subscription->lock);
    lumora::glib::Target* target = subscription->target;
    subscription->target = nullptr;
    subscription->cancelled = TRUE;
    g_mutex_unlock(&subscription->lock);
    if (target == nullptr) return;
    lumora::glib::Guard(nullptr, LMF_SITE(__func__), 0, [&] {
        lumora::glib::Unfollow(target, subscription->subject, WithValue(subscription->flags));
        return 0;
    });
    lumora::glib::ReleaseTarget(target);
}

LumoraSubscription* lumora_client_subscribe(LumoraClient* client, const char* subject, LumoraSubscribeFlags flags,
                                            GError** error) {
    g_return_val_if_fail(LUMORA_IS_CLIENT(client), nullptr);
    g_return_val_if_fail(error == nullptr || *error == nullptr, nullptr);
    LogSite site = LMF_SITE(__func__);
    unsigned bits = FlagBits(flags);
    return lumora::glib::Guard(error, site, static_cast<LumoraSubscription*>(nullptr), [&] {
        if (!MayFollow(client, subject, bits, error, site)) return static_cast<LumoraSubscription*>(nullptr);
        return lumora::glib::NewSubscription(client, subject, static_cast<LumoraSubscribeFlags>(bits), error);
    });
}

namespace lumora::glib {

LumoraSubscription* NewSubscription(LumoraClient* client, const char* subject, LumoraSubscribeFlags flags,
                                    GError** error) {
    LogSite site = LMF_SITE("lumora_client_subscribe");
    auto* subscription = static_cast<LumoraSubscription*>(g_object_new(LUMORA_TYPE_SUBSCRIPTION, nullptr));
    subscription->client = static_cast<LumoraClient*>(g_object_ref(client));
    g_free(subscription->subject);
    subscription->subject = g_strdup(subject);
    subscription->flags = flags;
    Target* target = NewTarget(subscription);
    g_mutex_lock(&subscription->lock);
    subscription->target = target;
    subscription->cancelled = FALSE;
    g_mutex_unlock(&subscription->lock);
    if (Follow(target, subject, WithValue(flags), error, site)) return subscription;
    g_mutex_lock(&subscription->lock);
    subscription->target = nullptr;
    subscription->cancelled = TRUE;
    g_mutex_unlock(&subscription->lock);
    ReleaseTarget(target);
    g_object_unref(subscription);
    return nullptr;
}

// Dropped when the subscription was cancelled after the change was posted:
// once lumora_subscription_cancel() returned on the subscription's own
// thread, no "changed" follows.
void DeliverChange(LumoraSubscription* subscription, const char* data) {
    g_mutex_lock(&subscription->lock);
    bool cancelled = subscription->cancelled;
    if (!cancelled) {
        g_free(subscription->value);
        subscription->value = g_strdup(data);
    }
    g_mutex_unlock(&subscription->lock);
    if (cancelled) return;
    g_object_notify_by_pspec(G_OBJECT(subscription), g_props[PROP_VALUE]);
    g_signal_emit(subscription, g_signals[SIGNAL_CHANGED], 0, data);
}

}  // namespace lumora::glib
