// DBusClient: the subscription table, the "Response" signal and the service's
// "HELLO" and "BYE".
#define LMF_LOG_UNIT "DBusClient.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>

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
using lumora::internal::CallbackGate;
using lumora::internal::CallbackMatch;
using lumora::internal::CallbackTable;
using lumora::internal::kClientMutex;

namespace {

constexpr const char* kOnSubscribe = "OnSubscribe";

bool SameSubject(const DBusClientSubscribe* record, const char* subject) {
    return record != nullptr && subject != nullptr && record->subject == subject;
}

// What a signal is delivered to, copied out of the table under the client
// mutex so that the callbacks run without it and a record removed meanwhile
// by another thread is never touched.
struct Delivery {
    LumoraSubjectCb callback;
    void* userData;
    CallbackGate::Ticket ticket;
};

void SendToService(DBusClient& client, int type, const std::string& subject) {
    client.__RequestSync(type, client.__GenerateSeqId(), subject.c_str(), contract::kEmptyJson, nullptr);
}

GMutex g_signalMutex;
// The size of the subscription table, for the steps that run without the
// client mutex (written under it).
std::atomic<size_t> g_nSubscriptions{0};
// Subscribe calls past their listening step and before the end of their
// table step. Guarded by g_signalMutex.
int g_nSubscribing = 0;

guint SubscribeResponseSignal(DBusClient& client, GDBusConnection* connection) {
    // The signals reach the default main context, whatever thread listens.
    lumora::internal::OnDefaultContext onDefault;
    return g_dbus_connection_signal_subscribe(connection, nullptr, contract::kInterface, contract::kSignalResponse,
                                              contract::kObjectPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                              &DBusClient::OnSubscribe, &client, nullptr);
}

}  // namespace

// ---- the "Response" signal -------------------------------------------------------

GMutex* DBusClientInternal::SignalMutex() { return &g_signalMutex; }

bool DBusClientInternal::HasSubscription(const DBusClient& client, const std::string& subject) {
    return client.m_subscribeIndex.count(subject) != 0;
}

void DBusClientInternal::CountSubscriptions(const DBusClient& client) {
    g_nSubscriptions.store(client.m_vSubscribeList.size());
}

// A closed connection is not listened on: GIO would fail to send its match
// rule with a critical. The reconnection listens on the new one. Called with
// the signal mutex held.
guint DBusClientInternal::ListenLocked(DBusClient& client) {
    GDBusConnection* connection = Connection(client);
    if (connection == nullptr || g_dbus_connection_is_closed(connection) || client.m_subscriberID != 0) return 0;
    client.m_subscriberID = SubscribeResponseSignal(client, connection);
    return client.m_subscriberID;
}

void DBusClientInternal::StopListeningLocked(DBusClient& client) {
    GDBusConnection* connection = Connection(client);
    if (connection == nullptr || client.m_subscriberID == 0) return;
    g_dbus_connection_signal_unsubscribe(connection, client.m_subscriberID);
    client.m_subscriberID = 0;
}

guint DBusClientInternal::Listen(DBusClient& client) {
    ContextAutoLock lock(SignalMutex());
    return ListenLocked(client);
}

void DBusClientInternal::StopListening(DBusClient& client) {
    ContextAutoLock lock(SignalMutex());
    StopListeningLocked(client);
}

// The first subscription listens before the service is told, so that no
// notification that follows its subscribe message can be missed.
void DBusClientInternal::BeginSubscribing(DBusClient& client) {
    ContextAutoLock lock(SignalMutex());
    ++g_nSubscribing;
    ListenLocked(client);
}

// Whatever happened meanwhile on other threads, a table that holds a record
// is listened for once its Subscribe ends.
void DBusClientInternal::EndSubscribing(DBusClient& client) {
    ContextAutoLock lock(SignalMutex());
    --g_nSubscribing;
    if (g_nSubscriptions.load() > 0) ListenLocked(client);
}

