// LumoraAPI: the object interface over the shared bus client, with a callback
// table of its own that fans one bus subscription per subject out to several
// application callbacks.
#include <lumora/ContextAutoLock.h>
#include <lumora/LumoraAPI.h>

#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "LMFServiceAPIInternal.h"
#include "internal/Atomic.h"
#include "internal/Events.h"
#include "internal/Log.h"
#include "internal/Reentry.h"
#include "internal/Text.h"

using lumora::internal::AtomicLoad;
using lumora::internal::AtomicStore;
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
// those still subscribed at unload are freed with it.
struct CallbackTable {
    std::vector<LumoraAPISubscribe*> records;
    // Advanced by every change, so that a notification being delivered can
    // tell whether a callback changed the table under it.
    uint64_t version = 0;

    CallbackTable() = default;
    CallbackTable(const CallbackTable&) = delete;
    CallbackTable& operator=(const CallbackTable&) = delete;
    ~CallbackTable() {
        for (LumoraAPISubscribe* record : records) delete record;
    }
};

CallbackTable g_table;

// Guards the creation and deletion of the instance only.
GMutex g_instanceMutex;

bool Holds(const LumoraAPISubscribe* record, const std::string& subject, LumoraSubjectCb callback, void* userData) {
    return record->subject == subject && record->callback == callback && record->userData == userData;
}

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
// order, each with its own user data. It takes no lock.
//
// The callbacks may subscribe and unsubscribe: the deliveries are taken from
// the table first, and once a callback has changed the table, each remaining
// delivery is made only if its triple is still subscribed. A callback added
// meanwhile hears the next notification, not this one.
void SubscribeDispatcher(const char* subject, char* data, void* /*userData*/) {
    if (subject == nullptr) return;
    struct Delivery {
        LumoraSubjectCb callback;
        void* userData;
    };
    std::vector<Delivery> deliveries;
    for (const LumoraAPISubscribe* record : g_table.records) {
        if (record->subject == subject) deliveries.push_back({record->callback, record->userData});
    }
    const uint64_t version = g_table.version;
    for (const Delivery& delivery : deliveries) {
        if (g_table.version != version && !IsSubscribed(subject, delivery.callback, delivery.userData)) continue;
        if (delivery.callback == nullptr) {
            // Skipped rather than called: a null callback would crash here.
            LMF_LOGE("null callback for subject %s skipped", subject);
            continue;
        }
        delivery.callback(subject, data, delivery.userData);
    }
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
    // The client is kept: a later InitializeService finds it and does not
    // initialise it again.
    return client->Finalize();
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
    if (IsSubscribed(subject, callback, userData)) {
        LMF_LOGE("already subscribed subject[%s]cb[%p]UserData[%p], ", subject.c_str(),
                 reinterpret_cast<void*>(callback), userData);
        return false;
    }
    LumoraAPISubscribe* record = new (std::nothrow) LumoraAPISubscribe;
    if (record == nullptr) {
        LMF_LOGE("Memory Allocation Failed");
        LMF_LOGE("insert fail!");
        return false;
    }
    record->subject = subject;
    record->callback = callback;
    record->userData = userData;
    g_table.records.push_back(record);
    ++g_table.version;
    if (CountSubject(subject) == 1) return client->Subscribe(subject.c_str(), SubscribeDispatcher, userData);
    LMF_LOGI("Already registered subject, but it has different callback");
    return true;
}

bool LumoraAPI::UnSubscribe(std::string subject, LumoraSubjectCb callback, void* userData) {
    DBusClient* client = CreatedClient(__func__);
    if (client == nullptr) return false;
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    std::vector<LumoraAPISubscribe*>& records = g_table.records;
    size_t kept = 0;
    for (LumoraAPISubscribe* record : records) {
        if (Holds(record, subject, callback, userData)) {
            delete record;
        } else {
            records[kept++] = record;
        }
    }
    if (kept != records.size()) {
        records.resize(kept);
        ++g_table.version;
    }
    lumora::internal::ForgetCurrentValue(EventOwner::kObjectInterface, subject, callback, userData);
    if (CountSubject(subject) > 0) {
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

bool LumoraAPI::SubscribeWithValue(std::string subject, LumoraSubjectCb callback, void* userData) {
    DBusClient* client = CreatedClient(__func__);
    if (client == nullptr) return false;
    if (callback == nullptr) {
        LMF_LOGE("callback is null");
        return false;
    }
    if (!lumora::internal::HasTextValue(LMF_SITE(__func__), subject.c_str())) return false;
    if (!Subscribe(subject, callback, userData)) return false;
    lumora::internal::FollowCurrentValue(LMF_SITE(__func__), EventOwner::kObjectInterface, *client, subject, callback,
                                         userData);
    return true;
}

bool LumoraAPI::AddAvailabilityCallback(LumoraAvailabilityCb callback, void* userData) {
    if (CreatedClient(__func__) == nullptr) return false;
    return lumora::internal::AddAvailabilityListener(LMF_SITE(__func__), EventOwner::kObjectInterface, callback,
                                                     userData);
}

bool LumoraAPI::RemoveAvailabilityCallback(LumoraAvailabilityCb callback, void* userData) {
    if (CreatedClient(__func__) == nullptr) return false;
    return lumora::internal::RemoveAvailabilityListener(LMF_SITE(__func__), EventOwner::kObjectInterface, callback,
                                                        userData);
}
