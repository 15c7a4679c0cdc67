// DBusClient: instance, connection, service readiness, reconnection and the
// three timers that finish that work later from the main loop.
#define LMF_LOG_UNIT "DBusClient.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "DBusClientInternal.h"
#include "internal/Atomic.h"
#include "internal/Boundary.h"
#include "internal/CallbackGate.h"
#include "internal/DefaultContext.h"
#include "internal/Events.h"
#include "internal/Log.h"
#include "internal/Reentry.h"
#include "internal/ServiceContract.h"

namespace contract = lumora::contract;
using lumora::internal::AtomicLoad;
using lumora::internal::AtomicStore;
using lumora::internal::Guarded;

DBusClient* DBusClient::m_pInstance = nullptr;
GMutex DBusClient::m_clientMutex;

namespace {

constexpr guint kInitCallbackDelaySeconds = 1;
constexpr guint kRecheckIntervalSeconds = 3;
constexpr int kRecheckLimit = 10;

gboolean InitTimeoutThunk(gpointer data) {
    return Guarded("InitTimeoutCb", FALSE, [data] { return static_cast<DBusClient*>(data)->InitTimeoutCb(); });
}

gboolean RecheckTimeoutThunk(gpointer data) {
    return Guarded("RecheckTimeoutCb", FALSE, [data] { return static_cast<DBusClient*>(data)->RecheckTimeoutCb(); });
}

gboolean ReConnectTimeoutThunk(gpointer data) {
    return Guarded("ReConnectTimeoutCb", FALSE,
                   [data] { return static_cast<DBusClient*>(data)->ReConnectTimeoutCb(); });
}

void RemoveSource(guint& id) {
    if (id == 0) return;
    g_source_remove(id);
    id = 0;
}

void SetResult(LMF_INIT_RESULT* result, LMF_INIT_RESULT value) {
    if (result != nullptr) *result = value;
}

// How the last "ServiceEnable" went, for the reason an application is told
// when the service is not there. Guarded by the client mutex.
enum class EnableOutcome { kNotAsked, kFailed, kNoAnswer, kRefused, kEnabled };
EnableOutcome g_enableOutcome = EnableOutcome::kNotAsked;

// Every pending InitTimeoutCb source, the one m_nInitCbTimerId names and any
// whose id a later one replaced. Guarded by the client mutex.
std::vector<guint> g_initTimers;
// Set when the service was found away; a check that finds it again while
// the application uses the events features registers the table then, since
// no "HELLO" or reconnection may come to do it. Guarded by the client mutex.
bool g_bRegistrationOwed = false;

// A service that holds its name but does not answer in time (it hangs, or is
// stopped) is told apart from one whose name has no owner.
EnableOutcome OutcomeOf(const GError* error) {
    if (error != nullptr && (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) ||
                             g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NO_REPLY) ||
                             g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_TIMEOUT) ||
                             g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_TIMED_OUT)))
        return EnableOutcome::kNoAnswer;
    return EnableOutcome::kFailed;
}

void RemoveInitTimers() {
    for (guint id : g_initTimers) g_source_remove(id);
    g_initTimers.clear();
}

void ForgetInitTimer(guint id) {
    g_initTimers.erase(std::remove(g_initTimers.begin(), g_initTimers.end(), id), g_initTimers.end());
}

}  // namespace

// ---- helpers -----------------------------------------------------------------

// The connection's "closed" signal reaches the default main context,
// whatever thread opens it.
GDBusConnection* DBusClientInternal::OpenConnection(GError** error) {
    lumora::internal::OnDefaultContext onDefault;
    gchar* address = g_dbus_address_get_for_bus_sync(contract::kBusType, nullptr, error);
    if (address == nullptr) return nullptr;
    GDBusConnection* connection =
        g_dbus_connection_new_for_address_sync(address, contract::kConnectionFlags, nullptr, nullptr, error);
    g_free(address);
    return connection;
}

GDBusConnection* DBusClientInternal::Connection(const DBusClient& client) { return AtomicLoad(client.m_connection); }

void DBusClientInternal::MarkServiceAvailable(DBusClient& client, bool available) {
    AtomicStore(client.m_bServiceAvailable, available);
}

void DBusClientInternal::ServiceFound(DBusClient& client, const char* reason) {
    MarkServiceAvailable(client, true);
    lumora::internal::ReportServiceAvailable(reason);
}

