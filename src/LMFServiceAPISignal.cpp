// LMFServiceAPI: typed context signals (one shared bus callback per subject,
// fanned out by _SubscribeCallback) and _SubscribeCb, the bus callback of the
// channel-callback interface.
#define LMF_LOG_UNIT "LMFServiceAPI.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/ContextData.h>
#include <lumora/LMFServiceAPI.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "DBusClientInternal.h"
#include "LMFServiceAPIInternal.h"
#include "internal/Atomic.h"
#include "internal/CallbackGate.h"
#include "internal/Log.h"
#include "internal/Reentry.h"
#include "internal/ServiceContract.h"

using lumora::internal::kClientMutex;
using lumora::internal::kServiceMutex;

namespace {

namespace subjects = lumora::contract::subjects;

bool IsEmpty(const char* text) { return text == nullptr || text[0] == '\0'; }

// Calls the channel callback, marking the thread: m_mutex is held, so an
// operation that takes it is refused instead of hanging the main loop.
void CallChannelCallback(LumoraChannelCb callback, LMF_EVENT_TYPE event, const char* data, int count, void* userData) {
    lumora::internal::CallbackUnderLock marked(kServiceMutex);
    callback(event, std::string(data), count, userData);
}

// The two list subjects: the filtered list when the service says "Success",
// the payload as it came otherwise.
void DeliverChannelList(LumoraChannelCb callback, const char* data, void* userData) {
    ContextData input;
    ContextData output;
    int count = 0;
    if (!input.MakeData(data)) {
        LMF_LOGE_IN("_SubscribeCb", "Json Parsing Failed");
        return;
    }
    if (input.GetValueStr("Status") == "Success") {
        _GetChannelListUsingSrcFilter(input, output, count);
        const char* filtered = output.MakeStr();
        CallChannelCallback(callback, LMF_EVENT_CHANNEL_LIST, filtered != nullptr ? filtered : "", count, userData);
    } else {
        CallChannelCallback(callback, LMF_EVENT_CHANNEL_LIST, data, 0, userData);
    }
}

// The first steps of SubscribeSignal and UnsubscribeSignal (the caller's
// lines): a bus client, and a type that names a subject. An unknown type
// leaves the converter's line and then this one.
bool SubjectOfType(const char* function, ContextSignalType type, std::string& subject) {
    if (lumora::internal::ServiceClient(function) == nullptr) return false;
    subject = LMFServiceAPI::_ConvertSignalTypeToSubject(type);
    if (!subject.empty()) return true;
    LMF_LOGE_IN(function, "can't find type %d", static_cast<int>(type));
    return false;
}

}  // namespace

std::string LMFServiceAPI::_ConvertSignalTypeToSubject(ContextSignalType type) {
    switch (type) {
        case CONTEXT_SIGNAL_MOST_WATCHED:
            return subjects::kChannelList;
        case CONTEXT_SIGNAL_BROADCAST_PROGRAM:
            // The current programme, not ".../Program/Changed": a typed
            // subscriber hears the programme that is on now.
            return subjects::kProgramCurrent;
        case CONTEXT_SIGNAL_STB_STATUS:
            return subjects::kStbStatus;
        default:
            break;
    }
    LMF_LOGE("Can't find type %d", static_cast<int>(type));
    return std::string();
}

bool LMFServiceAPI::SubscribeSignal(ContextSignalType type, LumoraSignalCb callback, void* user_data) {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex | kClientMutex)) return false;
    ContextAutoLock lock(&m_mutex);
    std::string subject;
    if (!SubjectOfType(__func__, type, subject)) return false;
    // One record per subject and callback, whatever the user data.
    if (_FindSubscribeData(subject, callback) != nullptr) {
        LMF_LOGE("already subscribed subject[%s]cb[%p], ", subject.c_str(), reinterpret_cast<void*>(callback));
        return false;
    }
    if (!_InsertSubscribeData(subject, type, callback, user_data)) {
        LMF_LOGE("insert fail!");
        return false;
    }
    if (_CheckSubscribeData(subject) == 1) {
        // The subject's first typed record: the shared callback goes to the
        // bus client once, and fans each signal out to every typed record. A
        // refusal there leaves the record in place, and later records of the
        // subject do not try again.
        return m_pDbusClient->Subscribe(subject.c_str(), _SubscribeCallback, user_data);
    }
    LMF_LOGI("Already registered subject, but it has different callback");
    return true;
}

