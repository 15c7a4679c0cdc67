// Availability callbacks: the state of the service as the bus client learns
// it, told to the application once per change, from the main loop.
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <vector>

#include "DBusClientInternal.h"
#include "internal/AvailabilityLog.h"
#include "internal/Boundary.h"
#include "internal/CallbackGate.h"
#include "internal/DefaultContext.h"
#include "internal/Events.h"
#include "internal/HandOff.h"
#include "internal/Log.h"
#include "internal/ServiceContract.h"

namespace lumora::internal {
namespace {

constexpr const char* kDispatch = "DispatchAvailability";
constexpr const char* kOnNameOwnerChanged = "OnNameOwnerChanged";

struct Listener {
    uint64_t id;
    EventOwner owner;
    LumoraAvailabilityCb callback;
    void* userData;
    int told;  // the state last told to it (1, 0), or AvailabilityLog::kUnknown
};

// One call to make, admitted at the gate while the listener was found.
struct Telling {
    EventOwner owner;
    LumoraAvailabilityCb callback;
    void* userData;
    CallbackGate::Ticket ticket;
};

// Everything below is guarded by g_mutex: it is taken under the bus client's
// locks, and nothing but the current values' own lock (for a mark) and the
// gate's is taken while it is held.
GMutex g_mutex;
std::vector<Listener> g_listeners;
uint64_t g_nextId = 1;
AvailabilityLog g_log;
guint g_dispatchSource = 0;
// The connection whose NameOwnerChanged of the service's name is watched
// while there are listeners (a crash says nothing else), and the watch.
GDBusConnection* g_connection = nullptr;
GDBusConnection* g_watchedConnection = nullptr;
guint g_nameWatch = 0;
// The number of listeners, read without the lock by the bus client.
std::atomic<size_t> g_listenerCount{0};
// The followers' mark when the current return of the service began asking
// the current values (0: none began); the return's change, once recorded,
// asks only those followed since.
uint64_t g_returnMark = 0;

// The catch-up that a return of the service starts before it is told.
struct Return {
    const char* reason;
    uint64_t mark;
};

gboolean CatchUpOnReturn(gpointer data) {
    auto* ret = static_cast<Return*>(data);
    HandOffReceive(ret);
    GuardedVoid(kDispatch, [ret] { CatchUpCurrentValues(ret->reason, 0, ret->mark); });
    delete ret;
    return G_SOURCE_REMOVE;
}

// Advanced by every change of the service name's owner: the answer to the
// question asked when the name lost its owner tells "name-lost" only when no
// new owner came meanwhile (a new service may have said "HELLO" already).
std::atomic<uintptr_t> g_ownerChanges{0};

gboolean DispatchAvailability(gpointer);

void ScheduleDispatch() {
    if (g_dispatchSource == 0) g_dispatchSource = g_idle_add(DispatchAvailability, nullptr);
}

// The answer of the bus daemon to the question asked when the service's name
// lost its owner: an answer means the daemon is still there and the service
// alone went; no answer on a closed connection means the daemon itself is
// going (it drops its clients' names as it stops), which the connection's
// close reports as "bus-closed".
void OnBusStillThere(GObject* source, GAsyncResult* result, gpointer asked) {
    GuardedVoid(kOnNameOwnerChanged, [&] {
        auto* connection = G_DBUS_CONNECTION(source);
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(connection, result, &error);
        if (reply != nullptr) g_variant_unref(reply);
        if (error != nullptr) g_error_free(error);
        if (reply == nullptr && g_dbus_connection_is_closed(connection)) return;
        if (g_ownerChanges.load() != reinterpret_cast<uintptr_t>(asked)) return;  // a new owner came since
        ReportServiceUnavailable("name-lost");
    });
}

void OnNameOwnerChanged(GDBusConnection* connection, const gchar*, const gchar*, const gchar*, const gchar*,
                        GVariant* parameters, gpointer) {
    GuardedVoid(kOnNameOwnerChanged, [&] {
        if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sss)"))) {
            LMF_LOGE_IN(kOnNameOwnerChanged, "unexpected signal %s, expected (sss)",
                        g_variant_get_type_string(parameters));
            return;
        }
        const gchar* newOwner = nullptr;
        g_variant_get(parameters, "(&s&s&s)", nullptr, nullptr, &newOwner);
        uintptr_t changes = ++g_ownerChanges;
        if (newOwner[0] != '\0') return;
        g_dbus_connection_call(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "GetId", nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
                               OnBusStillThere, reinterpret_cast<gpointer>(changes));
    });
}