// Not there: no bus, no service behind the name (or no readiness marker), or
// a service that answered that it is not enabled ("bye": it said no).
void DBusClientInternal::ServiceNotFound(DBusClient& client) {
    MarkServiceAvailable(client, false);
    GDBusConnection* connection = client.m_connection;
    const char* reason = connection == nullptr || g_dbus_connection_is_closed(connection) ? "bus-closed"
                         : g_enableOutcome == EnableOutcome::kRefused                     ? "bye"
                         : g_enableOutcome == EnableOutcome::kNoAnswer                    ? "no-answer"
                                                                                          : "name-lost";
    g_enableOutcome = EnableOutcome::kNotAsked;
    g_bRegistrationOwed = true;
    lumora::internal::ReportServiceUnavailable(reason);
}

bool& DBusClientInternal::RegistrationOwed() { return g_bRegistrationOwed; }

void DBusClientInternal::MarkBusConnected(DBusClient& client, bool connected) {
    AtomicStore(client.m_bBusConnected, connected);
}

void DBusClientInternal::ScheduleInitCallback(DBusClient& client) {
    client.m_nInitCbTimerId = g_timeout_add_seconds(kInitCallbackDelaySeconds, InitTimeoutThunk, &client);
    g_initTimers.push_back(client.m_nInitCbTimerId);
}

// One reconnect timer at a time: an earlier timer left running would open a
// connection of its own.
void DBusClientInternal::ScheduleReconnect(DBusClient& client) {
    RemoveSource(client.m_nReConnectTimerId);
    client.m_nReConnectTimerId = g_timeout_add_seconds(kReconnectIntervalSeconds, ReConnectTimeoutThunk, &client);
}

void DBusClientInternal::ScheduleRecheck(DBusClient& client) {
    RemoveSource(client.m_nRecheckTimerId);
    client.m_nRecheckTimerId = g_timeout_add_seconds(kRecheckIntervalSeconds, RecheckTimeoutThunk, &client);
}

void DBusClientInternal::CancelRecheck(DBusClient& client) { RemoveSource(client.m_nRecheckTimerId); }

// An open connection kept from an earlier Initialize: only the service is asked
// again. Unlike a fresh connection, a service that is not enabled here starts
// no recheck timer; callers have always relied on that difference.
void DBusClientInternal::InitializeOnOpenConnection(DBusClient& client, LMF_INIT_RESULT* result) {
    MarkBusConnected(client, true);
    if (!client.__IsServiceEnable()) {
        ServiceNotFound(client);
        SetResult(result, LMF_INIT_SERVICE_NOT_READY);
        // Callbacks of the object interface outlive a stop and start of the
        // service API: they go on hearing the service.
        WatchForEventsLocked(client);
        return;
    }
    if (lumora::internal::EventsInUse()) Listen(client);
    ServiceFound(client, "ready");
    if (client.m_fnInitCb != nullptr) ScheduleInitCallback(client);
    SetResult(result, LMF_INIT_OK);
}

void DBusClientInternal::InitializeOnNewConnection(DBusClient& client, LMF_INIT_RESULT* result) {
    const char* name = ProcessName(client);
    LMF_LOGE_IN("Initialize", "[%s] Success to connect Dbus ", name);
    Listen(client);
    MarkBusConnected(client, true);
    // The marker file is consulted only here, on a fresh connection.
    if (client.__IsLMFServiceReady() && client.__IsServiceEnable()) {
        LMF_LOGE_IN("Initialize", "[%s] LMF service is available now ..", name);
        ServiceFound(client, "ready");
        if (client.m_fnInitCb != nullptr) {
            ForgetInitTimer(client.m_nInitCbTimerId);
            RemoveSource(client.m_nInitCbTimerId);
            ScheduleInitCallback(client);
        }
        SetResult(result, LMF_INIT_OK);
        return;
    }
    LMF_LOGE_IN("Initialize", "[%s] LMF service isn't ready or available yet ..", name);
    ServiceNotFound(client);
    SetResult(result, LMF_INIT_SERVICE_NOT_READY);
    LMF_LOGE_IN("Initialize", "[%s] Set Timer ..", name);
    ScheduleRecheck(client);
}

