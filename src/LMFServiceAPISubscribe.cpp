// LMFServiceAPI: the asynchronous request, subject subscriptions and the
// fan-out of the shared signal callback to the typed and untyped lists.
#define LMF_LOG_UNIT "LMFServiceAPI.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/LMFServiceAPI.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "DBusClientInternal.h"
#include "LMFServiceAPIInternal.h"
#include "internal/CallbackGate.h"
#include "internal/Events.h"
#include "internal/Log.h"
#include "internal/Reentry.h"

using lumora::internal::CallbackGate;
using lumora::internal::CallbackId;
using lumora::internal::CallbackTable;
using lumora::internal::kClientMutex;
using lumora::internal::kServiceMutex;

namespace {

// Subjects of two characters or fewer are refused. A null subject, and one
// that is not UTF-8 (it could never be sent), are refused the same way.
bool IsValidSubject(const char* subject) {
    return subject != nullptr && strlen(subject) > 2 && g_utf8_validate(subject, -1, nullptr);
}

// Steps shared by Subscribe and Unsubscribe, run under m_mutex: a client, a
// valid subject, and the whitelist for internal subjects. The lines belong
// to the calling operation.
bool MaySubscribe(const char* function, const char* subject) {
    DBusClient* client = lumora::internal::ServiceClient(function);
    if (client == nullptr) return false;
    if (!IsValidSubject(subject)) {
        LMF_LOGE_IN(function, "Invalid subject .. ");
        return false;
    }
    return lumora::internal::MayUseSubject(function, *client, subject);
}

bool SameTriple(const SubscribeDataNonType* record, const std::string& subject, LumoraSubjectCb callback,
                void* userData) {
    return record != nullptr && record->subject == subject && record->callback == callback &&
           record->user_data == userData;
}

// What one signal is handed to, copied under m_mutex so that the callbacks
// run without it and may subscribe and unsubscribe.
struct TypedDelivery {
    ContextSignalType type;
    LumoraSignalCb callback;
    void* userData;
    CallbackGate::Ticket ticket;
};
struct UntypedDelivery {
    std::string subject;
    LumoraSubjectCb callback;
    void* userData;
    CallbackGate::Ticket ticket;
};

}  // namespace

bool LMFServiceAPI::Request(const char* subject, const char* input, LumoraSubjectCb callback, void* userData) {
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    if (!lumora::internal::AreSendable(__func__, {{"szSubject", subject}, {"input", input}})) return false;
    DBusClient* client = lumora::internal::ServiceClient(__func__);
    if (client == nullptr || !lumora::internal::MayUseSubject(__func__, *client, subject)) return false;
    int result = client->Request(subject, input, callback, userData);
    if (result == 0) return true;
    LMF_LOGE("error %d", result);
    return false;
}

bool LMFServiceAPI::Subscribe(const char* subject, LumoraSubjectCb callback, void* user_data) {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex | kClientMutex)) return false;
    ContextAutoLock lock(&m_mutex);
    return lumora::internal::SubscribeLocked(__func__, subject, callback, user_data);
}

bool lumora::internal::SubscribeLocked(const char* function, const char* subject, LumoraSubjectCb callback,
                                       void* userData) {
    if (!MaySubscribe(function, subject)) return false;
    if (LMFServiceAPI::_FindSubscribeDataNonType(subject, callback, userData) != nullptr) {
        LMF_LOGE_IN(function, "already subscribed subject[%s]cb[%p], ", subject, reinterpret_cast<void*>(callback));
        return false;
    }
    if (!LMFServiceAPI::_InsertSubscribeDataNonType(subject, callback, userData)) {
        LMF_LOGE_IN(function, "insert fail!");
        return false;
    }
    if (LMFServiceAPI::_CheckSubscribeDataNonType(subject) == 1) {
        LMF_LOGI_IN(function, "It is first callbacks for subject[%s]", subject);
    } else {
        LMF_LOGI_IN(function, "Already registered subject, but it has different callback");
    }
    // Every new triple goes to the bus client, not only a subject's first: it
    // keeps one record per (subject, callback) and tells the service once. A
    // refusal there leaves this list's record in place.
    return LMFServiceAPI::m_pDbusClient->Subscribe(subject, callback, userData);
}

