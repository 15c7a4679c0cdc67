// DBusClient: instance, connection, service readiness, reconnection and the
// three timers that finish that work later from the main loop.
#define LMF_LOG_UNIT "DBusClient.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>
#include <unistd.h>

#include "DBusClientInternal.h"
#include "internal/Atomic.h"
#include "internal/Boundary.h"
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
enum class EnableOutcome { kNotAsked, kFailed, kRefused, kEnabled };
EnableOutcome g_enableOutcome = EnableOutcome::kNotAsked;

}  // namespace

// ---- helpers -----------------------------------------------------------------

GDBusConnection* DBusClientInternal::OpenConnection(GError** error) {
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
                                                                                          : "name-lost";
    g_enableOutcome = EnableOutcome::kNotAsked;
    lumora::internal::ReportServiceUnavailable(reason);
}

void DBusClientInternal::MarkBusConnected(DBusClient& client, bool connected) {
    AtomicStore(client.m_bBusConnected, connected);
}

void DBusClientInternal::ScheduleInitCallback(DBusClient& client) {
    client.m_nInitCbTimerId = g_timeout_add_seconds(kInitCallbackDelaySeconds, InitTimeoutThunk, &client);
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
        return;
    }
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

void DBusClient::DeleteInstance() {
    if (AtomicLoad(m_pInstance) == nullptr) return;
    if (LMF_REFUSED_IN_CALLBACK(lumora::internal::kClientMutex)) return;
    ContextAutoLock lock(&m_clientMutex);
    delete m_pInstance;
    AtomicStore(m_pInstance, static_cast<DBusClient*>(nullptr));
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
    m_vRequestList.clear();
    DBusClientInternal::CountSubscriptions(*this);
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
    ContextAutoLock lock(&m_clientMutex);
    if (!m_vSubscribeList.empty()) __DeleteAllSubscribes();
    if (!m_vRequestList.empty()) __DeleteAllRequests();
    m_vWhiteList.clear();
    RemoveSource(m_nInitCbTimerId);
    RemoveSource(m_nRecheckTimerId);
    if (m_connection != nullptr && !g_dbus_connection_is_closed(m_connection)) {
        DBusClientInternal::StopListening(*this);
        g_dbus_connection_flush_sync(m_connection, nullptr, nullptr);
        // The connection stays open and owned, for the next Initialize; a
        // reconnect timer left from before keeps running.
    } else {
        // A bus lost under the client: the recovery ends with it.
        if (m_connection != nullptr) DBusClientInternal::ForgetConnection(*this);
        RemoveSource(m_nReConnectTimerId);
    }
    m_fnInitCb = nullptr;
    m_pInitUserData = nullptr;
    DBusClientInternal::StopRecovery();
    DBusClientInternal::MarkServiceAvailable(*this, false);
    DBusClientInternal::MarkBusConnected(*this, false);
    m_nRecheckCnt = 0;
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
        bool recovering = DBusClientInternal::Recovering();
        if (recovering) DBusClientInternal::FinishRecovery(*this, __func__);
        lumora::internal::ReportServiceAvailable(recovering ? "reconnected" : "ready");
        m_nRecheckTimerId = 0;
        return FALSE;
    }
    LMF_LOGE("[%s] LMF service isn't available yet ..", name);
    DBusClientInternal::ServiceNotFound(*this);
    // Stops after the eleventh check although the log names ten as the total.
    if (m_nRecheckCnt > kRecheckLimit) {
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
    // Only a process with subscriptions listens and asks the service again
    // here; any other keeps the new connection with its flags as they were,
    // and is brought up by its next Initialize.
    if (m_vSubscribeList.empty()) return FALSE;
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
    DBusClientInternal::ResubscribeAll(*this, __func__);
    DBusClientInternal::ResendPendingRequests(*this, __func__);
    lumora::internal::ReportServiceAvailable("reconnected");
    return FALSE;
}
