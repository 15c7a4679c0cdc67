// The panel's posts, read through the one boundary for foreign JSON
// (JsonInput.h): nothing here reads the body with jsoncpp's throwing
// accessors, and every refusal names the field and what it should have been.
#include "PanelRequest.h"

#include <glib.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "ControlContract.h"
#include "JsonInput.h"
#include "Scenario.h"
#include "SimState.h"

namespace lumora::sim {

namespace {

using tools::JsonField;

// text as a JSON string, for messages that repeat what a post said: valid
// UTF-8 (a path may have been escaped into anything), control characters
// escaped so that a refusal stays one line, and cut after 40 characters.
std::string Quoted(const std::string& text) {
    gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    glong length = g_utf8_strlen(valid, -1);
    gchar* shown = g_utf8_substring(valid, 0, std::min<glong>(length, 40));
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    std::string quoted = Json::writeString(writer, Json::Value(shown));
    g_free(shown);
    g_free(valid);
    return length > 40 ? quoted + " (" + std::to_string(length) + " characters)" : quoted;
}

// A text that goes out on the bus (a subject, a value): a D-Bus string has
// no NUL in it, which JSON's "\u0000" can put in a string.
bool ReadBusText(const JsonField& field, bool name, std::string& out, std::string& error) {
    if (!(name ? field.ReadName(out, error) : field.ReadText(out, error))) return false;
    return out.find('\0') == std::string::npos || field.Fail("a NUL character cannot go on the bus", error);
}

PanelOutcome Refused(unsigned status, std::string error) {
    PanelOutcome outcome;
    outcome.status = status;
    outcome.error = std::move(error);
    return outcome;
}

PanelOutcome Done(std::string done) {
    PanelOutcome outcome;
    outcome.done = std::move(done);
    return outcome;
}

// POST /api/set: {"subject": NAME, "value": JSON TEXT, "notify": BOOL?}.
PanelOutcome ApplySet(const JsonField& request, PanelTarget& target) {
    std::string subject;
    std::string value;
    bool notify = false;
    std::string error;
    if (!ReadBusText(request["subject"], true, subject, error) || !ReadBusText(request["value"], false, value, error) ||
        !request["notify"].ReadOptional(notify, error)) {
        return Refused(400, error);
    }
    // The value is answered to clients as it is: it has to be JSON they can
    // read (comments allowed, as in scenario files and ctl set).
    Json::Value parsed;
    std::string why;
    if (!tools::ParseJson(value, parsed, why)) {
        request["value"].Fail("the value is not JSON: " + why, error);
        return Refused(400, error);
    }
    target.State().SetValue(subject, value);
    if (notify) target.Notify(subject, value);
    return Done((notify ? "set and notified " : "set ") + subject);
}

// A text the clients are sent as data: JSON they can read, as a set value.
bool ReadJsonText(const JsonField& field, std::string& out, std::string& error) {
    if (!ReadBusText(field, false, out, error)) return false;
    Json::Value parsed;
    std::string why;
    return tools::ParseJson(out, parsed, why) || field.Fail("not JSON: " + why, error);
}

// {"action": "event", "kind": KIND, "data": JSON TEXT?}: what ctl event does.
// Data, when given, becomes the value of every subject of the kind before
// any is notified, so that a callback reading one back sees the event.
PanelOutcome ApplyEvent(const JsonField& request, PanelTarget& target) {
    std::string name;
    std::string data;
    std::string error;
    if (!request["kind"].ReadText(name, error)) return Refused(400, error);
    const EventKind* kind = FindEventKind(name.c_str());
    if (kind == nullptr || name.find('\0') != std::string::npos) {
        std::string kinds;
        for (const EventKind& known : kEventKinds) kinds += std::string(kinds.empty() ? "" : ", ") + known.name;
        request["kind"].Fail("unknown event kind " + Quoted(name) + " (" + kinds + ")", error);
        return Refused(400, error);
    }
    if (!request["data"].IsNull() && !ReadJsonText(request["data"], data, error)) return Refused(400, error);
    SimState& state = target.State();
    for (const char* subject : kind->subjects) {
        if (subject != nullptr && !data.empty()) state.SetValue(subject, data);
    }
    for (const char* subject : kind->subjects) {
        if (subject != nullptr) target.Notify(subject, state.Value(subject));
    }
    return Done(std::string("event ") + kind->name);
}

// The names of a whitelist: an array of strings.
bool ReadNames(const JsonField& names, std::vector<std::string>& out, std::string& error) {
    if (!names.ExpectArray(error)) return false;
    for (Json::ArrayIndex i = 0; i < names.Size(); ++i) {
        std::string name;
        if (!names[i].ReadText(name, error)) return false;
        out.push_back(std::move(name));
    }
    return true;
}

// POST /api/control: {"action": NAME, ...what the action takes}.
PanelOutcome ApplyControl(const JsonField& request, PanelTarget& target) {
    std::string action;
    std::string error;
    if (!request["action"].ReadText(action, error)) return Refused(400, error);
    SimState& state = target.State();
    if (action == "enable" || action == "disable") {
        state.SetEnabled(action == "enable");
    } else if (action == "stop-answering") {
        target.StopAnswering();
    } else if (action == "resume-answering") {
        target.ResumeAnswering();
    } else if (action == "restart") {
        long long pause = kDefaultRestartPauseMs;
        if (!request["pause_ms"].ReadOptionalIn(pause, 0, kMaxRestartPauseMs, error)) return Refused(400, error);
        if (!target.Restart(static_cast<unsigned>(pause)))
            return Refused(400, "a restart is under way, or the name is not owned");
        return Done("restart, pause " + std::to_string(pause) + " ms");
    } else if (action == "whitelist") {
        std::vector<std::string> names;
        if (!ReadNames(request["names"], names, error)) return Refused(400, error);
        state.SetWhiteList(std::move(names));
    } else if (action == "event") {
        return ApplyEvent(request, target);
    } else if (action == "statistics") {
        // {"subject": NAME, "tuples": [[...], ...]}, checked as ctl stats checks them.
        std::string subject;
        if (!ReadBusText(request["subject"], true, subject, error)) return Refused(400, error);
        const JsonField tuples = request["tuples"];
        if (!tuples.Present()) {
            tuples.Fail("expected an array of tuples, found nothing", error);
            return Refused(400, error);
        }
        if (!CheckStatistics(subject, tuples.Value(), tuples.Path(), error)) return Refused(400, error);
        state.SetStatistics(subject, tuples.Value());
        return Done("statistics of " + subject + ", " + std::to_string(tuples.Size()) + " record(s)");
    } else if (action == "emit" || action == "clear") {
        std::string subject;
        if (!ReadBusText(request["subject"], true, subject, error)) return Refused(400, error);
        if (action == "clear") {
            state.ClearValue(subject);
            return Done("cleared " + subject);
        }
        // Notified only: the stored value stays as it is.
        std::string value;
        if (!ReadJsonText(request["value"], value, error)) return Refused(400, error);
        target.Notify(subject, value);
        return Done("notified " + subject);
    } else if (action == "code" || action == "delay") {
        std::string subject;
        if (!ReadBusText(request["subject"], true, subject, error)) return Refused(400, error);
        if (action == "code") {
            int code = 0;
            if (!request["value"].ReadInt(code, error)) return Refused(400, error);
            state.SetResultCode(subject, code);
            return Done("code " + std::to_string(code) + " for " + subject);
        }
        long long delay = 0;
        if (!request["value"].ReadIntIn(delay, 0, kMaxPanelDelayMs, error)) return Refused(400, error);
        state.SetDelayMs(subject, static_cast<unsigned>(delay));
        return Done("delay " + std::to_string(delay) + " ms for " + subject);
    } else {
        request["action"].Fail("unknown action " + Quoted(action) +
                                   " (enable, disable, stop-answering, resume-answering, restart, whitelist, "
                                   "code, delay, statistics, emit, clear, event)",
                               error);
        return Refused(400, error);
    }
    return Done(action);
}

}  // namespace

PanelOutcome ApplyPanelPost(const std::string& path, const std::string& body, PanelTarget& target) {
    bool set = path == "/api/set";
    if (!set && path != "/api/control") return Refused(404, Quoted(path) + " takes no post");
    if (body.size() > kMaxPanelBody)
        return Refused(413, "the body is over " + std::to_string(kMaxPanelBody) + " bytes");
    if (!g_utf8_validate(body.data(), static_cast<gssize>(body.size()), nullptr))
        return Refused(400, "the body is not valid UTF-8");
    // The page sends what JSON.stringify makes: strict JSON, one object.
    Json::Value root;
    std::string error;
    if (!tools::ParseJson(body, root, error, tools::JsonDialect::kStrict))
        return Refused(400, "the body is not JSON: " + error);
    const JsonField request(root);
    if (!request.ExpectObject(error)) return Refused(400, error);
    return set ? ApplySet(request, target) : ApplyControl(request, target);
}

}  // namespace lumora::sim
