// LMFServiceAPI: counted start and stop, availability, the process name, the
// stored source and model, and the generic read and write.
#define LMF_LOG_UNIT "LMFServiceAPI.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/LMFServiceAPI.h>
#include <lumora/lumora-platform.h>

#include <cerrno>
#include <cstdlib>

#include "DBusClientInternal.h"
#include "LMFServiceAPIInternal.h"
#include "internal/Atomic.h"
#include "internal/CallbackGate.h"
#include "internal/Events.h"
#include "internal/Log.h"
#include "internal/Reentry.h"

std::string LMFServiceAPI::m_strProgName;
LumoraChannelCb LMFServiceAPI::m_fnChannelCb = nullptr;
DBusClient* LMFServiceAPI::m_pDbusClient = nullptr;
int LMFServiceAPI::m_nRefCnt = 0;
GMutex LMFServiceAPI::m_mutex;
std::vector<SubscribeDataNonType*> LMFServiceAPI::g_vSubscribeNonTypeList;
std::vector<SubscribeData*> LMFServiceAPI::g_vSubscribeList;

using lumora::internal::CallbackGate;
using lumora::internal::CallbackTable;
using lumora::internal::kClientMutex;
using lumora::internal::kServiceMutex;

namespace {

constexpr const char* kServiceFeatureKey = "com.kaldor/featureconf/lumora.service_enable";

LMF_SRC_TYPE g_eSourceType = LMF_SRC_ALL;
LMF_MODEL_TYPE g_eModelType = LMF_MODEL_DEFAULT;

bool FiniServiceLocked(bool& finalized);

// An extra start while the service is in use only counts. Returns true when
// that was the case; repairs a count left positive without a client. The
// lines belong to caller, InitService or InitServiceWithResponse.
bool CountAnotherStart(const char* caller) {
    if (LMFServiceAPI::m_nRefCnt <= 0) return false;
    if (LMFServiceAPI::m_pDbusClient != nullptr) {
        ++LMFServiceAPI::m_nRefCnt;
        LMF_LOGE_IN(caller, "[%s] Initialize LMFServiceAPI : There are already created threads ..RefCnt(%d)",
                    LMFServiceAPI::_GetProcessName(), LMFServiceAPI::m_nRefCnt);
        return true;
    }
    LMF_LOGE_IN(caller, "[%s] InitService Error occur, Set RefCnt = 0 // PreRefCnt(%d) m_pDbusClient(%p)",
                LMFServiceAPI::_GetProcessName(), LMFServiceAPI::m_nRefCnt,
                static_cast<void*>(LMFServiceAPI::m_pDbusClient));
    LMFServiceAPI::m_nRefCnt = 0;
    return false;
}

// The first start: the shared client, this process's name, a fresh count.
bool PrepareFirstStart(const char* caller) {
    LMFServiceAPI::m_pDbusClient = DBusClient::GetInstance();
    if (LMFServiceAPI::m_pDbusClient == nullptr) {
        LMF_LOGE_IN(caller, "Memory Allocation Failed");
        return false;
    }
    LMFServiceAPI::m_pDbusClient->SetProcessName(LMFServiceAPI::_GetProcessName());
    ++LMFServiceAPI::m_nRefCnt;
    lumora::internal::AtomicStore(LMFServiceAPI::m_fnChannelCb, static_cast<LumoraChannelCb>(nullptr));
    return true;
}

}  // namespace

DBusClient* lumora::internal::ServiceClient(const char* function) {
    DBusClient* client = LMFServiceAPI::m_pDbusClient;
    if (client == nullptr) LMF_LOGE_IN(function, "dbus not created!");
    return client;
}

bool lumora::internal::AreSendable(const char* function, std::initializer_list<NamedText> texts) {
    const char* invalid = FirstInvalidText(texts);
    if (invalid == nullptr) return true;
    LMF_LOGE_IN(function, "[%s] %s is not valid UTF-8", LMFServiceAPI::_GetProcessName(), invalid);
    return false;
}