void DBusClientInternal::WatchForEvents(DBusClient& client) {
    ContextAutoLock lock(Mutex());
    WatchForEventsLocked(client);
}

void DBusClientInternal::WatchForEventsLocked(DBusClient& client) {
    GDBusConnection* connection = client.m_connection;
    if (!client.m_bBusConnected || connection == nullptr || g_dbus_connection_is_closed(connection) || Recovering())
        return;
    Listen(client);
    if (client.m_bServiceAvailable || client.m_nRecheckTimerId != 0) return;
    client.m_nRecheckCnt = 0;
    ScheduleRecheck(client);
}

// ---- instance ----------------------------------------------------------------

DBusClient::DBusClient() = default;

DBusClient::~DBusClient() = default;

DBusClient* DBusClient::GetInstance() {
    if (AtomicLoad(m_pInstance) == nullptr) {
        ContextAutoLock lock(&m_clientMutex);
        if (m_pInstance == nullptr) AtomicStore(m_pInstance, new DBusClient());
    }
    return AtomicLoad(m_pInstance);
}

// The connection stays open, but nothing that would reach the deleted object
// stays behind: its timers (every start-callback timer included) and its
// "Response" signal subscription go, and the calls of a return of the
// service still in flight find no client when they are answered.
void DBusClient::DeleteInstance() {
    if (AtomicLoad(m_pInstance) == nullptr) return;
    if (LMF_REFUSED_IN_CALLBACK(lumora::internal::kClientMutex)) return;
    ContextAutoLock lock(&m_clientMutex);
    DBusClient* client = m_pInstance;
    if (client == nullptr) return;
    RemoveInitTimers();
    client->m_nInitCbTimerId = 0;
    RemoveSource(client->m_nRecheckTimerId);
    RemoveSource(client->m_nReConnectTimerId);
    DBusClientInternal::StopListening(*client);
    DBusClientInternal::ClearRegistrations();
    AtomicStore(m_pInstance, static_cast<DBusClient*>(nullptr));
    delete client;
}

void DBusClient::SetProcessName(const char* name) {
    m_strProcessName = name != nullptr ? name : "";
    LMF_LOGE("Currernt Process Name[%s]", m_strProcessName.c_str());
}

bool DBusClient::IsAvailable() { return AtomicLoad(m_bServiceAvailable); }

bool DBusClient::__IsLMFServiceReady() { return access(contract::kReadyMarkerFile, F_OK) == 0; }

bool DBusClient::__IsServiceEnable() {
    GDBusConnection* connection = DBusClientInternal::Connection(*this);
    g_enableOutcome = EnableOutcome::kFailed;
    if (connection == nullptr) {
        LMF_LOGE("[%s] m_connection is null", m_strProcessName.c_str());
        return false;
    }
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection, contract::kBusName, contract::kObjectPath, contract::kInterface, contract::kMethodServiceEnable,
        nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, contract::kServiceEnableTimeoutMs, nullptr, &error);
    if (reply == nullptr) {
        LMF_LOGE("Error : %s", error != nullptr ? error->message : "no reply");
        g_enableOutcome = OutcomeOf(error);
        if (error != nullptr) g_error_free(error);
        return false;
    }
    // Checked, not assumed: g_variant_get on a reply of another type is a GLib
    // critical; such a service counts as not enabled.
    if (!g_variant_is_of_type(reply, G_VARIANT_TYPE(contract::kServiceEnableReply))) {
        LMF_LOGE("Error : unexpected reply %s, expected %s", g_variant_get_type_string(reply),
                 contract::kServiceEnableReply);
        g_variant_unref(reply);
        return false;
    }
    gboolean enabled = FALSE;
    const gchar* whiteList = nullptr;
    g_variant_get(reply, "(b&s)", &enabled, &whiteList);
    __SetWhiteList(whiteList);
    g_variant_unref(reply);
    g_enableOutcome = enabled ? EnableOutcome::kEnabled : EnableOutcome::kRefused;
    if (enabled) {
        LMF_LOGE("LMF is available");
        return true;
    }
    LMF_LOGE("LMF isn't available yet ..");
    return false;
}

// ---- Initialize / Finalize ---------------------------------------------------