// Watches the service's name on the current connection while there are
// listeners, and on no connection otherwise. Called with g_mutex held.
// A closed connection is not watched (GIO would fail to send the match rule
// with a critical); the next connection is.
void UpdateNameWatch() {
    GDBusConnection* wanted = g_listeners.empty() ? nullptr : g_connection;
    if (wanted != nullptr && g_dbus_connection_is_closed(wanted)) wanted = nullptr;
    if (wanted == g_watchedConnection) return;
    if (g_nameWatch != 0) g_dbus_connection_signal_unsubscribe(g_watchedConnection, g_nameWatch);
    g_nameWatch = 0;
    g_watchedConnection = wanted;
    if (wanted == nullptr) return;
    OnDefaultContext onDefault;
    g_nameWatch = g_dbus_connection_signal_subscribe(wanted, "org.freedesktop.DBus", "org.freedesktop.DBus",
                                                     "NameOwnerChanged", "/org/freedesktop/DBus", contract::kBusName,
                                                     G_DBUS_SIGNAL_FLAGS_NONE, OnNameOwnerChanged, nullptr, nullptr);
}

void CountListeners() { g_listenerCount.store(g_listeners.size()); }

void Record(int available, const char* reason) {
    ContextAutoLock lock(&g_mutex);
    // An application that uses neither feature has nothing to be told and
    // nothing to catch up: the state is kept, and no line is written.
    bool heard = !g_listeners.empty() || FollowerCount() != 0;
    uint64_t asked = available == 1 ? g_returnMark : 0;
    g_returnMark = 0;
    if (g_log.Record(available, reason, FollowersMark(), heard, asked) && heard) ScheduleDispatch();
}

std::vector<Listener>::iterator FindListener(EventOwner owner, LumoraAvailabilityCb callback, void* userData) {
    return std::find_if(g_listeners.begin(), g_listeners.end(), [&](const Listener& listener) {
        return listener.owner == owner && listener.callback == callback && listener.userData == userData;
    });
}

// The listeners to tell change, marked as told under the lock so that each
// hears a state once, however the dispatches interleave, and admitted at
// the gate so that one removed meanwhile is not called.
std::vector<Telling> TakeListenersToTell(const AvailabilityLog::Change& change) {
    std::vector<Telling> tellings;
    for (Listener& listener : g_listeners) {
        if (listener.told == change.available) continue;
        listener.told = change.available;
        CallbackGate::Ticket ticket = CallbackGate::Admit(
            {AvailabilityTable(listener.owner), std::string(), CallbackId(listener.callback), listener.userData});
        tellings.push_back({listener.owner, listener.callback, listener.userData, ticket});
    }
    return tellings;
}

void LogTelling(const std::vector<Telling>& tellings, const AvailabilityLog::Change& change) {
    for (EventOwner owner : {EventOwner::kServiceApi, EventOwner::kObjectInterface}) {
        size_t count = static_cast<size_t>(
            std::count_if(tellings.begin(), tellings.end(), [owner](const Telling& t) { return t.owner == owner; }));
        if (count == 0) continue;
        LogSite site = OwnerSite(owner, kDispatch);
        LMF_LOG_SITE(LUMORA_PRIO_INFO, site.unit, site.function, "service %s (%s): telling %zu callback(s)",
                     change.available == 1 ? "available" : "unavailable", change.reason, count);
    }
}

// Calls each listener still registered, with no lock held.
void Tell(const std::vector<Telling>& tellings, const AvailabilityLog::Change& change) {
    for (const Telling& telling : tellings) {
        Deliver(telling.ticket, [&] { telling.callback(change.available, change.reason, telling.userData); });
    }
}

// Takes the next recorded change (recorded true), or else the current state
// for listeners added since they were last told; false when nothing is left.
bool NextChange(AvailabilityLog::Change& change, std::vector<Telling>& tellings, bool& recorded) {
    ContextAutoLock lock(&g_mutex);
    recorded = g_log.Next(change);
    if (recorded) {
        tellings = TakeListenersToTell(change);
        return true;
    }
    if (g_log.Current(change)) {
        tellings = TakeListenersToTell(change);
        if (!tellings.empty()) return true;
    }
    g_dispatchSource = 0;
    return false;
}

