// LMFServiceAPI: availability callbacks and subscriptions with the current
// value, for the applications started through the service API.
#define LMF_LOG_UNIT "LMFServiceAPI.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/LMFServiceAPI.h>

#include "DBusClientInternal.h"
#include "LMFServiceAPIInternal.h"
#include "internal/Events.h"
#include "internal/Log.h"
#include "internal/Reentry.h"

using lumora::internal::EventOwner;
using lumora::internal::kClientMutex;
using lumora::internal::kServiceMutex;

namespace {

// The bus client of a started service API, or null after one line: "dbus not
// created!" before any start, a line of its own after the last stop. Called
// with m_mutex held.
DBusClient* StartedClient(const char* function) {
    DBusClient* client = lumora::internal::ServiceClient(function);
    if (client != nullptr && LMFServiceAPI::m_nRefCnt <= 0) {
        LMF_LOGE_IN(function, "[%s] the service API is not started: call InitService first",
                    LMFServiceAPI::_GetProcessName());
        return nullptr;
    }
    return client;
}

}  // namespace

// Adding one listens for the service's news, which takes the client mutex:
// refused inside a request's callback.
bool LMFServiceAPI::AddAvailabilityCallback(LumoraAvailabilityCb callback, void* user_data) {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex | kClientMutex)) return false;
    ContextAutoLock lock(&m_mutex);
    if (StartedClient(__func__) == nullptr) return false;
    return lumora::internal::AddAvailabilityListener(LMF_SITE(__func__), EventOwner::kServiceApi, callback, user_data);
}

// The removal waits for a call of the callback running on another thread,
// which may itself take m_mutex: it is made after m_mutex is released.
bool LMFServiceAPI::RemoveAvailabilityCallback(LumoraAvailabilityCb callback, void* user_data) {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex)) return false;
    {
        ContextAutoLock lock(&m_mutex);
        if (StartedClient(__func__) == nullptr) return false;
    }
    return lumora::internal::RemoveAvailabilityListener(LMF_SITE(__func__), EventOwner::kServiceApi, callback,
                                                        user_data);
}

// Subscribed first, asked second: a change after the subscription reaches
// the callback, and an answer older than such a change is dropped. The
// subscription and its follower are made in one section under m_mutex, so
// that an Unsubscribe or a FiniService on another thread finds both or
// neither.
bool LMFServiceAPI::SubscribeWithValue(const char* subject, LumoraSubjectCb callback, void* user_data) {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex | kClientMutex)) return false;
    DBusClient* client = nullptr;
    uint64_t follower = 0;
    {
        ContextAutoLock lock(&m_mutex);
        client = StartedClient(__func__);
        if (client == nullptr) return false;
        if (callback == nullptr) {
            LMF_LOGE("[%s] callback is null", _GetProcessName());
            return false;
        }
        if (!lumora::internal::HasTextValue(LMF_SITE(__func__), subject)) return false;
        if (!lumora::internal::SubscribeLocked("Subscribe", subject, callback, user_data)) return false;
        follower = lumora::internal::FollowCurrentValue(EventOwner::kServiceApi, subject, callback, user_data);
    }
    DBusClientInternal::WatchForEvents(*client);
    lumora::internal::AskCurrentValue(LMF_SITE(__func__), *client, follower);
    return true;
}