// The callbacks of what was removed are waited for once m_mutex is released:
// a running one may take it.
bool LMFServiceAPI::Unsubscribe(const char* subject, LumoraSubjectCb callback, void* user_data) {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex | kClientMutex)) return false;
    bool result = false;
    {
        ContextAutoLock lock(&m_mutex);
        if (!MaySubscribe(__func__, subject)) return false;
        // A triple that was never subscribed is not an error here; the bus
        // client decides the result.
        _RemoveSubscribeDataNonType(subject, callback, user_data);
        lumora::internal::ForgetCurrentValue(lumora::internal::EventOwner::kServiceApi, subject, callback, user_data);
        if (_CheckSubscribeDataNonType(subject) != 0) {
            LMF_LOGI("There are another callbacks for subject[%s]", subject);
        } else {
            LMF_LOGI("It was last callbacks for subject[%s]", subject);
        }
        result = DBusClientInternal::UnsubscribeRecord(*m_pDbusClient, subject, callback);
    }
    const void* id = CallbackId(callback);
    CallbackGate::Retire({CallbackTable::kServiceSubjects, subject, id, false, user_data});
    CallbackGate::Retire({CallbackTable::kServiceValues, subject, id, false, user_data});
    if (result) CallbackGate::Retire({CallbackTable::kBusClient, subject, id});
    return result;
}

// The lists are copied under m_mutex and the callbacks called after it is
// released: the callbacks run on the main-loop thread while application
// threads may change the lists, and a callback may itself subscribe.
void LMFServiceAPI::_SubscribeCallback(const char* subject, char* data, void* /*ignored*/) {
    if (subject == nullptr) return;
    std::vector<TypedDelivery> typed;
    std::vector<UntypedDelivery> untyped;
    {
        ContextAutoLock lock(&m_mutex);
        for (const SubscribeData* record : g_vSubscribeList) {
            if (record == nullptr || record->subject != subject) continue;
            CallbackGate::Ticket ticket = CallbackGate::Admit(
                {CallbackTable::kServiceSignals, record->subject, CallbackId(record->callback), record->user_data});
            typed.push_back({record->type, record->callback, record->user_data, ticket});
        }
        for (const SubscribeDataNonType* record : g_vSubscribeNonTypeList) {
            if (record == nullptr || record->subject != subject) continue;
            CallbackGate::Ticket ticket = CallbackGate::Admit(
                {CallbackTable::kServiceSubjects, record->subject, CallbackId(record->callback), record->user_data});
            untyped.push_back({record->subject, record->callback, record->user_data, ticket});
        }
    }
    // Typed records first, then untyped ones, each in insertion order; one
    // removed meanwhile is not called.
    for (const TypedDelivery& delivery : typed) {
        lumora::internal::Deliver(delivery.ticket, [&] {
            if (delivery.callback != nullptr) delivery.callback(delivery.type, data, delivery.userData);
        });
    }
    for (const UntypedDelivery& delivery : untyped) {
        lumora::internal::Deliver(delivery.ticket, [&] {
            if (delivery.callback != nullptr) delivery.callback(delivery.subject.c_str(), data, delivery.userData);
        });
    }
}

bool LMFServiceAPI::_InsertSubscribeDataNonType(std::string subject, LumoraSubjectCb callback, void* user_data) {
    SubscribeDataNonType* record = new (std::nothrow) SubscribeDataNonType;
    if (record == nullptr) {
        LMF_LOGE("Memory Allocation Failed");
        return false;
    }
    record->subject = std::move(subject);
    record->callback = callback;
    record->user_data = user_data;
    g_vSubscribeNonTypeList.push_back(record);
    return true;
}

SubscribeDataNonType* LMFServiceAPI::_FindSubscribeDataNonType(std::string subject, LumoraSubjectCb callback,
                                                               void* user_data) {
    auto it = std::find_if(g_vSubscribeNonTypeList.begin(), g_vSubscribeNonTypeList.end(),
                           [&](const SubscribeDataNonType* r) { return SameTriple(r, subject, callback, user_data); });
    return it != g_vSubscribeNonTypeList.end() ? *it : nullptr;
}

void LMFServiceAPI::_RemoveSubscribeDataNonType(std::string subject, LumoraSubjectCb callback, void* user_data) {
    auto& list = g_vSubscribeNonTypeList;
    auto end = std::remove_if(list.begin(), list.end(), [&](SubscribeDataNonType* record) {
        if (!SameTriple(record, subject, callback, user_data)) return false;
        delete record;
        return true;
    });
    list.erase(end, list.end());
}

void LMFServiceAPI::_RemoveAllSubscribeDataNonType() {
    for (SubscribeDataNonType* record : g_vSubscribeNonTypeList) delete record;
    g_vSubscribeNonTypeList.clear();
}

unsigned int LMFServiceAPI::_CheckSubscribeDataNonType(std::string subject) {
    return static_cast<unsigned int>(
        std::count_if(g_vSubscribeNonTypeList.begin(), g_vSubscribeNonTypeList.end(),
                      [&](const SubscribeDataNonType* r) { return r != nullptr && r->subject == subject; }));
}
