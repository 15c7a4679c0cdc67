// The Lumora_* plain functions: start and stop, reads, writes, requests and
// subscriptions. Each is a thin wrapper over LMFServiceAPI; no exception
// leaves one, except the two writes that report failure by throwing.
#include <lumora/LMFServiceAPI.h>
#include <lumora/lumora-c.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "internal/Boundary.h"
#include "internal/Brightness.h"
#include "internal/Log.h"
#include "internal/Reentry.h"

using lumora::internal::Guarded;

#define LMF_LOG_DEPRECATED(version) \
    LMF_LOGW("DEPRECATION WARNING: %s() is deprecated and will be removed since API version %s", __func__, version)

namespace {

constexpr const char* kPrivilegedRequester = "nestory";

char* ReadSubject(const char* subject, const char* input) {
    return Guarded("Lumora_Read", static_cast<char*>(nullptr), [&]() -> char* {
        std::string out;
        if (!LMFServiceAPI::Read(subject, input, out)) return nullptr;
        return strdup(out.c_str());
    });
}

bool WriteSubject(const char* subject, const char* data) {
    return Guarded("Lumora_Write", false, [&] { return LMFServiceAPI::Write(subject, data); });
}

// where: the exported function, for the line of an unexpected exception.
bool RequestSubject(const char* where, const char* subject, const char* input, LumoraSubjectCb callback,
                    void* userData) {
    return Guarded(where, false, [&] { return LMFServiceAPI::Request(subject, input, callback, userData); });
}

bool SubscribeSubject(const char* where, const char* subject, LumoraSubjectCb callback, void* userData) {
    return Guarded(where, false, [&] { return LMFServiceAPI::Subscribe(subject, callback, userData); });
}

bool UnsubscribeSubject(const char* where, const char* subject, LumoraSubjectCb callback, void* userData) {
    return Guarded(where, false, [&] { return LMFServiceAPI::Unsubscribe(subject, callback, userData); });
}

// The brightness "Changed" subject of a requester: the plain one for null,
// the EX one for the privileged client, null for anyone else.
const char* BrightnessChangedSubject(const char* where, const char* requester) {
    if (requester == nullptr) return "Ctx/Env/Brightness/Level/Changed";
    return Guarded(where, static_cast<const char*>(nullptr),
                   [requester] { return GetBrightnessExSubject(requester, false); });
}

}  // namespace

const char* GetBrightnessExSubject(const char* requester, bool current) {
    std::string lower(requester);
    for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (lower != kPrivilegedRequester) return nullptr;
    return current ? "Ctx/Env/Brightness/EX/Level/Current" : "Ctx/Env/Brightness/EX/Level/Changed";
}

