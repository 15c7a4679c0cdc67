// LMFServiceAPI: the channel list services. The list is filtered here by the
// source type the application declared; reordering and removal are the
// service's, this side only builds the requests and reads the answers.
#define LMF_LOG_UNIT "LMFServiceAPI.cpp"
#include <lumora/ContextData.h>
#include <lumora/LMFServiceAPI.h>

#include <string>

#include "LMFServiceAPIInternal.h"
#include "internal/Atomic.h"
#include "internal/Log.h"
#include "internal/ServiceContract.h"

namespace {

namespace subjects = lumora::contract::subjects;

// The fixed value that asks the service for its channel list.
constexpr int kChannelListRequest = 13;
// Entries of this channel type are never shown to applications.
constexpr int kHiddenChannelType = 9;
constexpr const char* kEmptyListReason = "The list is empty.";

// A synchronous read of subject for function: the answer into answer, or
// false after the line saying why.
bool ReadAnswer(const char* function, const char* subject, const char* input, std::string& answer) {
    DBusClient* client = lumora::internal::ServiceClient(function);
    return client != nullptr && lumora::internal::ReadValue(LMF_SITE(function), *client, subject, input, answer);
}

// A read of subject with request for function, its answer parsed into
// received: false after the line saying why.
bool ReadDocument(const char* function, const char* subject, ContextData& request, std::string& answer,
                  ContextData& received) {
    const char* text = request.MakeStr();
    if (!ReadAnswer(function, subject, text != nullptr ? text : "", answer)) return false;
    if (received.MakeData(answer.c_str())) return true;
    LMF_LOGE_IN(function, "parsing error");
    return false;
}

bool SourceAdmits(LMF_SRC_TYPE source, const std::string& srcType) {
    switch (source) {
        case LMF_SRC_RF:
            return srcType == "RF";
        case LMF_SRC_STB:
            return srcType == "STB";
        case LMF_SRC_ALL:
            return true;
        default:
            return false;
    }
}

void MarkEmpty(ContextData& out) {
    out.SetValue("Status", "Error");
    out.SetValue("Reason", kEmptyListReason);
}

bool RemoveChannel(const char* function, const char* subject, ContextData& request, LMF_SRC_EXT_TYPE type) {
    DBusClient* client = lumora::internal::ServiceClient(function);
    if (client == nullptr) return false;
    request.SetValue("type", LMFServiceAPI::_ConvertSrcTypeString(type));
    return lumora::internal::WriteDocument(LMF_SITE(function), *client, subject, request);
}

}  // namespace

void _GetChannelListUsingSrcFilter(ContextData& in, ContextData& out, int& count) {
    count = 0;
    int size = in.GetSize("ChList");
    if (size <= 0) {
        out.SetValue("Size", 0);
        MarkEmpty(out);
        return;
    }
    LMF_SRC_TYPE source = LMF_SRC_ALL;
    LMF_MODEL_TYPE model = LMF_MODEL_DEFAULT;
    for (int i = 0; i < size; ++i) {
        ContextData element = in.GetValue("ChList", i);
        std::string srcType = element.GetValueStr("SrcType");
        int chType = -1;
        if (element.IsValid("ChType")) {
            chType = element.GetValueInt("ChType");
        } else {
            // Applications never see a null channel type.
            element.RemoveMember("ChType");
        }
        // Read for every entry: the application may change its source type
        // while a list is being filtered.
        LMFServiceAPI::GetSourceAndModel(source, model);
        if (!SourceAdmits(source, srcType) || chType == kHiddenChannelType) continue;
        out.SetValue("ChList", element);
        ++count;
    }
    out.SetValue("Size", count);
    if (count > 0) {
        out.SetValue("Status", "Success");
    } else {
        MarkEmpty(out);
    }
}

bool LMFServiceAPI::GetChannelList(std::string& list, int& count) {
    ContextData request;
    request.SetValue("list", kChannelListRequest);
    std::string answer;
    ContextData received;
    if (!ReadDocument(__func__, subjects::kChannelList, request, answer, received)) return false;
    if (received.GetValueStr("Status") == "Success") {
        ContextData filtered;
        _GetChannelListUsingSrcFilter(received, filtered, count);
        const char* filteredText = filtered.MakeStr();
        list = filteredText != nullptr ? filteredText : "";
    } else {
        count = 0;
        list = std::move(answer);
    }
    // A list whose filter kept nothing is still an answer: its "Status" says so.
    LMF_LOGI("Output Channel List : %s", list.c_str());
    return true;
}

