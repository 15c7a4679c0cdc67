// ChannelRemoval: the channel list without the channels a removal names.
#include "ChannelRemoval.h"

#include "Scenario.h"

namespace lumora::sim {

namespace {

// What a removal request names; serviceId is only compared for a removal by
// service id.
struct Target {
    Json::Int64 major = 0;
    Json::Int64 minor = 0;
    bool byServiceId = false;
    std::string serviceId;
};

bool ReadTarget(const Json::Value& request, bool byServiceId, Target& target) {
    if (!request.isObject()) return false;
    const Json::Value& major = request["major"];
    const Json::Value& minor = request["minor"];
    if (!major.isInt64() || !minor.isInt64()) return false;
    target.major = major.asInt64();
    target.minor = minor.asInt64();
    target.byServiceId = byServiceId;
    if (!byServiceId) return true;
    const Json::Value& serviceId = request["service_id"];
    if (!serviceId.isString()) return false;
    target.serviceId = serviceId.asString();
    return true;
}

bool SameNumber(const Json::Value& value, Json::Int64 number) { return value.isInt64() && value.asInt64() == number; }

bool Matches(const Json::Value& entry, const Target& target) {
    if (!entry.isObject() || !SameNumber(entry["major"], target.major) || !SameNumber(entry["minor"], target.minor)) {
        return false;
    }
    if (!target.byServiceId) return true;
    const Json::Value& serviceId = entry["ServiceID"];
    return serviceId.isString() && serviceId.asString() == target.serviceId;
}

}  // namespace

bool IsChannelRemoval(const std::string& subject) {
    return subject == kChannelRemoveSubject || subject == kChannelRemoveWithServiceIdSubject;
}

ChannelRemoval RemoveChannels(const std::string& subject, const std::string& input, const std::string& list) {
    ChannelRemoval removal;
    std::string error;
    if (!ParseJsonText(input, removal.request, error)) removal.request = Json::Value(input);
    Target target;
    if (!ReadTarget(removal.request, subject == kChannelRemoveWithServiceIdSubject, target)) return removal;
    Json::Value channels;
    if (!ParseJsonText(list, channels, error) || !channels.isObject()) return removal;
    const Json::Value& entries = channels["ChList"];
    if (!entries.isArray()) return removal;
    Json::Value kept(Json::arrayValue);
    for (const Json::Value& entry : entries) {
        if (Matches(entry, target)) {
            ++removal.removed;
        } else {
            kept.append(entry);
        }
    }
    if (removal.removed == 0) return removal;
    channels["ChList"] = kept;
    removal.list = ValueText(channels);
    return removal;
}

}  // namespace lumora::sim
