// Reorder: the candidates sorted by channel number.
#include "Reorder.h"

#include <json/json.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "Scenario.h"

namespace lumora::sim {

namespace {

bool IsChannel(const Json::Value& element) {
    return element.isObject() && element["major"].isInt() && element["minor"].isInt();
}

}  // namespace

bool ReorderCandidates(const std::string& input, std::string& answer) {
    Json::Value request;
    std::string error;
    if (!ParseJsonText(input, request, error) || !request.isObject() || !request["reorder"].isArray()) return false;
    std::vector<std::pair<int, int>> channels;
    for (const Json::Value& element : request["reorder"]) {
        if (!IsChannel(element)) return false;
        channels.emplace_back(element["major"].asInt(), element["minor"].asInt());
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
