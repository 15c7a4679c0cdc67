// LumoraAPI: the object interface over the shared bus client, with a callback
// table of its own that fans one bus subscription per subject out to several
// application callbacks.
#include <lumora/ContextAutoLock.h>
#include <lumora/LumoraAPI.h>

#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "DBusClientInternal.h"
#include "LMFServiceAPIInternal.h"
#include "internal/Atomic.h"
#include "internal/CallbackGate.h"
#include "internal/Events.h"
#include "internal/Log.h"
#include "internal/Reentry.h"
#include "internal/Text.h"

using lumora::internal::AtomicLoad;
using lumora::internal::AtomicStore;
using lumora::internal::CallbackGate;
using lumora::internal::CallbackId;
using lumora::internal::CallbackTable;
using lumora::internal::EventOwner;
using lumora::internal::kClientMutex;

using lumora::internal::FirstInvalidText;

LumoraAPI* LumoraAPI::m_pInstance = nullptr;
DBusClient* LumoraAPI::m_pDbusClient = nullptr;

namespace {

// One application callback of a subject.
struct LumoraAPISubscribe {
    std::string subject;
    LumoraSubjectCb callback = nullptr;
    void* userData = nullptr;
};

// The callback table, in subscription order. It owns its records, so that
// those still subscribed at unload are freed with it. Guarded by
// g_tableMutex: Subscribe, UnSubscribe and the dispatcher may run on any
// threads at once. The mutex is a leaf but for the current values' and the
// gate's locks; the bus client is called after it is released.
struct SubscriberTable {
    std::vector<LumoraAPISubscribe*> records;

    SubscriberTable() = default;
    SubscriberTable(const SubscriberTable&) = delete;
    SubscriberTable& operator=(const SubscriberTable&) = delete;
    ~SubscriberTable() {
        for (LumoraAPISubscribe* record : records) delete record;
    }
};

GMutex g_tableMutex;
SubscriberTable g_table;

// Guards the creation and deletion of the instance only.
GMutex g_instanceMutex;

bool Holds(const LumoraAPISubscribe* record, const std::string& subject, LumoraSubjectCb callback, void* userData) {
    return record->subject == subject && record->callback == callback && record->userData == userData;
}

// The table helpers below expect g_tableMutex held.
bool IsSubscribed(const std::string& subject, LumoraSubjectCb callback, void* userData) {
    for (const LumoraAPISubscribe* record : g_table.records) {
        if (Holds(record, subject, callback, userData)) return true;
    }
    return false;
}

size_t CountSubject(const std::string& subject) {
    size_t count = 0;
    for (const LumoraAPISubscribe* record : g_table.records) {
        if (record->subject == subject) ++count;
    }
    return count;
}

// The callback that the bus client holds for each subject of the table: it
// hands the notification to every callback of the subject, in subscription
// order, each with its own user data, with no lock held.
//
// The callbacks may subscribe and unsubscribe: the deliveries are taken from
// the table first and admitted at the gate, so that one unsubscribed
// meanwhile (by an earlier callback or another thread) is not made. A
// callback added meanwhile hears the next notification, not this one.
void SubscribeDispatcher(const char* subject, char* data, void* /*userData*/) {
    if (subject == nullptr) return;
    struct Delivery {
        LumoraSubjectCb callback;
        void* userData;
        CallbackGate::Ticket ticket;
    };
    std::vector<Delivery> deliveries;
    {
        ContextAutoLock lock(&g_tableMutex);
        for (const LumoraAPISubscribe* record : g_table.records) {
            if (record->subject != subject) continue;
            CallbackGate::Ticket ticket = CallbackGate::Admit(
                {CallbackTable::kObjectSubjects, record->subject, CallbackId(record->callback), record->userData});
            deliveries.push_back({record->callback, record->userData, ticket});
        }
    }
    for (const Delivery& delivery : deliveries) {
        lumora::internal::Deliver(delivery.ticket, [&] {
            if (delivery.callback == nullptr) {
                // Skipped rather than called: a null callback would crash here.
                LMF_LOGE_IN("SubscribeDispatcher", "null callback for subject %s skipped", subject);
                return;
            }
            delivery.callback(subject, data, delivery.userData);
        });
    }
}

// Subscribe's table step (g_tableMutex held): false after its lines for a
// triple already there or a failed allocation; first says whether it is the
// subject's first callback.
bool InsertRecord(const std::string& subject, LumoraSubjectCb callback, void* userData, bool& first) {
    if (IsSubscribed(subject, callback, userData)) {
        LMF_LOGE_IN("Subscribe", "already subscribed subject[%s]cb[%p]UserData[%p], ", subject.c_str(),
                    reinterpret_cast<void*>(callback), userData);
        return false;
    }
    LumoraAPISubscribe* record = new (std::nothrow) LumoraAPISubscribe;
    if (record == nullptr) {
        LMF_LOGE_IN("Subscribe", "Memory Allocation Failed");
        LMF_LOGE_IN("Subscribe", "insert fail!");
        return false;
    }
    record->subject = subject;
    record->callback = callback;
    record->userData = userData;
    g_table.records.push_back(record);
    first = CountSubject(subject) == 1;
    return true;
}

// The last step of Subscribe, after g_tableMutex is released: the bus client
// is asked for the subject's first callback only.
bool SubscribeClient(DBusClient& client, const std::string& subject, bool first, void* userData) {
    if (first) return client.Subscribe(subject.c_str(), SubscribeDispatcher, userData);
    LMF_LOGI_IN("Subscribe", "Already registered subject, but it has different callback");
    return true;
}

// The bus client that InitializeService took, or null after the line saying
// that it has not been called.
DBusClient* CreatedClient(const char* function) {
    DBusClient* client = AtomicLoad(LumoraAPI::m_pDbusClient);
    if (client == nullptr) LMF_LOGE_IN(function, "dbus not created!, Call InitializeService");
    return client;
}

// Whether the subject and input of a read or write may go on the bus; false
// after the line naming the one that is not valid UTF-8.
bool TextsAreSendable(const char* function, const std::string& subject, const std::string& input) {
    const char* invalid = FirstInvalidText({{"subject", subject.c_str()}, {"input", input.c_str()}});
    if (invalid != nullptr) LMF_LOGE_IN(function, "%s is not valid UTF-8", invalid);
    return invalid == nullptr;
}

}  // namespace

