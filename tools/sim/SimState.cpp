// SimState: lookups with the service's defaults, and the subscription table.
#include "SimState.h"

#include <algorithm>

#include "JsonInput.h"
#include "internal/ServiceContract.h"

namespace lumora::sim {

namespace {

template <typename T>
Json::Value MapToJson(const std::map<std::string, T>& map) {
    Json::Value object(Json::objectValue);
    for (const auto& [key, value] : map) object[key] = value;
    return object;
}

// A process as the call log shows it: its pid, and its name when it still runs.
void AddProcess(Json::Value& call, gint32 pid) {
    call["pid"] = pid;
    gchar* path = g_strdup_printf("/proc/%d/comm", pid);
    gchar* comm = nullptr;
    if (pid > 0 && g_file_get_contents(path, &comm, nullptr, nullptr)) call["process"] = g_strstrip(comm);
    g_free(comm);
    g_free(path);
}

}  // namespace

std::string SimState::Value(const std::string& subject) const {
    auto it = m_scenario.values.find(subject);
    return it == m_scenario.values.end() ? lumora::contract::kEmptyJson : it->second;
}

void SimState::SetResultCode(const std::string& subject, int code) {
    if (code == 0) {
        m_scenario.resultCodes.erase(subject);
    } else {
        m_scenario.resultCodes[subject] = code;
    }
    Changed();
}

void SimState::SetDelayMs(const std::string& subject, unsigned delayMs) {
    if (delayMs == 0) {
        m_scenario.delaysMs.erase(subject);
    } else {
        m_scenario.delaysMs[subject] = delayMs;
    }
    Changed();
}

const Json::Value& SimState::Statistics(const std::string& subject) const {
    static const Json::Value kNone;
    auto it = m_scenario.statistics.find(subject);
    return it == m_scenario.statistics.end() ? kNone : it->second;
}

void SimState::SetWhiteListText(const std::string& text) {
    // The form the service sends, {"WhiteList":["name", ...]}; any other text
    // is sent all the same, and shows no names.
    std::vector<std::string> names;
    Json::Value parsed;
    std::string why;
    if (tools::ParseJson(text, parsed, why, tools::JsonDialect::kStrict)) {
        const tools::JsonField list = tools::JsonField(parsed)["WhiteList"];
        for (Json::ArrayIndex i = 0; i < list.Size(); ++i) {
            std::string name;
            if (list[i].ReadText(name, why)) names.push_back(name);
        }
    }
    m_scenario.whiteList = std::move(names);
    m_whiteListText = text;
    Changed();
}

void SimState::Subscribe(const std::string& subject, const std::string& client, gint32 pid) {
    std::vector<std::string>& clients = m_subscribers[subject];
    if (std::find(clients.begin(), clients.end(), client) == clients.end()) clients.push_back(client);
    // Named once, while the process surely runs: /proc may not know it later.
    if (m_clients.count(client) == 0) {
        Json::Value named(Json::objectValue);
        if (pid > 0) AddProcess(named, pid);
        m_clients[client] = std::move(named);
    }
    Changed();
}

Json::Value SimState::SubscribedClients() const {
    Json::Value clients(Json::objectValue);
    for (const auto& [client, named] : m_clients) clients[client] = named;
    return clients;
}

void SimState::ForgetUnsubscribed(const std::string& client) {
    for (const auto& [subject, clients] : m_subscribers) {
        if (std::find(clients.begin(), clients.end(), client) != clients.end()) return;
    }
    m_clients.erase(client);
}

void SimState::Unsubscribe(const std::string& subject, const std::string& client) {
    auto it = m_subscribers.find(subject);
    if (it == m_subscribers.end()) return;
    it->second.erase(std::remove(it->second.begin(), it->second.end(), client), it->second.end());
    if (it->second.empty()) m_subscribers.erase(it);
    ForgetUnsubscribed(client);
    Changed();
}

void SimState::DropClient(const std::string& client) {
    for (auto it = m_subscribers.begin(); it != m_subscribers.end();) {
        it->second.erase(std::remove(it->second.begin(), it->second.end(), client), it->second.end());
        it = it->second.empty() ? m_subscribers.erase(it) : std::next(it);
    }
    m_clients.erase(client);
    Changed();
}

std::vector<std::string> SimState::Subscribers(const std::string& subject) const {
    auto it = m_subscribers.find(subject);
    return it == m_subscribers.end() ? std::vector<std::string>() : it->second;
}

void SimState::RecordChannelRemoval(const std::string& subject, const Json::Value& request, unsigned removed) {
    Json::Value record(Json::objectValue);
    record["subject"] = subject;
    record["request"] = request;
    record["removed"] = removed;
    m_channelRemovals.append(record);
    Changed();
}

Json::Value SimState::ToJson() const {
    Json::Value status(Json::objectValue);
    if (!m_replay.isNull()) status["replay"] = m_replay;
    status["enabled"] = m_scenario.enabled;
    status["broadcastResponses"] = m_scenario.broadcastResponses;
    Json::Value& whiteList = status["whiteList"] = Json::Value(Json::arrayValue);
    for (const std::string& name : m_scenario.whiteList) whiteList.append(name);
    if (m_whiteListText) status["whiteListText"] = *m_whiteListText;
    status["values"] = MapToJson(m_scenario.values);
    status["resultCodes"] = MapToJson(m_scenario.resultCodes);
    status["delaysMs"] = MapToJson(m_scenario.delaysMs);
    status["statistics"] = MapToJson(m_scenario.statistics);
    Json::Value& subscriptions = status["subscriptions"] = Json::Value(Json::objectValue);
    for (const auto& [subject, clients] : m_subscribers) {
        Json::Value& list = subscriptions[subject] = Json::Value(Json::arrayValue);
        for (const std::string& client : clients) list.append(client);
    }
    status["channelRemovals"] = m_channelRemovals;
    return status;
}

void SimState::NameCaller(const std::string& sender, guint32 pid) {
    bool named = false;
    for (Json::Value& call : m_calls) {
        if (call.isMember("pid") || call["sender"] != Json::Value(sender)) continue;
        AddProcess(call, static_cast<gint32>(pid));
        named = true;
    }
    if (named) Changed();
}

Json::Value SimState::RecentCalls() const {
    Json::Value calls(Json::arrayValue);
    for (const Json::Value& call : m_calls) calls.append(call);
    return calls;
}

void SimState::RecordCall(const std::string& sender, const std::string& method, GVariant* parameters,
                          guint32 callerPid) {
    // Nobody shows them without a listener: every call would pay for nothing.
    if (!m_onChange) return;
    Json::Value call(Json::objectValue);
    call["n"] = ++m_callCount;
    call["time_ms"] = static_cast<Json::Int64>(g_get_real_time() / 1000);
    call["sender"] = sender;
    call["method"] = method;
    if (parameters != nullptr && g_variant_is_of_type(parameters, G_VARIANT_TYPE(lumora::contract::kRequestTuple))) {
        gint32 pid = 0, type = 0, id = 0;
        const gchar* subject = nullptr;
        g_variant_get(parameters, "(iii&s&s)", &pid, &type, &id, &subject, nullptr);
        AddProcess(call, pid);
        call["type"] = type;
        call["id"] = id;
        call["subject"] = subject;
        call["code"] = ResultCode(subject);
        call["delay_ms"] = DelayMs(subject);
    } else if (callerPid != 0) {
        AddProcess(call, static_cast<gint32>(callerPid));
    }
    m_calls.push_back(std::move(call));
    constexpr size_t kKept = 100;
    if (m_calls.size() > kKept) m_calls.pop_front();
    Changed();
}

}  // namespace lumora::sim
