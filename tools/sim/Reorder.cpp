// Reorder: the candidates sorted by channel number.
#include "Reorder.h"

#include <json/json.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "JsonInput.h"
#include "Scenario.h"

namespace lumora::sim {

// A client's text, read through the tools' checked layer: anything but
// {"reorder":[{"major":m,"minor":n},...]} is no candidate order.
bool ReorderCandidates(const std::string& input, std::string& answer) {
    Json::Value request;
    std::string error;
    if (!tools::ParseJson(input, request, error)) return false;
    const tools::JsonField candidates = tools::JsonField(request)["reorder"];
    if (!candidates.IsArray()) return false;
    std::vector<std::pair<int, int>> channels;
    for (Json::ArrayIndex i = 0; i < candidates.Size(); ++i) {
        int major = 0;
        int minor = 0;
        if (!candidates[i]["major"].ReadInt(major, error) || !candidates[i]["minor"].ReadInt(minor, error))
            return false;
        channels.emplace_back(major, minor);
    }
    std::stable_sort(channels.begin(), channels.end());
    Json::Value result(Json::objectValue);
    Json::Value& order = result["reorder"] = Json::Value(Json::arrayValue);
    for (const auto& [major, minor] : channels) {
        Json::Value channel(Json::objectValue);
        channel["major"] = major;
        channel["minor"] = minor;
        order.append(channel);
    }
    answer = ValueText(result);
    return true;
}

}  // namespace lumora::sim
