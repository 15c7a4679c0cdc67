// What the simulated service knows: the scenario as changed since by writes
// and control commands, and which client subscribed to which subject.
#ifndef LUMORA_SIM_SIMSTATE_H
#define LUMORA_SIM_SIMSTATE_H

#include <glib.h>
#include <json/json.h>

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Scenario.h"

namespace lumora::sim {

class SimState {
public:
    explicit SimState(Scenario scenario) : m_scenario(std::move(scenario)) {}

    bool Enabled() const { return m_scenario.enabled; }
    void SetEnabled(bool enabled) {
        m_scenario.enabled = enabled;
        Changed();
    }
    bool BroadcastResponses() const { return m_scenario.broadcastResponses; }
    /// The whitelist's text as ServiceEnable and "HELLO" carry it.
    std::string WhiteList() const { return m_whiteListText ? *m_whiteListText : WhiteListJson(m_scenario.whiteList); }
    void SetWhiteList(std::vector<std::string> names) {
        m_scenario.whiteList = std::move(names);
        m_whiteListText.reset();
        Changed();
    }
    /// The whitelist exactly as a recorded service sent it, sent as it is
    /// until the next SetWhiteList; its names, when it has the service's
    /// form, are shown as "whiteList".
    void SetWhiteListText(const std::string& text);

    /// The subject's value, or "{}" (the service's "no data") when it has none.
    std::string Value(const std::string& subject) const;
    void SetValue(const std::string& subject, const std::string& text) {
        m_scenario.values[subject] = text;
        Changed();
    }
    void ClearValue(const std::string& subject) {
        m_scenario.values.erase(subject);
        Changed();
    }

    int ResultCode(const std::string& subject) const { return Lookup(m_scenario.resultCodes, subject, 0); }
    void SetResultCode(const std::string& subject, int code);
    unsigned DelayMs(const std::string& subject) const { return Lookup(m_scenario.delaysMs, subject, 0u); }
    void SetDelayMs(const std::string& subject, unsigned delayMs);

    /// The checked tuples of a statistics subject (null when none were given).
    const Json::Value& Statistics(const std::string& subject) const;
    void SetStatistics(const std::string& subject, const Json::Value& tuples) {
        m_scenario.statistics[subject] = tuples;
        Changed();
    }

    /// Subscriptions are per client (its unique bus name) and subject; a
    /// repeated subscription is kept once. pid: the process the request
    /// named, by which the panel names the client as it names callers.
    void Subscribe(const std::string& subject, const std::string& client, gint32 pid = 0);
    void Unsubscribe(const std::string& subject, const std::string& client);
    void DropClient(const std::string& client);
    void DropAllSubscriptions() {
        m_subscribers.clear();
        m_clients.clear();
        Changed();
    }
    std::vector<std::string> Subscribers(const std::string& subject) const;
    /// The subscribed clients by unique name, each with its "pid" and, when
    /// it ran as it subscribed, its "process" name.
    Json::Value SubscribedClients() const;

    /// Channel removals as they arrived: what was written to which removal
    /// subject, and how many channel list entries it removed. Kept across
    /// restarts, so that a test can look back at every removal a client sent.
    void RecordChannelRemoval(const std::string& subject, const Json::Value& request, unsigned removed);

    /// The calls served lately (the last 100), for the control panel: time,
    /// caller, process, method, request type, subject, the answer's code and
    /// delay as the state gives them. Kept only while a change listener is set.
    /// callerPid: the caller's process as the bus knows it, for the calls
    /// whose parameters do not name it (ServiceEnable); 0 when not known.
    void RecordCall(const std::string& sender, const std::string& method, GVariant* parameters,
                    guint32 callerPid = 0);
    /// Names the process of sender's recorded calls that do not name one
    /// yet (its pid learnt from the bus after the call was recorded).
    void NameCaller(const std::string& sender, guint32 pid);
    /// Whether calls are recorded (someone shows them).
    bool RecordingCalls() const { return static_cast<bool>(m_onChange); }
    Json::Value RecentCalls() const;

    /// Where a replay stands (null when none runs), shown as "replay".
    void SetReplayStatus(Json::Value status) {
        m_replay = std::move(status);
        Changed();
    }

    /// Everything above as one JSON object, for the control interface.
    Json::Value ToJson() const;

    /// Called after every change of the state (the control panel tells its
    /// pages); one listener, null for none. It must not change the state.
    void SetChangeListener(std::function<void()> listener) { m_onChange = std::move(listener); }
    /// For changes the service makes beside the state (answering stopped).
    void Changed() const {
        if (m_onChange) m_onChange();
    }

private:
    template <typename T>
    static T Lookup(const std::map<std::string, T>& map, const std::string& key, T fallback) {
        auto it = map.find(key);
        return it == map.end() ? fallback : it->second;
    }

    // Drops client's name once it has no subscription left.
    void ForgetUnsubscribed(const std::string& client);

    Scenario m_scenario;
    std::optional<std::string> m_whiteListText;
    std::map<std::string, std::vector<std::string>> m_subscribers;
    std::map<std::string, Json::Value> m_clients;  // those in m_subscribers
    Json::Value m_channelRemovals{Json::arrayValue};
    Json::Value m_replay;
    std::deque<Json::Value> m_calls;
    unsigned m_callCount = 0;
    std::function<void()> m_onChange;
};

}  // namespace lumora::sim

#endif  // LUMORA_SIM_SIMSTATE_H
