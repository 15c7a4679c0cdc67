// The CS_* plain functions: a second set of entry points with the argument
// lists of the Lumora_* ones. Each is a function of its own, not an alias.
#include <json/json.h>
#include <lumora/LMFServiceAPI.h>
#include <lumora/lumora-c.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "internal/Atomic.h"
#include "internal/Boundary.h"
#include "internal/Log.h"
#include "internal/Text.h"

using lumora::internal::AtomicLoad;
using lumora::internal::AtomicStore;
using lumora::internal::Guarded;

namespace {

// The C channel callback; read by the bridge on the main-loop thread.
LumoraChannelEventCb g_fnChannelCCb = nullptr;

// The bridge that CS_RegisterChannelCallback registers: hands each event on
// with a copy of the data that the application owns.
void _ChannelCallbackFunction(LMF_EVENT_TYPE event, std::string data, int count, void* userData) {
    LumoraChannelEventCb callback = AtomicLoad(g_fnChannelCCb);
    if (callback == nullptr) return;
    LMF_LOGE("call! _ChannelCallbackFunction : %d", static_cast<int>(event));
    callback(event, strdup(data.c_str()), count, userData);
}

// A member as an int, 0 when it is missing or no number in int's range (as a
// missing "major" reads).
int ChannelNumber(const Json::Value& element, const char* key) {
    if (!element.isObject()) return 0;
    const Json::Value* member = element.find(key, key + strlen(key));
    return member != nullptr && member->isConvertibleTo(Json::intValue) ? member->asInt() : 0;
}

// The candidates of a reorder input: one channel per element of an array;
// anything else holds none.
std::vector<LMF_CHANNEL_ELEM> Candidates(const Json::Value& root) {
    std::vector<LMF_CHANNEL_ELEM> channels;
    if (!root.isArray()) return channels;
    for (Json::ArrayIndex i = 0; i < root.size(); ++i)
        channels.push_back({ChannelNumber(root[i], "major"), ChannelNumber(root[i], "minor")});
    return channels;
}

// One line; an empty order writes "null", as the array only comes to be with
// its first element.
std::string OrderText(const std::vector<LMF_CHANNEL_ELEM>& channels) {
    Json::Value order;
    for (const LMF_CHANNEL_ELEM& channel : channels) {
        Json::Value element;
        element["major"] = channel.major;
        element["minor"] = channel.minor;
        order.append(element);
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, order);
}

char* CopyOf(const std::string& text) { return strdup(text.c_str()); }

}  // namespace

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

char* CS_GetChannelList(int* count) {
    return Guarded(__func__, static_cast<char*>(nullptr), [count]() -> char* {
        std::string list;
        int kept = 0;
        bool ok = LMFServiceAPI::GetChannelList(list, kept);
        if (count != nullptr) *count = ok ? kept : 0;
        return ok ? CopyOf(list) : nullptr;
    });
}

char* CS_GetCurrentChannelInfo() {
    return Guarded(__func__, static_cast<char*>(nullptr), []() -> char* {
        std::string info;
        return LMFServiceAPI::GetCurrentChannelInfo(info) ? CopyOf(info) : nullptr;
    });
}

char* CS_ReorderChannelList(const char* channel_list, int source) {
    return Guarded(__func__, static_cast<char*>(nullptr), [channel_list, source]() -> char* {
        if (channel_list == nullptr) {
            LMF_LOGE_IN("CS_ReorderChannelList", "channel_list is NULL");
            return nullptr;
        }
        // Refused like an input that does not parse, although jsoncpp would
        // take such bytes inside a string.
        if (lumora::internal::FirstInvalidText({{"channel_list", channel_list}}) != nullptr) {
            LMF_LOGE_IN("CS_ReorderChannelList", "channel_list is not valid UTF-8");
            return nullptr;
        }
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value root;
        std::string errors;
        if (!reader->parse(channel_list, channel_list + strlen(channel_list), &root, &errors)) {
            LMF_LOGE_IN("CS_ReorderChannelList", "Parse json Err");
            return nullptr;
        }
        std::vector<LMF_CHANNEL_ELEM> channels = Candidates(root);
        if (!LMFServiceAPI::ReorderChannelList(channels, source)) {
            LMF_LOGE_IN("CS_ReorderChannelList", "Reorder Error ..");
            return nullptr;
        }
        std::string text = OrderText(channels);
        LMF_LOGI_IN("CS_ReorderChannelList", "Out ChList : %s", text.c_str());
        return CopyOf(text);
    });
}

bool CS_RemoveChannelFromList(int major, int minor, LMF_SRC_EXT_TYPE type) {
    return Guarded(__func__, false, [=] { return LMFServiceAPI::RemoveChannelFromList(major, minor, type); });
}

// A null serviceId is the string constructor's error, caught at the boundary.
// The service id becomes a std::string outside the boundary guard, with no
// null test: a null one is a programming error that the standard library's
// std::logic_error reports to the caller, as it always has.
bool CS_RemoveChannelFromListWithServiceID(int major, int minor, const char* serviceId, LMF_SRC_EXT_TYPE type) {
    if (serviceId == nullptr) {
        LMF_LOGE("serviceId is null");
        throw std::logic_error("basic_string: construction from null is not valid");
    }
    std::string id(serviceId);
    return Guarded(__func__, false, [&] { return LMFServiceAPI::RemoveChannelFromList(major, minor, id, type); });
}

bool CS_RegisterChannelCallback(LumoraChannelEventCb cCallback, void* userData) {
    return Guarded(__func__, false, [=] {
        if (!LMFServiceAPI::RegisterChannelCallback(_ChannelCallbackFunction, userData)) return false;
        LMF_LOGE_IN("CS_RegisterChannelCallback", "call CS_RegisterChannelCallback!");
        AtomicStore(g_fnChannelCCb, cCallback);
        return true;
    });
}

// The C callback goes first, so that no event reaches it once this returns.
bool CS_UnRegisterChannelCallback() {
    AtomicStore(g_fnChannelCCb, static_cast<LumoraChannelEventCb>(nullptr));
    return Guarded(__func__, false, [] { return LMFServiceAPI::UnRegisterChannelCallback(); });
}

bool CS_SetFirstscreenAction(const char* componentId, const char* jsonData) {
    return Guarded(__func__, false, [=] { return LMFServiceAPI::SetFirstscreenAction(componentId, jsonData); });
}

}  // extern "C"