bool DBusClient::Initialize(LMF_INIT_RESULT* result, LumoraInitCb callback, void* userData) {
    if (LMF_REFUSED_IN_CALLBACK(lumora::internal::kClientMutex)) return false;
    ContextAutoLock lock(&m_clientMutex);
    // The records are not freed here: Finalize frees them, and an Initialize
    // without Finalize abandons them to the calls that may still hold them.
    m_vWhiteList.clear();
    m_vSubscribeList.clear();
    m_subscribeIndex.clear();
    for (DBusClientRequest* request : m_vRequestList)
        if (request != nullptr) lumora::internal::ReportUnansweredRequest(request->callback, request->userData);
    m_vRequestList.clear();
    DBusClientInternal::CountSubscriptions(*this);
    DBusClientInternal::CancelReturns();
    ++m_nInitCnt;
    if (callback != nullptr) {
        m_fnInitCb = callback;
        m_pInitUserData = userData;
    }
    if (m_connection != nullptr && !g_dbus_connection_is_closed(m_connection)) {
        DBusClientInternal::InitializeOnOpenConnection(*this, result);
        return true;
    }
    if (m_connection != nullptr) {
        DBusClientInternal::ForgetConnection(*this);
        DBusClientInternal::MarkBusConnected(*this, false);
        DBusClientInternal::MarkServiceAvailable(*this, false);
    }
    GError* error = nullptr;
    AtomicStore(m_connection, DBusClientInternal::OpenConnection(&error));
    if (m_connection == nullptr) {
        if (error != nullptr) {
            LMF_LOGE("[%s] m_connection error msg[%s]", m_strProcessName.c_str(), error->message);
            g_error_free(error);
        }
        DBusClientInternal::ScheduleReconnect(*this);
        lumora::internal::ReportServiceUnavailable("bus-closed");
        SetResult(result, LMF_INIT_CONNECTION_FAILED);
        return true;
    }
    DBusClientInternal::WatchConnection(*this);
    DBusClientInternal::StopRecovery();
    DBusClientInternal::InitializeOnNewConnection(*this, result);
    return true;
}

bool DBusClient::Finalize() {
    if (LMF_REFUSED_IN_CALLBACK(lumora::internal::kClientMutex)) return false;
    bool result = DBusClientInternal::FinalizeRecords(*this);
    // Once this returns, no subscription callback runs anywhere, and none
    // will start.
    lumora::internal::CallbackGate::Retire({lumora::internal::CallbackTable::kBusClient});
    return result;
}

// Finalize's steps.
bool DBusClientInternal::FinalizeRecords(DBusClient& client) {
    ContextAutoLock lock(Mutex());
    CancelReturns();  // a return under way is told to nobody now
    if (!client.m_vSubscribeList.empty()) client.__DeleteAllSubscribes();
    if (!client.m_vRequestList.empty()) client.__DeleteAllRequests();
    client.m_vWhiteList.clear();
    ForgetInitTimer(client.m_nInitCbTimerId);
    RemoveSource(client.m_nInitCbTimerId);
    RemoveSource(client.m_nRecheckTimerId);
    GDBusConnection* connection = client.m_connection;
    if (connection != nullptr && !g_dbus_connection_is_closed(connection)) {
        StopListening(client);
        g_dbus_connection_flush_sync(connection, nullptr, nullptr);
        // The connection stays open and owned, for the next Initialize; a
        // reconnect timer left from before keeps running.
    } else {
        // A bus lost under the client: the recovery ends with it.
        if (connection != nullptr) ForgetConnection(client);
        RemoveSource(client.m_nReConnectTimerId);
    }
    client.m_fnInitCb = nullptr;
    client.m_pInitUserData = nullptr;
    StopRecovery();
    MarkServiceAvailable(client, false);
    MarkBusConnected(client, false);
    client.m_nRecheckCnt = 0;
    return true;
}

// ---- timers ------------------------------------------------------------------

