// Fuzzes what the control panel does with a post (lumora-sim --http): the
// input is "PATH\0BODY", applied to a fresh simulator state and a recording
// stand-in for the service, as the server applies a post once its headers
// passed. A refused post must say why in one line of UTF-8 and change
// nothing; a taken one must have done exactly what its body asked.
#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ControlContract.h"
#include "FuzzSupport.h"
#include "JsonSupport.h"
#include "PanelRequest.h"
#include "Scenario.h"
#include "SimState.h"
#include "Statistics.h"

using fuzz::Check;
using lumora::sim::PanelOutcome;

namespace {

lumora::sim::Scenario StartingScenario() {
    lumora::sim::Scenario scenario;
    scenario.enabled = true;
    scenario.whiteList = {"tv-launcher"};
    scenario.values["Ctx/Sound/Volume/Level/Current"] = R"({"Level":18})";
    scenario.resultCodes["Data/Weather/Forecast"] = -5;
    scenario.delaysMs["Pref/Channel/List"] = 1500;
    return scenario;
}

// The service's operations, recorded. A restart is refused for some pauses,
// as the service refuses one while another is under way.
class RecordingTarget : public lumora::sim::PanelTarget {
public:
    explicit RecordingTarget(lumora::sim::SimState& state) : m_state(state) {}
    lumora::sim::SimState& State() override { return m_state; }
    void Notify(const std::string& subject, const std::string& value) override {
        notified.push_back(subject + '\0' + value);
    }
    void StopAnswering() override { ++stops; }
    void ResumeAnswering() override { ++resumes; }
    bool Restart(unsigned pauseMs) override {
        restarts.push_back(pauseMs);
        return pauseMs % 7 != 3;
    }
    bool Untouched() const { return notified.empty() && stops == 0 && resumes == 0 && restarts.empty(); }