extern "C" {

bool Lumora_InitService() {
    return Guarded(__func__, false, [] { return LMFServiceAPI::InitService(); });
}

LMF_INIT_RESULT Lumora_InitServiceWithResponse(LumoraInitCb callback, void* userData) {
    return Guarded(__func__, LMF_INIT_CONNECTION_FAILED,
                   [&] { return LMFServiceAPI::InitServiceWithResponse(callback, userData); });
}

bool Lumora_FiniService() {
    return Guarded(__func__, false, [] { return LMFServiceAPI::FiniService(); });
}

char* Lumora_Read(const char* subject, const char* input) { return ReadSubject(subject, input); }

char* Lumora_ReadPrefChannelList(const char* input) { return ReadSubject("Pref/Channel/List", input); }

char* Lumora_ReadPrefChannelListByCurrentSource(const char* input) {
    return ReadSubject("Pref/Channel/List/CurrentSource", input);
}

char* Lumora_ReadPrefChannelListByCurrentSourceMRU(const char* input) {
    return ReadSubject("Pref/Channel/List/CurrentSource/MRU", input);
}

char* Lumora_ReadPrefChannelListWeekTimeTable(const char* input) {
    return ReadSubject("Pref/Channel/List/WeekTimeTable", input);
}

char* Lumora_ReadPrefChannelListByServiceProvider(const char* input) {
    return ReadSubject("Pref/Channel/List/ServiceProvider", input);
}

char* Lumora_ReadCurrentBroadcastProgram(const char* input) {
    return ReadSubject("Ctx/Media/Broadcast/Program/Current", input);
}

char* Lumora_ReadCurrentBroadcastStatus(const char* input) {
    return ReadSubject("Ctx/Media/Broadcast/Status/Current", input);
}

char* Lumora_ReadSTBStatus(const char* input) { return ReadSubject("Ctx/Media/Broadcast/Status/STB", input); }

char* Lumora_ReadCurrentSourceInfo(const char* input) { return ReadSubject("Ctx/Media/Source/Info/Current", input); }

char* Lumora_ReadCurrentAppInfo(const char* input) { return ReadSubject("Ctx/App/Info/Current", input); }

char* Lumora_ReadCurrentVolumeLevel(const char* input) {
    LMF_LOG_DEPRECATED("6.0");
    return ReadSubject("Ctx/Sound/Volume/Level/Current", input);
}

char* Lumora_ReadCurrentSoundOutputStatus(const char* input) {
    return ReadSubject("Ctx/Sound/Output/Status/Current", input);
}

char* Lumora_ReadCurrentSoundOutputMode(const char* input) {
    return ReadSubject("Ctx/Sound/Output/Mode/Current", input);
}

char* Lumora_ReadCurrentSourceStatus(const char* input) { return ReadSubject("Data/Source/Status/Current", input); }

char* Lumora_ReadCurrentStreamingStatus(const char* input) {
    return ReadSubject("Data/Streaming/Status/Current", input);
}

char* Lumora_ReadCurrentBrightnessLevel(const char* requester) {
    if (requester == nullptr) return ReadSubject("Ctx/Env/Brightness/Level/Current", nullptr);
    const char* subject = Guarded(__func__, static_cast<const char*>(nullptr),
                                  [requester] { return GetBrightnessExSubject(requester, true); });
    if (subject == nullptr) {
        LMF_LOGE("Invalid requester");
        return nullptr;
    }
    return ReadSubject(subject, requester);
}

// Failure is reported by exception, as applications built against this
// function have always expected.
bool Lumora_Write(const char* subject, const char* data) {
    if (!WriteSubject(subject, data)) throw std::runtime_error("Lumora_Write Failed");
    return true;
}

bool Lumora_WriteRawStreamingEvent(const char* data) {
    if (!WriteSubject("I/Raw/Streaming/Event", data)) throw std::runtime_error("Lumora_WriteRawStreamingEvent Failed");
    return true;
}

bool Lumora_WriteSelectedItem(const char* data) { return WriteSubject("Raw/Setting/Selected/Item", data); }

// ---- Requests ------------------------------------------------------------------

bool Lumora_Request(const char* subject, const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, subject, input, callback, userData);
}

bool Lumora_RequestPrefChannelList(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Pref/Channel/List", input, callback, userData);
}

bool Lumora_RequestPrefChannelListByCurrentSource(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Pref/Channel/List/CurrentSource", input, callback, userData);
}

bool Lumora_RequestPrefChannelListByCurrentSourceMRU(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Pref/Channel/List/CurrentSource/MRU", input, callback, userData);
}

bool Lumora_RequestPrefChannelListWeekTimeTable(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Pref/Channel/List/WeekTimeTable", input, callback, userData);
}

bool Lumora_RequestPrefChannelListByServiceProvider(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Pref/Channel/List/ServiceProvider", input, callback, userData);
}

bool Lumora_RequestCurrentBroadcastProgram(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Ctx/Media/Broadcast/Program/Current", input, callback, userData);
}

bool Lumora_RequestCurrentBroadcastStatus(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Ctx/Media/Broadcast/Status/Current", input, callback, userData);
}

bool Lumora_RequestSTBStatus(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Ctx/Media/Broadcast/Status/STB", input, callback, userData);
}

bool Lumora_RequestCurrentSourceInfo(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Ctx/Media/Source/Info/Current", input, callback, userData);
}

bool Lumora_RequestCurrentAppInfo(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Ctx/App/Info/Current", input, callback, userData);
}