bool LMFServiceAPI::ReorderChannelList(std::vector<LMF_CHANNEL_ELEM>& channels, int source) {
    if (channels.empty()) {
        LMF_LOGE("Input candidate list is empty!");
        return false;
    }
    ContextData request;
    for (const LMF_CHANNEL_ELEM& channel : channels) {
        ContextData element;
        element.SetValue("major", channel.major);
        element.SetValue("minor", channel.minor);
        request.SetValue("reorder", element);
    }
    request.SetValue("source", source);
    std::string answer;
    ContextData received;
    if (!ReadDocument(__func__, subjects::kChannelReorder, request, answer, received)) return false;
    // The order is wholly the service's; nothing is sorted here.
    channels.clear();
    int size = received.GetSize("reorder");
    for (int i = 0; i < size; ++i) {
        ContextData element = received.GetValue("reorder", i);
        channels.push_back({element.GetValueInt("major"), element.GetValueInt("minor")});
    }
    return true;
}

bool LMFServiceAPI::ReorderChannelListFromSourceID(std::vector<std::string>& /*ids*/) {
    LMF_LOGE("** DEPRECATED FUNCTION : have to use ReorderChannelList function ***");
    return false;
}

std::string LMFServiceAPI::_ConvertSrcTypeString(LMF_SRC_EXT_TYPE type) {
    switch (type) {
        case LMF_SRC_EXT_AIR:
            return "AIR";
        case LMF_SRC_EXT_CABLE:
            return "CABLE";
        case LMF_SRC_EXT_SATELLITE:
            return "SATELLITE";
        case LMF_SRC_EXT_HDMI1:
            return "HDMI1";
        case LMF_SRC_EXT_HDMI2:
            return "HDMI2";
        case LMF_SRC_EXT_HDMI3:
            return "HDMI3";
        case LMF_SRC_EXT_HDMI4:
            return "HDMI4";
        case LMF_SRC_EXT_HDMI5:
            return "HDMI5";
        case LMF_SRC_EXT_HDMI6:
            return "HDMI6";
        default:
            return "Unknown";
    }
}

bool LMFServiceAPI::RemoveChannelFromList(int major, int minor, LMF_SRC_EXT_TYPE type) {
    ContextData request;
    request.SetValue("major", major);
    request.SetValue("minor", minor);
    return RemoveChannel(__func__, subjects::kChannelRemove, request, type);
}

bool LMFServiceAPI::RemoveChannelFromList(int major, int minor, std::string serviceId, LMF_SRC_EXT_TYPE type) {
    if (!lumora::internal::AreSendable(__func__, {{"serviceId", serviceId.c_str()}})) return false;
    ContextData request;
    request.SetValue("major", major);
    request.SetValue("minor", minor);
    request.SetValue("service_id", std::move(serviceId));
    return RemoveChannel(__func__, subjects::kChannelRemoveWithServiceId, request, type);
}

bool LMFServiceAPI::GetCurrentChannelInfo(std::string& info) {
    // The answer is handed back as it came.
    return ReadAnswer(__func__, subjects::kProgramCurrent, lumora::contract::kEmptyJson, info);
}

bool LMFServiceAPI::GetContentsRecognitionStatus(std::string& status) {
    return ReadAnswer(__func__, subjects::kStbStatus, lumora::contract::kEmptyJson, status);
}

bool LMFServiceAPI::RegisterChannelCallback(LumoraChannelCb callback, void* userData) {
    LMF_LOGI("*** this function will be removed soon, you should use SubscribeSignal function ***");
    LMF_LOGI("*** ex) LMFServiceAPI::SubscribeSignal(CONTEXT_SIGNAL_MOST_WATCHED, function, NULL); ***");
    DBusClient* client = lumora::internal::ServiceClient(__func__);
    if (client == nullptr) return false;
    static const char* const kChannelSubjects[] = {subjects::kChannelListCurrent, subjects::kChannelList,
                                                   subjects::kProgramChanged, subjects::kStbStatus};
    int failed = 0;
    for (const char* subject : kChannelSubjects) {
        if (client->Subscribe(subject, _SubscribeCb, userData)) continue;
        LMF_LOGE("Error Subscribe %s", subject);
        ++failed;
    }
    // Only three failures out of four refuse the callback; none, one, two or
    // all four keep it. Applications have long relied on exactly this.
    if (failed == 3) return false;
    // Stored without m_mutex, so that a channel callback may register
    // another; _SubscribeCb reads it atomically.
    lumora::internal::AtomicStore(m_fnChannelCb, callback);
    return true;
}

bool LMFServiceAPI::UnRegisterChannelCallback() {
    DBusClient* client = lumora::internal::ServiceClient(__func__);
    if (client == nullptr) return false;
    // "Pref/Channel/List/Current" stays subscribed and the callback stays
    // stored: a later registration finds them as they were.
    client->Unsubscribe(subjects::kChannelList, _SubscribeCb);
    client->Unsubscribe(subjects::kProgramChanged, _SubscribeCb);
    client->Unsubscribe(subjects::kStbStatus, _SubscribeCb);
    return true;
}