gboolean DBusClient::InitTimeoutCb() {
    LumoraInitCb callback = nullptr;
    void* userData = nullptr;
    {
        ContextAutoLock lock(&m_clientMutex);
        callback = m_fnInitCb;
        userData = m_pInitUserData;
    }
    // The application's callback runs without the client mutex, so that it
    // may use the library. The stored pair is cleared only afterwards: a
    // callback that calls Initialize again with a callback of its own sees
    // that one cleared here too, and never called.
    if (callback != nullptr) callback(nullptr, userData);
    ContextAutoLock lock(&m_clientMutex);
    if (GSource* source = g_main_current_source()) ForgetInitTimer(g_source_get_id(source));
    if (m_pInstance != this) return FALSE;  // the callback deleted the instance
    m_fnInitCb = nullptr;
    m_pInitUserData = nullptr;
    // Cleared under the lock, before this source is destroyed on return, so
    // that Finalize never removes a source that is already gone.
    m_nInitCbTimerId = 0;
    return FALSE;
}

gboolean DBusClient::RecheckTimeoutCb() {
    ContextAutoLock lock(&m_clientMutex);
    const char* name = m_strProcessName.c_str();
    if (!__IsLMFServiceReady()) {
        // Not counted: the rechecks go on for as long as the service has not
        // started at all.
        LMF_LOGE("LMF Service Not Ready...");
        return TRUE;
    }
    ++m_nRecheckCnt;
    LMF_LOGE("[%s] Check Service Availability... [%d/%d]", name, m_nRecheckCnt, kRecheckLimit);
    if (__IsServiceEnable()) {
        LMF_LOGE("[%s] LMF service is available now ..", name);
        DBusClientInternal::MarkServiceAvailable(*this, true);
        if (m_fnInitCb != nullptr) DBusClientInternal::ScheduleInitCallback(*this);
        m_nRecheckTimerId = 0;
        if (DBusClientInternal::Recovering()) {
            DBusClientInternal::FinishRecovery(*this, __func__);
        } else if (DBusClientInternal::RegistrationOwed() && lumora::internal::EventsInUse()) {
            // Found again without a "HELLO": whatever was subscribed while it
            // was away has not reached it.
            DBusClientInternal::RegisterAgain(*this, DBusClientInternal::Batch::kReady, __func__);
        } else {
            lumora::internal::ReportServiceAvailable("ready");
        }
        return FALSE;
    }
    LMF_LOGE("[%s] LMF service isn't available yet ..", name);
    // A service that holds its name but does not answer may answer again
    // without a restart, and so without a "HELLO": an application that
    // follows the service is kept checking for it.
    bool keepChecking = g_enableOutcome == EnableOutcome::kNoAnswer && lumora::internal::EventsInUse();
    DBusClientInternal::ServiceNotFound(*this);
    // Stops after the eleventh check although the log names ten as the total.
    if (m_nRecheckCnt > kRecheckLimit && !keepChecking) {
        LMF_LOGE("[%s] Stop Checking Service Availability", name);
        m_nRecheckTimerId = 0;
        return FALSE;
    }
    return TRUE;
}

gboolean DBusClient::ReConnectTimeoutCb() {
    ContextAutoLock lock(&m_clientMutex);
    GDBusConnection* connection = DBusClientInternal::OpenConnection(nullptr);
    if (connection == nullptr) {
        LMF_LOGE("m_connection error");
        return TRUE;
    }
    m_nReConnectTimerId = 0;
    if (DBusClientInternal::Recovering()) {
        DBusClientInternal::RecoverOn(*this, connection);
        return FALSE;
    }
    AtomicStore(m_connection, connection);
    DBusClientInternal::WatchConnection(*this);
    // Only a process with subscriptions (or one that follows the service with
    // the events features) listens and asks the service again here; any
    // other keeps the new connection with its flags as they were, and is
    // brought up by its next Initialize.
    if (m_vSubscribeList.empty() && !lumora::internal::EventsInUse()) return FALSE;
    guint subscriberId = DBusClientInternal::Listen(*this);
    if (subscriberId == 0) return FALSE;  // listening already
    LMF_LOGE("m_subscriberID : %d", subscriberId);
    DBusClientInternal::MarkBusConnected(*this, true);
    if (!__IsServiceEnable()) {
        LMF_LOGE("[%s] LMF service isn't available yet ..", m_strProcessName.c_str());
        DBusClientInternal::ServiceNotFound(*this);
        return FALSE;
    }
    LMF_LOGE("[%s] LMF service is available now ..", m_strProcessName.c_str());
    DBusClientInternal::MarkServiceAvailable(*this, true);
    DBusClientInternal::RegisterAgain(*this, DBusClientInternal::Batch::kReconnected, __func__);
    return FALSE;
}