    std::vector<std::string> notified;
    int stops = 0;
    int resumes = 0;
    std::vector<unsigned> restarts;

private:
    lumora::sim::SimState& m_state;
};

// A subject as the bus can carry it: not empty, no NUL.
bool IsText(const Json::Value& value) {
    return value.isString() && !value.asString().empty() && value.asString().find('\0') == std::string::npos;
}

// A post to /api/set that was taken.
void CheckSet(const Json::Value& request, const lumora::sim::SimState& state, const RecordingTarget& target) {
    Check(IsText(request["subject"]) && request["value"].isString());
    std::string subject = request["subject"].asString();
    std::string value = request["value"].asString();
    Check(value.find('\0') == std::string::npos);
    Json::Value parsed;
    Check(fuzz::ParseJson(value, parsed));
    Check(state.Value(subject) == value);
    bool notify = request["notify"].isBool() && request["notify"].asBool();
    Check(request["notify"].isNull() || request["notify"].isBool());
    Check(notify ? target.notified == std::vector<std::string>{subject + '\0' + value} : target.notified.empty());
    Check(target.stops == 0 && target.resumes == 0 && target.restarts.empty());
}

// A string member that the clients could read as JSON, or absent when optional.
bool IsJsonText(const Json::Value& value) {
    Json::Value parsed;
    return value.isString() && value.asString().find('\0') == std::string::npos &&
           fuzz::ParseJson(value.asString(), parsed);
}

// The posts that send to subscribers: what was notified, and what the state became.
void CheckSending(const std::string& action, const Json::Value& request, const std::string& before,
                  const lumora::sim::SimState& state, const RecordingTarget& target) {
    Check(target.stops == 0 && target.resumes == 0 && target.restarts.empty());
    if (action == "emit") {
        // Notified only: the state as it was.
        Check(IsText(request["subject"]) && IsJsonText(request["value"]));
        Check(target.notified ==
              std::vector<std::string>{request["subject"].asString() + '\0' + request["value"].asString()});
        Check(lumora::sim::ValueText(state.ToJson()) == before);
        return;
    }
    Check(request["kind"].isString());
    const lumora::sim::EventKind* kind = lumora::sim::FindEventKind(request["kind"].asString().c_str());
    Check(kind != nullptr && request["kind"].asString() == kind->name);
    const Json::Value& data = request["data"];
    Check(data.isNull() || IsJsonText(data));
    std::vector<std::string> expected;
    for (const char* subject : kind->subjects) {
        if (subject == nullptr) continue;
        if (!data.isNull()) Check(state.Value(subject) == data.asString());
        expected.push_back(subject + std::string(1, '\0') + state.Value(subject));
    }
    Check(target.notified == expected);
}

// A post to /api/control that was taken.
void CheckControl(const Json::Value& request, const std::string& before, const lumora::sim::SimState& state,
                  const RecordingTarget& target) {
    Check(request["action"].isString());
    std::string action = request["action"].asString();
    if (action == "emit" || action == "event") return CheckSending(action, request, before, state, target);
    Check(target.notified.empty());
    if (action == "enable" || action == "disable") {
        Check(state.Enabled() == (action == "enable"));
    } else if (action == "stop-answering" || action == "resume-answering") {
        Check(target.stops == (action == "stop-answering") && target.resumes == (action == "resume-answering"));
    } else if (action == "restart") {
        const Json::Value& pause = request["pause_ms"];
        unsigned expected = pause.isNull() ? lumora::sim::kDefaultRestartPauseMs : 0;
        if (!pause.isNull()) {
            Check(pause.isInt64() && pause.asInt64() >= 0 && pause.asInt64() <= lumora::sim::kMaxRestartPauseMs);
            expected = static_cast<unsigned>(pause.asInt64());
        }
        Check(target.restarts == std::vector<unsigned>{expected} && expected % 7 != 3);
    } else if (action == "whitelist") {
        const Json::Value& names = request["names"];
        Check(names.isArray());
        std::vector<std::string> expected;
        for (const Json::Value& name : names) {
            Check(name.isString());
            expected.push_back(name.asString());
        }
        Check(state.WhiteList() == lumora::sim::WhiteListJson(expected));
    } else if (action == "code") {
        Check(IsText(request["subject"]) && request["value"].isInt());
        Check(state.ResultCode(request["subject"].asString()) == request["value"].asInt());
    } else if (action == "delay") {
        const Json::Value& delay = request["value"];
        Check(IsText(request["subject"]) && delay.isInt64() && delay.asInt64() >= 0 &&
              delay.asInt64() <= lumora::sim::kMaxPanelDelayMs);
        Check(state.DelayMs(request["subject"].asString()) == static_cast<unsigned>(delay.asInt64()));
    } else if (action == "statistics") {
        Check(IsText(request["subject"]));
        const std::string subject = request["subject"].asString();
        const auto* kind = lumora::sim::FindStatisticsKind(subject);
        Check(kind != nullptr && request["tuples"].isArray());
        for (const Json::Value& tuple : request["tuples"]) {
            Check(tuple.isArray() && tuple.size() == lumora::sim::TupleTypes(*kind).size());
        }
        Check(state.Statistics(subject) == request["tuples"]);
    } else if (action == "clear") {
        Check(IsText(request["subject"]));
        Check(!state.ToJson()["values"].isMember(request["subject"].asString()));
    } else {
        Check(false);  // no other action is taken
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> parts = fuzz::SplitAtNul(data, size, 2);
    const std::string& path = parts[0];
    const std::string& body = parts[1];
    lumora::sim::SimState state(StartingScenario());
    const std::string before = lumora::sim::ValueText(state.ToJson());
    RecordingTarget target(state);

    PanelOutcome outcome = lumora::sim::ApplyPanelPost(path, body, target);

    if (outcome.status != 200) {
        Check(outcome.status == 400 || outcome.status == 404 || outcome.status == 413);
        Check(!outcome.error.empty() && outcome.error.find('\n') == std::string::npos && fuzz::IsUtf8(outcome.error));
        Check(outcome.status != 404 || (path != "/api/set" && path != "/api/control"));
        Check(outcome.status != 413 || body.size() > lumora::sim::kMaxPanelBody);
        // Refused means unchanged: the state as it was, no operation of the
        // service (a restart the service refused was asked, and only that).
        Check(lumora::sim::ValueText(state.ToJson()) == before);
        bool refusedRestart = target.restarts.size() == 1 && target.restarts[0] % 7 == 3;
        Check(target.Untouched() || (refusedRestart && target.notified.empty() && target.stops == 0 &&
                                     target.resumes == 0));
        return 0;
    }
    Check(outcome.error.empty() && !outcome.done.empty() && fuzz::IsUtf8(outcome.done));
    Check(body.size() <= lumora::sim::kMaxPanelBody && fuzz::IsUtf8(body));
    Json::Value request;
    Check(fuzz::ParseJson(body, request) && request.isObject());
    if (path == "/api/set") {
        CheckSet(request, state, target);
    } else {
        Check(path == "/api/control");
        CheckControl(request, before, state, target);
    }
    return 0;
}