// The typed callbacks of the subject are waited for once m_mutex is
// released: a running one may take it.
bool LMFServiceAPI::UnsubscribeSignal(ContextSignalType type) {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex | kClientMutex)) return false;
    std::string subject;
    bool result = false;
    {
        ContextAutoLock lock(&m_mutex);
        if (!SubjectOfType(__func__, type, subject)) return false;
        // Every typed callback of the subject goes; there is no way to drop one.
        _RemoveSubscribeData(subject);
        if (_CheckSubscribeData(subject) != 0) {
            LMF_LOGI("Success unsubscribe, but there are another callbacks");
            result = true;
        } else {
            result = DBusClientInternal::UnsubscribeRecord(*m_pDbusClient, subject.c_str(), _SubscribeCallback);
        }
    }
    lumora::internal::CallbackGate::Retire({lumora::internal::CallbackTable::kServiceSignals, subject.c_str()});
    return result;
}

bool LMFServiceAPI::_InsertSubscribeData(std::string subject, ContextSignalType type, LumoraSignalCb callback,
                                         void* user_data) {
    SubscribeData* record = new (std::nothrow) SubscribeData;
    if (record == nullptr) {
        LMF_LOGE("Memory Allocation Failed");
        return false;
    }
    record->subject = std::move(subject);
    record->type = type;
    record->callback = callback;
    record->user_data = user_data;
    g_vSubscribeList.push_back(record);
    return true;
}

SubscribeData* LMFServiceAPI::_FindSubscribeData(std::string subject, LumoraSignalCb callback) {
    auto it = std::find_if(g_vSubscribeList.begin(), g_vSubscribeList.end(), [&](const SubscribeData* record) {
        return record != nullptr && record->subject == subject && record->callback == callback;
    });
    return it != g_vSubscribeList.end() ? *it : nullptr;
}

void LMFServiceAPI::_RemoveSubscribeData(std::string subject) {
    auto& list = g_vSubscribeList;
    auto end = std::remove_if(list.begin(), list.end(), [&](SubscribeData* record) {
        if (record == nullptr || record->subject != subject) return false;
        delete record;
        return true;
    });
    list.erase(end, list.end());
}

void LMFServiceAPI::_RemoveAllSubscribeData() {
    for (SubscribeData* record : g_vSubscribeList) delete record;
    g_vSubscribeList.clear();
}

unsigned int LMFServiceAPI::_CheckSubscribeData(std::string subject) {
    return static_cast<unsigned int>(
        std::count_if(g_vSubscribeList.begin(), g_vSubscribeList.end(),
                      [&](const SubscribeData* record) { return record != nullptr && record->subject == subject; }));
}

// Holds m_mutex to the end, the channel callback's run included, so that the
// callback never runs beside a start or stop of the service.
void LMFServiceAPI::_SubscribeCb(const char* subject, char* data, void* user_data) {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex | kClientMutex)) return;
    ContextAutoLock lock(&m_mutex);
    if (IsEmpty(subject)) {
        LMF_LOGE("subject is null");
        return;
    }
    if (IsEmpty(data)) {
        LMF_LOGE("data is null");
        return;
    }
    LumoraChannelCb callback = lumora::internal::AtomicLoad(m_fnChannelCb);
    if (callback == nullptr) {
        LMF_LOGE("m_fnChannelCb is null");
        return;
    }
    if (strcmp(subject, subjects::kChannelListCurrent) == 0 || strcmp(subject, subjects::kChannelList) == 0) {
        DeliverChannelList(callback, data, user_data);
    } else if (strcmp(subject, subjects::kProgramChanged) == 0) {
        CallChannelCallback(callback, LMF_EVENT_PROGRAM_CHANGED, data, 1, user_data);
    } else if (strcmp(subject, subjects::kStbStatus) == 0) {
        CallChannelCallback(callback, LMF_EVENT_STB_STATUS, data, 1, user_data);
    } else {
        LMF_LOGE("Unknown subject %s", subject);
    }
}
