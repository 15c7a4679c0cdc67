// The Lumora_* plain functions: start and stop, reads and writes. Each is a
// thin wrapper over LMFServiceAPI; no exception leaves one, except the two
// writes that report failure by throwing.
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

char* Lumora_ReadRecommendedList(const char* json) {
    return Guarded(__func__, static_cast<char*>(nullptr), [json] { return LMFServiceAPI::ReadRecommendedList(json); });
}

char* Lumora_ReadHintList(const char* requester, const char* type) {
    return Guarded(__func__, static_cast<char*>(nullptr),
                   [&] { return LMFServiceAPI::ReadHintList(requester, type); });
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
