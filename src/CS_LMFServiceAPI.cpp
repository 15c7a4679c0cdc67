// The CS_* plain functions: a second set of entry points with the argument
// lists of the Lumora_* ones. Each is a function of its own, not an alias.
#include <lumora/LMFServiceAPI.h>
#include <lumora/lumora-c.h>

#include <cstring>
#include <string>

#include "internal/Boundary.h"
#include "internal/Log.h"

using lumora::internal::Guarded;

extern "C" {

bool CS_InitService() {
    return Guarded(__func__, false, [] { return LMFServiceAPI::InitService(); });
}

bool CS_FiniService() {
    return Guarded(__func__, false, [] { return LMFServiceAPI::FiniService(); });
}

char* CS_Lumora_Read(const char* subject, const char* input) {
    return Guarded(__func__, static_cast<char*>(nullptr), [&]() -> char* {
        std::string out;
        if (!LMFServiceAPI::Read(subject, input, out)) return nullptr;
        return strdup(out.c_str());
    });
}

// Unlike Lumora_Write, reports failure by its result.
bool CS_Lumora_Write(const char* subject, const char* data) {
    return Guarded(__func__, false, [&] { return LMFServiceAPI::Write(subject, data); });
}

// Success is logged at error priority, where the log filters of the
// applications that use the CS_ forms look for it.
bool CS_Lumora_Request(const char* subject, const char* input, LumoraSubjectCb callback, void* userData) {
    bool result = Guarded(__func__, false, [&] { return LMFServiceAPI::Request(subject, input, callback, userData); });
    if (result) LMF_LOGE("call CS_Lumora_Request!");
    return result;
}

bool CS_Lumora_Subscribe(const char* subject, LumoraSubjectCb callback, void* userData) {
    bool result = Guarded(__func__, false, [&] { return LMFServiceAPI::Subscribe(subject, callback, userData); });
    if (result) LMF_LOGE("call CS_Lumora_Subscribe!");
    return result;
}

bool CS_Lumora_Unsubscribe(const char* subject, LumoraSubjectCb callback, void* userData) {
    return Guarded(__func__, false, [&] { return LMFServiceAPI::Unsubscribe(subject, callback, userData); });
}

char* CS_Lumora_ReadRecommendedList(const char* json) {
    return Guarded(__func__, static_cast<char*>(nullptr), [json] { return LMFServiceAPI::ReadRecommendedList(json); });
}

char* CS_Lumora_ReadHintList(const char* requester, const char* type) {
    return Guarded(__func__, static_cast<char*>(nullptr), [&] { return LMFServiceAPI::ReadHintList(requester, type); });
}

bool CS_WriteItemList(const char* json) {
    return Guarded(__func__, false, [json] { return LMFServiceAPI::WriteItemList(json); });
}

bool CS_SetSourceAndModel(LMF_SRC_TYPE source, LMF_MODEL_TYPE model) {
    return LMFServiceAPI::SetSourceAndModel(source, model);
}

bool CS_GetSourceAndModel(LMF_SRC_TYPE* source, LMF_MODEL_TYPE* model) {
    if (source == nullptr || model == nullptr) return false;
    return LMFServiceAPI::GetSourceAndModel(*source, *model);
}

}  // extern "C"