// Only internal subjects are guarded; anything else goes through.
bool lumora::internal::MayUseSubject(const char* function, DBusClient& client, const char* subject) {
    if (!LMFServiceAPI::_CheckInternalSubject(subject) || client.CheckWhiteListProcess()) return true;
    LMF_LOGE_IN(function, "This subject is not for external apps .. ");
    return false;
}

extern "C" bool Is_LMFSupported() {
    bool enabled = false;
    if (feature_get_custom_bool(kServiceFeatureKey, &enabled) != 0 || !enabled) return false;
    LMF_LOGE("LMF is Supported in this device");
    return true;
}

bool LMFServiceAPI::InitService() {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex | kClientMutex)) return false;
    ContextAutoLock lock(&m_mutex);
    if (!Is_LMFSupported()) {
        LMF_LOGE("LMF Not Supported in this Device");
        return false;
    }
    LMF_LOGE("[%s] Start LMF InitService", _GetProcessName());
    if (CountAnotherStart(__func__)) return true;
    if (!PrepareFirstStart(__func__)) return false;
    // Readiness is not part of the result: callers ask IsAvailable().
    return m_pDbusClient->Initialize(nullptr, nullptr, nullptr);
}

// Deliberately does not consult the feature switch, unlike InitService.
LMF_INIT_RESULT LMFServiceAPI::InitServiceWithResponse(LumoraInitCb callback, void* userData) {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex | kClientMutex)) return LMF_INIT_CONNECTION_FAILED;
    ContextAutoLock lock(&m_mutex);
    LMF_LOGE("[%s] Start LMF InitService with response func(%p) user_data(%p)", _GetProcessName(),
             reinterpret_cast<void*>(callback), userData);
    if (CountAnotherStart(__func__)) return LMF_INIT_OK;  // the callback is neither stored nor called
    if (!PrepareFirstStart(__func__)) return LMF_INIT_CONNECTION_FAILED;
    LMF_INIT_RESULT result = LMF_INIT_OK;
    bool ret = m_pDbusClient->Initialize(&result, callback, userData);
    LMF_LOGI("Initialize ret(%d) InitResult(%d)", ret, result);
    return result;
}

bool LMFServiceAPI::FiniService() {
    if (LMF_REFUSED_IN_CALLBACK(kServiceMutex | kClientMutex)) return false;
    bool finalized = false;
    bool result = FiniServiceLocked(finalized);
    // Once the last stop returns, no callback of the service API runs
    // anywhere, and none will start. The running ones are waited for after
    // m_mutex is released: they may take it.
    if (finalized) {
        for (CallbackTable table :
             {CallbackTable::kBusClient, CallbackTable::kServiceSignals, CallbackTable::kServiceSubjects,
              CallbackTable::kServiceValues, CallbackTable::kServiceAvailability})
            CallbackGate::Retire({table});
    }
    return result;
}

namespace {

// FiniService's steps under m_mutex; its lines are FiniService's. finalized
// says whether this was the last stop.
bool FiniServiceLocked(bool& finalized) {
    constexpr const char* kFiniService = "FiniService";
    ContextAutoLock lock(&LMFServiceAPI::m_mutex);
    const char* name = LMFServiceAPI::_GetProcessName();
    if (LMFServiceAPI::m_pDbusClient == nullptr) {
        LMF_LOGE_IN(kFiniService, "[%s] FiniService with (m_pDbusClient == NULL) case", name);
        LMFServiceAPI::m_nRefCnt = 0;
        LMF_LOGE_IN(kFiniService, "[%s] End LMF FiniService", LMFServiceAPI::_GetProcessName());
        return false;
    }
    --LMFServiceAPI::m_nRefCnt;
    if (LMFServiceAPI::m_nRefCnt > 0) {
        LMF_LOGE_IN(kFiniService, "[%s] Finalize LMFServiceAPI : Still remain another threads .. RefCnt(%d)", name,
                    LMFServiceAPI::m_nRefCnt);
        return true;
    }
    // The last stop, or one too many: finalise (again) and settle at 0. The
    // client itself is kept, with its open connection, for a later start.
    finalized = true;
    bool result = DBusClientInternal::FinalizeRecords(*LMFServiceAPI::m_pDbusClient);
    LMFServiceAPI::_RemoveAllSubscribeData();
    LMFServiceAPI::_RemoveAllSubscribeDataNonType();
    lumora::internal::DropCurrentValues(lumora::internal::EventOwner::kServiceApi);
    lumora::internal::DropAvailabilityListeners(lumora::internal::EventOwner::kServiceApi);
    LMFServiceAPI::m_nRefCnt = 0;
    lumora::internal::AtomicStore(LMFServiceAPI::m_fnChannelCb, static_cast<LumoraChannelCb>(nullptr));
    LMFServiceAPI::m_strProgName.clear();
    LMF_LOGE_IN(kFiniService, "[%s] End LMF FiniService", LMFServiceAPI::_GetProcessName());
    return result;
}

}  // namespace

