// ChannelRemoval: the channel list without the channels a removal names.
#include "ChannelRemoval.h"

#include <climits>

#include "JsonInput.h"
#include "Scenario.h"

namespace lumora::sim {

namespace {

using tools::JsonField;

// What a removal request names; serviceId is only compared for a removal by
// service id.
struct Target {
    Json::Int64 major = 0;
    Json::Int64 minor = 0;
    bool byServiceId = false;
    std::string serviceId;
};

// A client's request and the list's entries are read through the tools'
// checked layer: what is not as expected names no channel, or no match.
bool ReadTarget(const JsonField& request, bool byServiceId, Target& target) {
    std::string why;
    long long major = 0;
    long long minor = 0;
    if (!request["major"].ReadIntIn(major, LLONG_MIN, LLONG_MAX, why) ||
        !request["minor"].ReadIntIn(minor, LLONG_MIN, LLONG_MAX, why)) {
        return false;
    }
    target.major = major;
    target.minor = minor;
    target.byServiceId = byServiceId;
    return !byServiceId || request["service_id"].ReadText(target.serviceId, why);
}

bool SameNumber(const JsonField& value, Json::Int64 number) {
    long long read = 0;
    std::string why;
    return value.ReadIntIn(read, LLONG_MIN, LLONG_MAX, why) && read == number;
}

bool Matches(const JsonField& entry, const Target& target) {
    if (!SameNumber(entry["major"], target.major) || !SameNumber(entry["minor"], target.minor)) return false;
    return !target.byServiceId || (entry["ServiceID"].IsText() && entry["ServiceID"].TextOr("") == target.serviceId);
}

}  // namespace

bool IsChannelRemoval(const std::string& subject) {
    return subject == kChannelRemoveSubject || subject == kChannelRemoveWithServiceIdSubject;
}

ChannelRemoval RemoveChannels(const std::string& subject, const std::string& input, const std::string& list) {
    ChannelRemoval removal;
    std::string error;
    if (!tools::ParseJson(input, removal.request, error)) removal.request = Json::Value(input);
    Target target;
    if (!ReadTarget(JsonField(removal.request), subject == kChannelRemoveWithServiceIdSubject, target)) return removal;
    Json::Value channels;
    if (!tools::ParseJson(list, channels, error) || !channels.isObject()) return removal;
    const JsonField entries = JsonField(channels)["ChList"];
    if (!entries.IsArray()) return removal;
    Json::Value kept(Json::arrayValue);
    for (Json::ArrayIndex i = 0; i < entries.Size(); ++i) {
        if (Matches(entries[i], target)) {
            ++removal.removed;
        } else {
            kept.append(entries[i].Value());
        }
    }
    if (removal.removed == 0) return removal;
    channels["ChList"] = kept;
    removal.list = ValueText(channels);
    return removal;
}

}  // namespace lumora::sim