void DBusClientInternal::StopListeningAfterLastSubscription(DBusClient& client) {
    ContextAutoLock lock(SignalMutex());
    if (g_nSubscriptions.load() != 0 || g_nSubscribing != 0 || lumora::internal::AvailabilityWanted()) return;
    StopListeningLocked(client);
}

// ---- the table -------------------------------------------------------------------

// Neither step before the table's takes the client mutex: a subscription
// never waits behind a read in flight for the bus-connected test or the
// signal subscription.
bool DBusClient::Subscribe(const char* subject, LumoraSubjectCb callback, void* userData) {
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    if (!AtomicLoad(m_bBusConnected)) {
        // Counted as a success although nothing is stored: callers test a
        // bool and have always treated an early subscription this way.
        LMF_LOGE("[%s] Dbus is not connected", m_strProcessName.c_str());
        return true;
    }
    DBusClientInternal::BeginSubscribing(*this);
    struct Ending {
        DBusClient& client;
        ~Ending() { DBusClientInternal::EndSubscribing(client); }
    } ending{*this};
    return __InsertSubscribe(subject, callback, userData);
}

bool DBusClient::__InsertSubscribe(const char* subject, LumoraSubjectCb callback, void* userData) {
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    ContextAutoLock lock(&m_clientMutex);
    if (subject == nullptr) {
        // A programming error, reported as the record's subject string would
        // report it, and before anything is sent.
        LMF_LOGE("[%s] szSubject is null", m_strProcessName.c_str());
        throw std::logic_error("basic_string: construction from null is not valid");
    }
    if (!DBusClientInternal::IsSendable(*this, __func__, subject, nullptr)) return false;
    if (FindSubscribe(subject, callback) != nullptr) {
        LMF_LOGE("Error! %s is already registered", subject);
        return false;
    }
    if (m_bServiceAvailable) {
        if (FindSubscribe(subject) == nullptr) {
            // An unsubscription of the subject still queued by a Finalize
            // would reach the service after this subscription.
            DBusClientInternal::DropQueuedUnsubscribe(subject);
            SendToService(*this, contract::kRequestSubscribe, subject);
            LMF_LOGI("It is first subscribing to LMF, call dbus to subscribe");
        } else {
            LMF_LOGI("There is another request previously, need not to call dbus");
        }
    }
    // The service is told first and the record made second: a failed
    // allocation leaves the service subscribed, which costs only signals.
    DBusClientSubscribe* record = new (std::nothrow) DBusClientSubscribe;
    if (record == nullptr) {
        LMF_LOGE("Memory Allocation Failed");
        return false;
    }
    record->subject = subject;
    record->callback = callback;
    record->userData = userData;
    m_vSubscribeList.push_back(record);
    try {
        m_subscribeIndex[record->subject].push_back(record);
    } catch (...) {
        // The table and the index hold the same records: a record the index
        // has no room for leaves the table again.
        m_vSubscribeList.pop_back();
        delete record;
        throw;
    }
    DBusClientInternal::CountSubscriptions(*this);
    LMF_LOGI("Success to InsertSubscribe(%s)", subject);
    return true;
}

bool DBusClient::Unsubscribe(const char* subject, LumoraSubjectCb callback) {
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    bool removed = DBusClientInternal::UnsubscribeRecord(*this, subject, callback);
    // Once this returns, the pair's callback runs nowhere and never again.
    if (removed && subject != nullptr)
        CallbackGate::Retire({CallbackTable::kBusClient, subject, lumora::internal::CallbackId(callback)});
    return removed;
}

// Unsubscribe's steps. Its lines are Unsubscribe's.
bool DBusClientInternal::UnsubscribeRecord(DBusClient& client, const char* subject, LumoraSubjectCb callback) {
    if (!AtomicLoad(client.m_bBusConnected)) {
        LMF_LOGE_IN("Unsubscribe", "[%s] Dbus is not connected", ProcessName(client));
        return true;
    }
    if (!client.__DeleteSubscribe(subject, callback)) return false;
    StopListeningAfterLastSubscription(client);
    LMF_LOGI_IN("Unsubscribe", "Success to unsubscribe ..");
    return true;
}