bool LMFServiceAPI::IsAvailable() {
    DBusClient* client = lumora::internal::ServiceClient(__func__);
    return client != nullptr && client->IsAvailable();
}

bool LMFServiceAPI::SetSourceAndModel(LMF_SRC_TYPE source, LMF_MODEL_TYPE model) {
    g_eSourceType = source;
    g_eModelType = model;
    LMF_LOGI("SetSourceAndModel : Source[%d] Model[%d]", source, model);
    return true;
}

bool LMFServiceAPI::GetSourceAndModel(LMF_SRC_TYPE& source, LMF_MODEL_TYPE& model) {
    source = g_eSourceType;
    model = g_eModelType;
    return true;
}

const char* LMFServiceAPI::_GetProcessName() {
    if (m_strProgName.empty()) m_strProgName = program_invocation_short_name;
    return m_strProgName.c_str();
}

bool LMFServiceAPI::_CheckInternalSubject(const char* subject) {
    return subject != nullptr && subject[0] == 'I' && subject[1] != '\0';
}

bool LMFServiceAPI::Read(const char* subject, const char* input, std::string& output) {
    if (LMF_REFUSED_IN_CALLBACK(kClientMutex)) return false;
    if (!lumora::internal::AreSendable(__func__, {{"szSubject", subject}, {"input", input}})) return false;
    DBusClient* client = lumora::internal::ServiceClient(__func__);
    if (client == nullptr || !lumora::internal::MayUseSubject(__func__, *client, subject)) return false;
    return lumora::internal::ReadValue(LMF_SITE(__func__), *client, subject, input, output);
}

bool lumora::internal::ReadValue(LogSite site, DBusClient& client, const char* subject, const char* input,
                                 std::string& output) {
    char* text = nullptr;
    int result = client.Read(subject, input, &text);
    if (result != 0) {
        // A service code comes with the service's text, which is not wanted.
        free(text);
        LMF_LOGE_FOR(site, "error %d", result);
        return false;
    }
    if (text == nullptr) {
        LMF_LOGE_FOR(site, "error output is null");
        return false;
    }
    output = text;
    free(text);
    return true;
}

// Writes are not checked against the whitelist, internal subjects included.
bool LMFServiceAPI::Write(const char* subject, const char* input) {
    if (!lumora::internal::AreSendable(__func__, {{"szSubject", subject}, {"input", input}})) return false;
    DBusClient* client = lumora::internal::ServiceClient(__func__);
    return client != nullptr && lumora::internal::WriteValue(LMF_SITE(__func__), *client, subject, input);
}

bool lumora::internal::WriteValue(LogSite site, DBusClient& client, const char* subject, const char* input) {
    int result = client.Write(subject, input);
    if (result == 0) return true;
    LMF_LOGE_FOR(site, "error %d", result);
    return false;
}

bool lumora::internal::WriteDocument(LogSite site, DBusClient& client, const char* subject, ContextData& document) {
    const char* text = document.MakeStr();
    return WriteValue(site, client, subject, text != nullptr ? text : "");
}