// One run of the main loop hands out every change recorded so far, in order:
// the current values are asked again after each return of the service, then
// the listeners whose state differs are told.
gboolean DispatchAvailability(gpointer) {
    GuardedVoid(kDispatch, [] {
        AvailabilityLog::Change change{};
        std::vector<Telling> tellings;
        bool recorded = false;
        while (NextChange(change, tellings, recorded)) {
            // The current state told to listeners added since is no return of
            // the service: nothing to catch up then.
            if (recorded && change.available == 1) CatchUpCurrentValues(change.reason, change.asked, change.followers);
            LogTelling(tellings, change);
            Tell(tellings, change);
        }
    });
    return G_SOURCE_REMOVE;
}

}  // namespace

LogSite OwnerSite(EventOwner owner, const char* function) {
    return {owner == EventOwner::kServiceApi ? "LMFServiceAPI.cpp" : "LumoraAPI.cpp", function};
}

CallbackTable AvailabilityTable(EventOwner owner) {
    return owner == EventOwner::kServiceApi ? CallbackTable::kServiceAvailability : CallbackTable::kObjectAvailability;
}

void ReportServiceAvailable(const char* reason) { Record(1, reason); }

void ReportServiceUnavailable(const char* reason) { Record(0, reason); }

// The values are asked from the main loop, with no library lock held (the
// bus client's is held here).
void ReportServiceReturning(const char* reason) {
    ContextAutoLock lock(&g_mutex);
    if (FollowerCount() == 0) return;
    g_returnMark = FollowersMark();
    auto* ret = new Return{reason, g_returnMark};
    HandOffSend(ret);
    g_idle_add(CatchUpOnReturn, ret);
}

void ReportConnection(GDBusConnection* connection) {
    ContextAutoLock lock(&g_mutex);
    g_connection = connection;
    UpdateNameWatch();
}

bool AvailabilityWanted() { return g_listenerCount.load() != 0; }

bool EventsInUse() { return AvailabilityWanted() || FollowerCount() != 0; }

// Away, and not coming back yet: a return whose subscriptions went out
// already takes requests.
bool ServiceKnownUnavailable() {
    ContextAutoLock lock(&g_mutex);
    AvailabilityLog::Change change{};
    return g_log.Current(change) && change.available == 0 && g_returnMark == 0;
}

bool AddAvailabilityListener(LogSite site, EventOwner owner, LumoraAvailabilityCb callback, void* userData) {
    if (callback == nullptr) {
        LMF_LOGE_FOR(site, "callback is null");
        return false;
    }
    {
        ContextAutoLock lock(&g_mutex);
        if (FindListener(owner, callback, userData) != g_listeners.end()) {
            LMF_LOGE_FOR(site, "callback[%p] userData[%p] is already added", reinterpret_cast<void*>(callback),
                         userData);
            return false;
        }
        g_listeners.push_back({g_nextId++, owner, callback, userData, AvailabilityLog::kUnknown});
        CountListeners();
        UpdateNameWatch();
        AvailabilityLog::Change change{};
        if (g_log.Current(change)) ScheduleDispatch();
    }
    if (DBusClient* client = DBusClient::m_pInstance) DBusClientInternal::WatchForEvents(*client);
    return true;
}

bool RemoveAvailabilityListener(LogSite site, EventOwner owner, LumoraAvailabilityCb callback, void* userData) {
    {
        ContextAutoLock lock(&g_mutex);
        auto it = FindListener(owner, callback, userData);
        if (it == g_listeners.end()) {
            LMF_LOGE_FOR(site, "callback[%p] userData[%p] was not added", reinterpret_cast<void*>(callback), userData);
            return false;
        }
        g_listeners.erase(it);
        CountListeners();
        UpdateNameWatch();
    }
    CallbackGate::Retire({AvailabilityTable(owner), nullptr, CallbackId(callback), false, userData});
    return true;
}

void DropAvailabilityListeners(EventOwner owner) {
    ContextAutoLock lock(&g_mutex);
    g_listeners.erase(std::remove_if(g_listeners.begin(), g_listeners.end(),
                                     [owner](const Listener& listener) { return listener.owner == owner; }),
                      g_listeners.end());
    CountListeners();
    UpdateNameWatch();
}

}  // namespace lumora::internal
