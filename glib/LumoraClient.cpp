// LumoraClient: one counted start of the C library's service API for the
// life of the object, and the service's availability as a property.
#include <lumora/ContextAutoLock.h>
#include <lumora/LMFServiceAPI.h>
#include <lumora/lumora-c.h>

#include <cstdlib>

#include "ClientInternal.h"
#include "internal/HandOff.h"

namespace {

// What the C library's availability callback gets as its user data: a weak
// reference to the client, empty once the client's disposal began, so that a
// callback running on the main-loop thread never revives a dying client. The
// client frees it after the callback was removed.
struct AvailabilityLink {
    GWeakRef client;
};

}  // namespace

struct _LumoraClient {
    GObject parent_instance;

    // The thread-default main context of the creating thread, where the
    // client's notifications and signals are emitted. Set at construction,
    // then only read.
    GMainContext* context;
    // Set at construction, freed at finalisation; see AvailabilityLink.
    AvailabilityLink* link;

    // Guards the three fields below. A leaf: nothing else is taken while it
    // is held.
    GMutex lock;
    // Whether the client holds one start of the service API.
    gboolean started;
    // Whether the availability callback is registered with the C library.
    gboolean listening;
    // The value of the "available" property, as last notified (or, before
    // the first notification, as the service API said at construction).
    gboolean available;
};

G_DEFINE_FINAL_TYPE(LumoraClient, lumora_client, G_TYPE_OBJECT)

namespace {

using lumora::glib::Fail;

enum { PROP_0, PROP_AVAILABLE, N_PROPS };
GParamSpec* g_props[N_PROPS];

enum { SIGNAL_AVAILABILITY_CHANGED, N_SIGNALS };
guint g_signals[N_SIGNALS];

// The client of the process, weakly: it empties when the last reference
// goes. Guarded by g_defaultLock, which the type's constructor holds from the
// look-up to the start of a new client, so that two threads never make two.
GMutex g_defaultLock;
GWeakRef g_default;
// Whether StopAtExit is registered with atexit(). Guarded by g_defaultLock.
bool g_exitHookInstalled = false;

// One availability change on its way to the client's main context.
struct AvailabilityChange {
    GWeakRef client;
    gboolean available;
    char* reason;
};

void FreeAvailabilityChange(gpointer data) {
    auto* change = static_cast<AvailabilityChange*>(data);
    g_weak_ref_clear(&change->client);
    g_free(change->reason);
    delete change;
}

// In the client's main context: the property changes and is notified, then
// the signal follows, only when the value differs from the one notified
// last (the library's first report repeats the state the client started
// with).
gboolean ApplyAvailability(gpointer data) {
    auto* change = static_cast<AvailabilityChange*>(data);
    lumora::internal::HandOffReceive(change);
    auto* client = static_cast<LumoraClient*>(g_weak_ref_get(&change->client));
    if (client == nullptr) return G_SOURCE_REMOVE;
    g_mutex_lock(&client->lock);
    bool changed = client->available != change->available;
    client->available = change->available;
    g_mutex_unlock(&client->lock);
    if (changed) {
        g_object_notify_by_pspec(G_OBJECT(client), g_props[PROP_AVAILABLE]);
        g_signal_emit(client, g_signals[SIGNAL_AVAILABILITY_CHANGED], 0, change->available, change->reason);
    }
    g_object_unref(client);
    return G_SOURCE_REMOVE;
}

// The C library's availability callback: on the thread that iterates the
// global default main context, with no library lock held.
void OnAvailability(int available, const char* reason, void* userData) {
    auto* link = static_cast<AvailabilityLink*>(userData);
    // An answer that the C library would drop while the service is away
    // must not leave a read or request waiting for ever.
    if (!available) lumora::glib::FailPendingCalls(reason != nullptr ? reason : "");
    auto* client = static_cast<LumoraClient*>(g_weak_ref_get(&link->client));
    if (client == nullptr) return;
    auto* change = new AvailabilityChange;
    g_weak_ref_init(&change->client, client);
    change->available = available != 0;
    change->reason = g_strdup(reason != nullptr ? reason : "");
    lumora::glib::PostTo(client->context, "lumora-glib availability", ApplyAvailability, change,
                         FreeAvailabilityChange);
    // May be the last reference (the application dropped its own meanwhile):
    // the client is then disposed here, and link freed; it is not used again.
    g_object_unref(client);
}

// Gives back the client's start of the service API and stops listening, once
// (at the last unref, or at exit, whichever comes first).
void StopService(LumoraClient* client) {
    g_mutex_lock(&client->lock);
    bool wasListening = client->listening;
    bool wasStarted = client->started;
    client->listening = FALSE;
    client->started = FALSE;
    g_mutex_unlock(&client->lock);
    // Waits for a callback in progress on another thread; returns at once
    // from within the callback itself.
    if (wasListening) Lumora_RemoveAvailabilityCallback(OnAvailability, client->link);
    if (wasStarted) Lumora_FiniService();
}

// The process ends with the client still referenced somewhere: its start is
// given back, as a last unref would.
void StopAtExit() {
    lumora::glib::Guard(nullptr, LMF_SITE("StopAtExit"), 0, [] {
        g_mutex_lock(&g_defaultLock);
        auto* client = static_cast<LumoraClient*>(g_weak_ref_get(&g_default));
        g_mutex_unlock(&g_defaultLock);
        if (client == nullptr) return 0;
        LMF_LOGI_IN("StopAtExit", "the process ends with the client alive: the service API is stopped");
        StopService(client);
        g_object_unref(client);
        return 0;
    });
}

void StartService(LumoraClient* client) {
    bool started = Lumora_InitService();
    bool listening = started && Lumora_AddAvailabilityCallback(OnAvailability, client->link);
    g_mutex_lock(&client->lock);
    client->started = started;
    client->listening = listening;
    client->available = started && LMFServiceAPI::IsAvailable();
    g_mutex_unlock(&client->lock);
    if (!started) LMF_LOGE_IN("lumora_client_get_default", "the service API could not be started");
}

void lumora_client_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
    auto* client = LUMORA_CLIENT(object);
    switch (id) {
        case PROP_AVAILABLE:
            g_value_set_boolean(value, lumora_client_get_available(client));
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    }
}