bool DBusClient::__DeleteSubscribe(const char* subject, LumoraSubjectCb callback) {
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    ContextAutoLock lock(&m_clientMutex);
    // The index first, while the records it points to still exist; it drops
    // the same records as the table below.
    auto indexed = subject != nullptr ? m_subscribeIndex.find(std::string_view(subject)) : m_subscribeIndex.end();
    if (indexed != m_subscribeIndex.end()) {
        std::vector<DBusClientSubscribe*>& records = indexed->second;
        records.erase(
            std::remove_if(records.begin(), records.end(),
                           [callback](const DBusClientSubscribe* record) { return record->callback == callback; }),
            records.end());
        if (records.empty()) m_subscribeIndex.erase(indexed);
    }
    size_t before = m_vSubscribeList.size();
    auto end = std::remove_if(m_vSubscribeList.begin(), m_vSubscribeList.end(), [&](DBusClientSubscribe* record) {
        if (!SameSubject(record, subject) || record->callback != callback) return false;
        delete record;
        return true;
    });
    m_vSubscribeList.erase(end, m_vSubscribeList.end());
    DBusClientInternal::CountSubscriptions(*this);
    if (m_vSubscribeList.size() == before) {
        LMF_LOGI("Fail to delete subscribe(%s), not found", subject != nullptr ? subject : "(null)");
        return false;
    }
    if (m_bServiceAvailable && FindSubscribe(subject) == nullptr)
        SendToService(*this, contract::kRequestUnsubscribe, subject);
    LMF_LOGI("Success to delete subscribe(%s)", subject);
    return true;
}

DBusClientSubscribe* DBusClient::FindSubscribe(const char* subject) {
    auto it = std::find_if(m_vSubscribeList.begin(), m_vSubscribeList.end(),
                           [subject](DBusClientSubscribe* record) { return SameSubject(record, subject); });
    return it != m_vSubscribeList.end() ? *it : nullptr;
}

DBusClientSubscribe* DBusClient::FindSubscribe(const char* subject, LumoraSubjectCb callback) {
    auto it = std::find_if(m_vSubscribeList.begin(), m_vSubscribeList.end(), [&](DBusClientSubscribe* record) {
        return SameSubject(record, subject) && record->callback == callback;
    });
    return it != m_vSubscribeList.end() ? *it : nullptr;
}

// Runs for every signal, with the client mutex held: the index gives the
// subject's records in their table order without a look at the records of
// any other subject.
bool DBusClient::FindSubscribesVector(const char* subject, std::vector<DBusClientSubscribe*>& out) {
    if (subject == nullptr) return true;
    auto indexed = m_subscribeIndex.find(std::string_view(subject));
    if (indexed != m_subscribeIndex.end()) out.insert(out.end(), indexed->second.begin(), indexed->second.end());
    return true;
}

// Once per record, not per subject: a subject with several local subscribers
// is unsubscribed as often, which the service tolerates. The messages go out
// as a window of calls in flight: a stopped service does not hold up the
// application's last stop for a second per record.
void DBusClient::__DeleteAllSubscribes() {
    DBusClientInternal::CancelReturns();
    if (m_bServiceAvailable) DBusClientInternal::QueueUnsubscribeAll(*this);
    for (DBusClientSubscribe* record : m_vSubscribeList) delete record;
    m_vSubscribeList.clear();
    m_subscribeIndex.clear();
    DBusClientInternal::CountSubscriptions(*this);
}