LumoraAPI* LumoraAPI::GetInstance() {
    LumoraAPI* instance = AtomicLoad(m_pInstance);
    if (instance != nullptr) return instance;
    ContextAutoLock lock(&g_instanceMutex);
    if (m_pInstance != nullptr) return m_pInstance;
    instance = new (std::nothrow) LumoraAPI;
    if (instance == nullptr) {
        LMF_LOGE("Memory Allocation Failed");
        return nullptr;
    }
    AtomicStore(m_pInstance, instance);
    // Once per creation: DeleteInstance does nothing when there is no instance.
    atexit(DeleteInstance);
    return instance;
}

void LumoraAPI::DeleteInstance() {
    if (AtomicLoad(m_pInstance) == nullptr) return;
    ContextAutoLock lock(&g_instanceMutex);
    delete m_pInstance;
    AtomicStore(m_pInstance, static_cast<LumoraAPI*>(nullptr));
}

LumoraAPI::~LumoraAPI() = default;

bool LumoraAPI::InitializeService() {
    if (AtomicLoad(m_pDbusClient) != nullptr) {
        LMF_LOGI("already created dbus");
        return true;
    }
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    DBusClient* client = DBusClient::GetInstance();
    if (client == nullptr) {
        LMF_LOGE("Memory Allocation Failed");
        return false;
    }
    AtomicStore(m_pDbusClient, client);
    return client->Initialize(nullptr, nullptr, nullptr);
}

bool LumoraAPI::FinalizeService() {
    DBusClient* client = AtomicLoad(m_pDbusClient);
    if (client == nullptr) {
        LMF_LOGE("already destroyed dbus");
        return false;
    }
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    // The availability callbacks and the current values added here end with
    // it: they would otherwise hear the client that the service API starts
    // again. The callback table is kept, as it always was.
    lumora::internal::DropAvailabilityListeners(EventOwner::kObjectInterface);
    {
        ContextAutoLock lock(&g_tableMutex);
        lumora::internal::DropCurrentValues(EventOwner::kObjectInterface);
    }
    // The client is kept: a later InitializeService finds it and does not
    // initialise it again.
    bool result = client->Finalize();
    CallbackGate::Retire({CallbackTable::kObjectAvailability});
    CallbackGate::Retire({CallbackTable::kObjectValues});
    return result;
}

bool LumoraAPI::Subscribe(std::string subject, LumoraSubjectCb callback, void* userData) {
    DBusClient* client = CreatedClient(__func__);
    if (client == nullptr) return false;
    // Refused before it enters the table, with that line alone: the bus could
    // never carry it.
    if (!g_utf8_validate(subject.c_str(), static_cast<gssize>(subject.size()), nullptr)) {
        LMF_LOGE("subject is not valid UTF-8");
        return false;
    }
    LMF_LOGE("Subscribe [%s][%p][%p]", subject.c_str(), reinterpret_cast<void*>(callback), userData);
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    bool first = false;
    {
        ContextAutoLock lock(&g_tableMutex);
        if (!InsertRecord(subject, callback, userData, first)) return false;
    }
    return SubscribeClient(*client, subject, first, userData);
}