// The one instance: g_object_new() of the type (from lumora_client_get_default()
// or from a binding's constructor) gives the live client when there is one.
// A new one is started before the lock is released, so that no other thread
// finds it half made.
GObject* lumora_client_constructor(GType type, guint count, GObjectConstructParam* params) {
    ContextAutoLock lock(&g_defaultLock);
    GObject* existing = static_cast<GObject*>(g_weak_ref_get(&g_default));
    if (existing != nullptr) return existing;
    GObject* object = G_OBJECT_CLASS(lumora_client_parent_class)->constructor(type, count, params);
    auto* client = LUMORA_CLIENT(object);
    client->link = new AvailabilityLink;
    g_weak_ref_init(&client->link->client, client);
    StartService(client);
    g_weak_ref_set(&g_default, client);
    if (!g_exitHookInstalled) g_exitHookInstalled = atexit(StopAtExit) == 0;
    return object;
}

void lumora_client_dispose(GObject* object) {
    StopService(LUMORA_CLIENT(object));
    G_OBJECT_CLASS(lumora_client_parent_class)->dispose(object);
}

void lumora_client_finalize(GObject* object) {
    auto* client = LUMORA_CLIENT(object);
    if (client->link != nullptr) {
        g_weak_ref_clear(&client->link->client);
        delete client->link;
    }
    g_main_context_unref(client->context);
    g_mutex_clear(&client->lock);
    G_OBJECT_CLASS(lumora_client_parent_class)->finalize(object);
}

}  // namespace

static void lumora_client_class_init(LumoraClientClass* klass) {
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->get_property = lumora_client_get_property;
    object_class->constructor = lumora_client_constructor;
    object_class->dispose = lumora_client_dispose;
    object_class->finalize = lumora_client_finalize;

    g_props[PROP_AVAILABLE] =
        g_param_spec_boolean("available", nullptr, nullptr, FALSE,
                             static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_EXPLICIT_NOTIFY | G_PARAM_STATIC_STRINGS));
    g_object_class_install_properties(object_class, N_PROPS, g_props);

    g_signals[SIGNAL_AVAILABILITY_CHANGED] =
        g_signal_new("availability-changed", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr,
                     G_TYPE_NONE, 2, G_TYPE_BOOLEAN, G_TYPE_STRING);
}

static void lumora_client_init(LumoraClient* client) {
    client->context = g_main_context_ref_thread_default();
    g_mutex_init(&client->lock);
}

LumoraClient* lumora_client_get_default(void) {
    return lumora::glib::Guard(nullptr, LMF_SITE(__func__), static_cast<LumoraClient*>(nullptr),
                               [] { return static_cast<LumoraClient*>(g_object_new(LUMORA_TYPE_CLIENT, nullptr)); });
}

gboolean lumora_client_get_available(LumoraClient* client) {
    g_return_val_if_fail(LUMORA_IS_CLIENT(client), FALSE);
    g_mutex_lock(&client->lock);
    gboolean available = client->available;
    g_mutex_unlock(&client->lock);
    return available;
}

namespace lumora::glib {

DBusClient* StartedBusClient(LumoraClient* client, GError** error, internal::LogSite site) {
    g_mutex_lock(&client->lock);
    bool started = client->started;
    g_mutex_unlock(&client->lock);
    // Kept by the service API from its first start on; it is ours while we
    // hold a start.
    if (started && LMFServiceAPI::m_pDbusClient != nullptr) return LMFServiceAPI::m_pDbusClient;
    Fail(error, site, LUMORA_CLIENT_ERROR_FAILED,
         "the service API is not started: the platform's feature switch may disable the context service here "
         "(see the log)");
    return nullptr;
}

}  // namespace lumora::glib
