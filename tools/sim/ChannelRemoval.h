// The simulator's answer to a channel removal: the written channel leaves the
// channel list, as it does on the television.
#ifndef LUMORA_SIM_CHANNELREMOVAL_H
#define LUMORA_SIM_CHANNELREMOVAL_H

#include <json/json.h>

#include <string>

#include "internal/ServiceContract.h"

namespace lumora::sim {

/// The channel list the removals change, and the subjects whose writes remove
/// from it: {"major":m,"minor":n,"type":...}, and the same with "service_id".
constexpr const char* kChannelListSubject = lumora::contract::subjects::kChannelList;
constexpr const char* kChannelRemoveSubject = lumora::contract::subjects::kChannelRemove;
constexpr const char* kChannelRemoveWithServiceIdSubject = lumora::contract::subjects::kChannelRemoveWithServiceId;

bool IsChannelRemoval(const std::string& subject);

struct ChannelRemoval {
    Json::Value request;  // the written value as JSON, or the text itself when it is not JSON
    unsigned removed = 0;
    std::string list;  // the channel list's new text; set only when removed > 0
};

/// Applies the removal written to subject (one of the removal subjects) with
/// value input to the channel list's text list. Every "ChList" entry whose
/// "major" and "minor" equal the request's goes, and for a removal by service
/// id only when its "ServiceID" also equals "service_id". A request that names
/// no channel, or a list that is not {"ChList":[...], ...}, removes nothing.
ChannelRemoval RemoveChannels(const std::string& subject, const std::string& input, const std::string& list);

}  // namespace lumora::sim

#endif  // LUMORA_SIM_CHANNELREMOVAL_H