// The callbacks of the removed triple are waited for once the table's mutex
// is released: a running one may subscribe.
bool LumoraAPI::UnSubscribe(std::string subject, LumoraSubjectCb callback, void* userData) {
    DBusClient* client = CreatedClient(__func__);
    if (client == nullptr) return false;
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    size_t left = 0;
    {
        ContextAutoLock lock(&g_tableMutex);
        std::vector<LumoraAPISubscribe*>& records = g_table.records;
        size_t kept = 0;
        for (LumoraAPISubscribe* record : records) {
            if (Holds(record, subject, callback, userData)) {
                delete record;
            } else {
                records[kept++] = record;
            }
        }
        records.resize(kept);
        lumora::internal::ForgetCurrentValue(EventOwner::kObjectInterface, subject, callback, userData);
        left = CountSubject(subject);
    }
    const void* id = CallbackId(callback);
    CallbackGate::Retire({CallbackTable::kObjectSubjects, subject.c_str(), id, false, userData});
    CallbackGate::Retire({CallbackTable::kObjectValues, subject.c_str(), id, false, userData});
    if (left > 0) {
        LMF_LOGI("Success unsubscribe, but there are another callbacks");
        return true;
    }
    // Left as callers know it: the client holds the dispatcher, not callback, so it removes nothing.
    return client->Unsubscribe(subject.c_str(), callback);
}

bool LumoraAPI::Read(std::string subject, std::string input, std::string& output) {
    DBusClient* client = CreatedClient(__func__);
    if (client == nullptr) return false;
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    if (!TextsAreSendable(__func__, subject, input)) return false;
    return lumora::internal::ReadValue(LMF_SITE(__func__), *client, subject.c_str(), input.c_str(), output);
}

bool LumoraAPI::Write(std::string subject, std::string input) {
    DBusClient* client = CreatedClient(__func__);
    if (client == nullptr) return false;
    if (!TextsAreSendable(__func__, subject, input)) return false;
    return lumora::internal::WriteValue(LMF_SITE(__func__), *client, subject.c_str(), input.c_str());
}

bool LumoraAPI::IsAvailable() {
    DBusClient* client = CreatedClient(__func__);
    if (client == nullptr) return false;
    return client->IsAvailable();
}

// The record and its follower are made in one section under the table's
// mutex, so that an UnSubscribe on another thread finds both or neither;
// the value is asked once the subscription reached the bus client.
bool LumoraAPI::SubscribeWithValue(std::string subject, LumoraSubjectCb callback, void* userData) {
    DBusClient* client = CreatedClient(__func__);
    if (client == nullptr) return false;
    if (callback == nullptr) {
        LMF_LOGE("callback is null");
        return false;
    }
    if (!lumora::internal::HasTextValue(LMF_SITE(__func__), subject.c_str())) return false;
    if (!g_utf8_validate(subject.c_str(), static_cast<gssize>(subject.size()), nullptr)) {
        LMF_LOGE("subject is not valid UTF-8");
        return false;
    }
    LMF_LOGE_IN("Subscribe", "Subscribe [%s][%p][%p]", subject.c_str(), reinterpret_cast<void*>(callback), userData);
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    bool first = false;
    uint64_t follower = 0;
    {
        ContextAutoLock lock(&g_tableMutex);
        if (!InsertRecord(subject, callback, userData, first)) return false;
        follower = lumora::internal::FollowCurrentValue(EventOwner::kObjectInterface, subject, callback, userData);
    }
    if (!SubscribeClient(*client, subject, first, userData)) return false;
    DBusClientInternal::WatchForEvents(*client);
    lumora::internal::AskCurrentValue(LMF_SITE(__func__), *client, follower);
    return true;
}

// Adding one listens for the service's news, which takes the client mutex:
// refused inside a request's callback.
bool LumoraAPI::AddAvailabilityCallback(LumoraAvailabilityCb callback, void* userData) {
    if (CreatedClient(__func__) == nullptr) return false;
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    return lumora::internal::AddAvailabilityListener(LMF_SITE(__func__), EventOwner::kObjectInterface, callback,
                                                     userData);
}

bool LumoraAPI::RemoveAvailabilityCallback(LumoraAvailabilityCb callback, void* userData) {
    if (CreatedClient(__func__) == nullptr) return false;
    return lumora::internal::RemoveAvailabilityListener(LMF_SITE(__func__), EventOwner::kObjectInterface, callback,
                                                        userData);
}
