// Timelines: the parser, which refuses anything it would have to guess at.
#include "Timeline.h"

#include <cmath>
#include <fstream>
#include <set>
#include <sstream>

#include "Scenario.h"

namespace lumora::sim {

namespace {

// Kinds a timeline holds for reference only: checked, never played.
const std::set<std::string> kReferenceKinds = {"call", "error", "timeout", "unanswered", "undecodable", "hello", "bye"};

// The event of one line, or false with the reason.
bool ParseEvent(const Json::Value& line, double previousMs, TimelineEvent& event, bool& played, std::string& why) {
    if (!line.isObject()) return why = "not a JSON object", false;
    const Json::Value& kind = line["event"];
    if (!kind.isString()) return why = "no \"event\" kind", false;
    const Json::Value& t = line["t_ms"];
    if (!t.isNumeric() || !std::isfinite(t.asDouble()) || t.asDouble() < 0)
        return why = "\"t_ms\" is not a time in milliseconds from the start", false;
    if (t.asDouble() < previousMs) return why = "out of time order (t_ms goes back)", false;
    event.tMs = t.asDouble();
    played = false;
    std::string name = kind.asString();
    if (kReferenceKinds.count(name) != 0) return true;
    if (name != "signal" && name != "answer") return why = "unknown event kind \"" + name + "\"", false;
    const Json::Value& subject = line["subject"];
    bool needsSubject = name == "signal" || line.isMember("subject");
    if (needsSubject && (!subject.isString() || subject.asString().empty()))
        return why = "\"subject\" is missing or not a string", false;
    // The text exactly as it went, else the decoded data.
    const Json::Value& text = line["text"];
    if (!text.isNull() && !text.isString()) return why = "\"text\" is not a string", false;
    if (name == "signal" && text.isNull() && !line.isMember("data")) return why = "a signal without data", false;
    // An answer becomes a value only when it had one: a code of 0 and text.
    if (name == "answer") {
        if (!line.isMember("subject") || line["code"].asInt() != 0 || (text.isNull() && !line.isMember("data")) ||
            line.isMember("records")) {
            return true;
        }
    }
    event.kind = name == "signal" ? TimelineEvent::Kind::kSignal : TimelineEvent::Kind::kValue;
    event.subject = subject.asString();
    event.data = text.isString() ? text.asString() : ValueText(line["data"]);
    played = true;
    return true;
}

bool CheckHeader(const Json::Value& header, std::string& why) {
    if (!header.isObject() || header["format"] != kTimelineFormat) {
        why = std::string("not a timeline: the first line must be {\"format\":\"") + kTimelineFormat +
              "\",\"version\":" + std::to_string(kTimelineVersion) + "}";
        return false;
    }
    if (!header["version"].isInt() || header["version"].asInt() != kTimelineVersion) {
        why = "timeline version " +
              (header["version"].isNull() ? std::string("missing") : ValueText(header["version"])) +
              " is not the one this simulator plays (" + std::to_string(kTimelineVersion) + ")";
        return false;
    }
    return true;
}

}  // namespace

namespace {

bool ParseLines(const std::string& text, std::vector<TimelineEvent>& events, std::string& error) {
    if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
        const char* end = nullptr;
        g_utf8_validate(text.data(), static_cast<gssize>(text.size()), &end);
        int line = 1;
        for (const char* p = text.data(); p < end; ++p) line += *p == '\n' ? 1 : 0;
        error = std::to_string(line) + ": not valid UTF-8";
        return false;
    }
    std::istringstream in(text);
    std::string lineText;
    int number = 0;
    double previousMs = 0;
    bool headerSeen = false;
    while (std::getline(in, lineText)) {
        ++number;
        if (lineText.find_first_not_of(" \t\r") == std::string::npos) continue;
        Json::Value line;
        std::string why;
        if (!ParseJsonText(lineText, line, why)) {
            error = std::to_string(number) + ": invalid JSON (" + why + ")";
            return false;
        }
        if (!headerSeen) {
            if (!CheckHeader(line, why)) {
                error = std::to_string(number) + ": " + why;
                return false;
            }
            headerSeen = true;
            continue;
        }
        TimelineEvent event;
        event.line = number;
        bool played = false;
        if (!ParseEvent(line, previousMs, event, played, why)) {
            error = std::to_string(number) + ": " + why;
            return false;
        }
        previousMs = event.tMs;
        if (played) events.push_back(event);
    }
    if (!headerSeen) {
        error = std::to_string(number + 1) + ": empty: no timeline header";
        return false;
    }
    return true;
}

}  // namespace

// Nothing of a timeline that is refused is kept.
bool ParseTimeline(const std::string& text, std::vector<TimelineEvent>& events, std::string& error) {
    events.clear();
    if (ParseLines(text, events, error)) return true;
    events.clear();
    return false;
}

bool LoadTimeline(const std::string& path, std::vector<TimelineEvent>& events, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = path + ": cannot be read";
        return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (!ParseTimeline(text.str(), events, error)) {
        error = path + ":" + error;
        return false;
    }
    return true;
}

}  // namespace lumora::sim