bool Lumora_RequestCurrentVolumeLevel(const char* input, LumoraSubjectCb callback, void* userData) {
    LMF_LOG_DEPRECATED("6.0");
    return RequestSubject(__func__, "Ctx/Sound/Volume/Level/Current", input, callback, userData);
}

bool Lumora_RequestCurrentSoundOutputStatus(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Ctx/Sound/Output/Status/Current", input, callback, userData);
}

bool Lumora_RequestCurrentSoundOutputMode(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Ctx/Sound/Output/Mode/Current", input, callback, userData);
}

bool Lumora_RequestCurrentSourceStatus(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Data/Source/Status/Current", input, callback, userData);
}

bool Lumora_RequestCurrentStreamingStatus(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Data/Streaming/Status/Current", input, callback, userData);
}

bool Lumora_RequestCurrentBrightnessLevel(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Ctx/Env/Brightness/Level/Current", input, callback, userData);
}

bool Lumora_RequestStatisticApp(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Data/Statistic/App", input, callback, userData);
}

bool Lumora_RequestWeatherInfo(const char* input, LumoraSubjectCb callback, void* userData) {
    return RequestSubject(__func__, "Data/Weather/Forecast", input, callback, userData);
}

// ---- Subscriptions -------------------------------------------------------------

bool Lumora_Subscribe(const char* subject, LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, subject, callback, userData);
}

bool Lumora_Unsubscribe(const char* subject, LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, subject, callback, userData);
}

bool Lumora_SubscribeWithValue(const char* subject, LumoraSubjectCb callback, void* userData) {
    return Guarded(__func__, false, [&] { return LMFServiceAPI::SubscribeWithValue(subject, callback, userData); });
}

bool Lumora_AddAvailabilityCallback(LumoraAvailabilityCb callback, void* userData) {
    return Guarded(__func__, false, [&] { return LMFServiceAPI::AddAvailabilityCallback(callback, userData); });
}

bool Lumora_RemoveAvailabilityCallback(LumoraAvailabilityCb callback, void* userData) {
    return Guarded(__func__, false, [&] { return LMFServiceAPI::RemoveAvailabilityCallback(callback, userData); });
}

unsigned int Lumora_GetRefusedCallCount(void) { return lumora::internal::RefusalCount(); }

bool Lumora_SubscribePrefChannelList(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Pref/Channel/List", callback, userData);
}

bool Lumora_UnsubscribePrefChannelList(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Pref/Channel/List", callback, userData);
}

bool Lumora_SubscribePrefChannelListByCurrentSource(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Pref/Channel/List/CurrentSource", callback, userData);
}

bool Lumora_UnsubscribePrefChannelListByCurrentSource(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Pref/Channel/List/CurrentSource", callback, userData);
}

bool Lumora_SubscribePrefChannelListWeekTimeTable(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Pref/Channel/List/WeekTimeTable", callback, userData);
}

bool Lumora_UnsubscribePrefChannelListWeekTimeTable(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Pref/Channel/List/WeekTimeTable", callback, userData);
}

bool Lumora_SubscribeBroadcastProgram(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Ctx/Media/Broadcast/Program/Changed", callback, userData);
}

bool Lumora_UnsubscribeBroadcastProgram(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Ctx/Media/Broadcast/Program/Changed", callback, userData);
}

bool Lumora_SubscribeBroadcastStatus(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Ctx/Media/Broadcast/Status/Changed", callback, userData);
}

bool Lumora_UnsubscribeBroadcastStatus(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Ctx/Media/Broadcast/Status/Changed", callback, userData);
}

bool Lumora_SubscribeSourceInfo(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Ctx/Media/Source/Changed", callback, userData);
}

bool Lumora_UnsubscribeSourceInfo(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Ctx/Media/Source/Changed", callback, userData);
}

bool Lumora_SubscribeAppInfo(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Ctx/App/Info/Changed", callback, userData);
}

bool Lumora_UnsubscribeAppInfo(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Ctx/App/Info/Changed", callback, userData);
}

bool Lumora_SubscribeVolumeLevel(LumoraSubjectCb callback, void* userData) {
    LMF_LOG_DEPRECATED("6.0");
    return SubscribeSubject(__func__, "Ctx/Sound/Volume/Level/Changed", callback, userData);
}