void DBusClient::OnSubscribe(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*objectPath*/,
                             const gchar* /*interfaceName*/, const gchar* /*signalName*/, GVariant* parameters,
                             gpointer userData) {
    lumora::internal::GuardedVoid(kOnSubscribe, [&] {
        auto* client = static_cast<DBusClient*>(userData);
        // Checked, not assumed: a signal of another shape would make
        // g_variant_get fail with a GLib critical; it is dropped with a line.
        if (client == nullptr || !g_variant_is_of_type(parameters, G_VARIANT_TYPE(contract::kResponseSignal))) {
            LMF_LOGE_IN(kOnSubscribe, "unexpected signal %s, expected %s", g_variant_get_type_string(parameters),
                        contract::kResponseSignal);
            return;
        }
        gint32 unused = 0;
        const gchar* subject = nullptr;
        const gchar* data = nullptr;
        g_variant_get(parameters, "(i&s&s)", &unused, &subject, &data);
        std::vector<Delivery> deliveries;
        {
            ContextAutoLock lock(DBusClientInternal::Mutex());
            std::vector<DBusClientSubscribe*> records;
            client->FindSubscribesVector(subject, records);
            for (const DBusClientSubscribe* record : records) {
                CallbackGate::Ticket ticket = CallbackGate::Admit(
                    {CallbackTable::kBusClient, subject, lumora::internal::CallbackId(record->callback), nullptr});
                deliveries.push_back({record->callback, record->userData, ticket});
            }
        }
        LMF_LOGD_IN(kOnSubscribe, "Subscribes size[%zu]", deliveries.size());
        if (deliveries.empty()) {
            client->SubscribeStateCheck(subject, data);
            return;
        }
        lumora::internal::ReportNotification(subject, data);
        // The callbacks run after the mutex is released, so that they may
        // subscribe and unsubscribe themselves; they get the data as char* but
        // must neither free nor keep it.
        // A record removed meanwhile (by an earlier callback, or another
        // thread) is not called.
        for (const Delivery& delivery : deliveries) {
            lumora::internal::Deliver(delivery.ticket, [&] {
                if (delivery.callback == nullptr) {
                    // Skipped rather than called: a null callback would crash here.
                    LMF_LOGE_IN(kOnSubscribe, "null callback for subject %s skipped", subject);
                    return;
                }
                delivery.callback(subject, const_cast<char*>(data), delivery.userData);
            });
        }
    });
}

bool DBusClient::__GetReqIdFromServerMessage(const char* subject, const char* data, int& reqType) {
    LMF_LOGI("[%s] %s, %s", m_strProcessName.c_str(), subject, data);
    if (strcmp(subject, contract::kHello) == 0) {
        reqType = contract::kRequestSubscribe;
        DBusClientInternal::MarkServiceAvailable(*this, true);
        DBusClientInternal::ScheduleInitCallback(*this);
        __SetWhiteList(data);
        return true;
    }
    if (strcmp(subject, contract::kBye) == 0) {
        reqType = contract::kRequestUnsubscribe;
        DBusClientInternal::MarkServiceAvailable(*this, false);
        return true;
    }
    return false;
}

void DBusClient::SubscribeStateCheck(const char* subject, const char* data) {
    ContextAutoLock lock(&m_clientMutex);
    int reqType = 0;
    if (!__GetReqIdFromServerMessage(subject, data, reqType)) {
        LMF_LOGE("Unknown Message: %s", subject);
        return;
    }
    if (reqType == contract::kRequestUnsubscribe) {  // records and requests wait for "HELLO"
        DBusClientInternal::CancelReturns();
        lumora::internal::ReportServiceUnavailable("bye");
        return;
    }
    if (reqType != contract::kRequestSubscribe) {
        LMF_LOGE("SubscrubeStateCheck Error ..");
        return;
    }
    DBusClientInternal::StopRecovery();  // "HELLO" registers everything again
    // The callbacks hear "hello" once the service answered every
    // subscription, or failed to.
    DBusClientInternal::RegisterAgain(*this, DBusClientInternal::Batch::kHello, __func__);
}