bool Lumora_UnsubscribeVolumeLevel(LumoraSubjectCb callback, void* userData) {
    LMF_LOG_DEPRECATED("6.0");
    return UnsubscribeSubject(__func__, "Ctx/Sound/Volume/Level/Changed", callback, userData);
}

bool Lumora_SubscribeLKFSValue(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Ctx/Sound/LKFS/Value", callback, userData);
}

bool Lumora_UnsubscribeLKFSValue(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Ctx/Sound/LKFS/Value", callback, userData);
}

bool Lumora_SubscribeSoundOutputStatus(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Ctx/Sound/Output/Status/Changed", callback, userData);
}

bool Lumora_UnsubscribeSoundOutputStatus(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Ctx/Sound/Output/Status/Changed", callback, userData);
}

// Misspelt since the first release; applications link against this name.
bool Lumora_SubscribeSourndOutputMode(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Ctx/Sound/Output/Mode/Changed", callback, userData);
}

bool Lumora_UnsubscribeSourndOutputMode(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Ctx/Sound/Output/Mode/Changed", callback, userData);
}

bool Lumora_SubscribeSourceStatus(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Data/Source/Status/Changed", callback, userData);
}

bool Lumora_UnsubscribeSourceStatus(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Data/Source/Status/Changed", callback, userData);
}

bool Lumora_SubscribeStreamingEvent(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Data/Streaming/Event", callback, userData);
}

bool Lumora_UnsubscribeStreamingEvent(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Data/Streaming/Event", callback, userData);
}

bool Lumora_SubscribeBrightnessLevel(LumoraSubjectCb callback, void* userData) {
    return SubscribeSubject(__func__, "Ctx/Env/Brightness/Level/Changed", callback, userData);
}

bool Lumora_UnsubscribeBrightnessLevel(LumoraSubjectCb callback, void* userData) {
    return UnsubscribeSubject(__func__, "Ctx/Env/Brightness/Level/Changed", callback, userData);
}

// The two refusals log different texts; applications' log filters know both.
bool Lumora_SubscribeBrightnessLevelEx(LumoraSubjectCb callback, const char* requester, void* userData) {
    const char* subject = BrightnessChangedSubject(__func__, requester);
    if (subject == nullptr) {
        LMF_LOGE("Invalid requester");
        return false;
    }
    return SubscribeSubject(__func__, subject, callback, userData);
}

bool Lumora_UnsubscribeBrightnessLevelEx(LumoraSubjectCb callback, const char* requester, void* userData) {
    const char* subject = BrightnessChangedSubject(__func__, requester);
    if (subject == nullptr) {
        LMF_LOGE("Invalid szRequester");
        return false;
    }
    return UnsubscribeSubject(__func__, subject, callback, userData);
}

char* Lumora_ReadRecommendedList(const char* json) {
    return Guarded(__func__, static_cast<char*>(nullptr), [json] { return LMFServiceAPI::ReadRecommendedList(json); });
}

char* Lumora_ReadHintList(const char* requester, const char* type) {
    return Guarded(__func__, static_cast<char*>(nullptr), [&] { return LMFServiceAPI::ReadHintList(requester, type); });
}

bool Lumora_STAction(const char* uri, const char* data) {
    return Guarded(__func__, false, [&] { return LMFServiceAPI::STAction(uri, data); });
}

bool Lumora_WriteItemList(const char* json) {
    return Guarded(__func__, false, [json] { return LMFServiceAPI::WriteItemList(json); });
}

char* Lumora_ReadCurrentVideoStatus() {
    LMF_LOG_DEPRECATED("3.0");
    return nullptr;
}

bool Lumora_RequestCurrentVideoStatus() {
    LMF_LOG_DEPRECATED("3.0");
    return false;
}

bool Lumora_SubscribeVideoStatus() {
    LMF_LOG_DEPRECATED("3.0");
    return false;
}

bool Lumora_UnsubscribeVideoStatus() {
    LMF_LOG_DEPRECATED("3.0");
    return false;
}

}  // extern "C"
