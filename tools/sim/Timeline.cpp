// Timelines: the parser, which refuses anything it would have to guess at.
// Every field is read through the checked reads of JsonInput.h, so that a
// line of the wrong shape is refused with its path and both types instead of
// reaching jsoncpp's throwing accessors.
#include "Timeline.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <set>
#include <sstream>

#include "JsonInput.h"
#include "Scenario.h"
#include "Statistics.h"

namespace lumora::sim {

namespace {

using tools::JsonField;

// Kinds a timeline holds for reference only: checked, never played. A
// "copy" is a signal's copy to a further receiver of the same change.
const std::set<std::string> kReferenceKinds = {"call",        "error", "timeout", "unanswered",
                                               "undecodable", "hello", "bye",     "copy"};

// The line's time: a number of milliseconds from the start, not before the
// previous line's. Later than kMaxTimelineMs is no recording's time.
bool ReadTime(const JsonField& t, double previousMs, double& tMs, std::string& why) {
    if (!t.Expect(t.Present() && t.Value().isNumeric(), "a time in milliseconds from the start", why)) return false;
    double ms = t.NumberOr(-1);
    if (!std::isfinite(ms) || ms < 0) return why = "\"t_ms\" is not a time in milliseconds from the start", false;
    if (ms > kMaxTimelineMs) {
        return t.Fail(ValueText(t.Value()) + " is out of range (0 to " +
                          std::to_string(static_cast<long long>(kMaxTimelineMs)) + " ms)",
                      why);
    }
    if (ms < previousMs) return why = "out of time order (t_ms goes back)", false;
    tMs = ms;
    return true;
}

// What is played goes into D-Bus strings, which must be UTF-8. The file was
// checked as a whole; only a \u escape of a lone surrogate makes a string
// that is not.
bool CheckUtf8(const JsonField& field, const std::string& text, std::string& why) {
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) return true;
    return field.Fail("not valid UTF-8 (a \\u escape of a lone surrogate)", why);
}

// The text exactly as it went, else the decoded data; false when the line
// has neither (present says so) or a text of the wrong type.
bool ReadData(const JsonField& line, std::string& out, bool& present, std::string& why) {
    const JsonField text = line["text"];
    const JsonField data = line["data"];
    present = false;
    if (!text.IsNull()) {
        if (!text.ReadText(out, why) || !CheckUtf8(text, out, why)) return false;
    } else if (data.Present()) {
        out = ValueText(data.Value());
        if (!CheckUtf8(data, out, why)) return false;
    } else {
        return true;
    }
    present = true;
    return true;
}

// A typed payload of a request's answer (the statistics arrays), in the
// GVariant text form the monitor records. It is played when it has the
// signature of the subject's statistics; any other is kept for reference.
bool ParsePayload(const JsonField& field, TimelineEvent& event, bool& played, std::string& why) {
    std::string text;
    if (!field.ReadText(text, why)) return false;
    GError* error = nullptr;
    GVariant* payload = g_variant_parse(nullptr, text.c_str(), text.c_str() + text.size(), nullptr, &error);
    if (payload == nullptr) {
        std::string reason = error != nullptr ? error->message : "no value";
        if (error != nullptr) g_error_free(error);
        std::replace(reason.begin(), reason.end(), '\n', ' ');
        return field.Fail("not a GVariant in text form (" + reason + ")", why);
    }
    g_variant_ref_sink(payload);
    const lumora::contract::StatisticsKind* kind = FindStatisticsKind(event.subject);
    played = kind != nullptr && StatisticsTuples(*kind, payload, event.tuples);
    g_variant_unref(payload);
    if (played) event.kind = TimelineEvent::Kind::kStatistics;
    return true;
}

// ServiceEnable's answer: the enabled flag, and the whitelist when the line
// has it (timelines from before it was recorded have it decoded in "data").
bool ParseEnableAnswer(const JsonField& line, TimelineEvent& event, bool& played, std::string& why) {
    if (!line["enabled"].ReadBool(event.enabled, why)) return false;
    if (!ReadData(line, event.data, event.hasWhiteList, why)) return false;
    event.kind = TimelineEvent::Kind::kEnable;
    event.subject.clear();
    played = true;
    return true;
}

// What an answer plays depends on the call it answers ("type"): a read's or
// a request's answer is what the subject answers from then on, its code
// included; a ServiceEnable answer sets the service's flag and whitelist.
// Answers to subscriptions are (0, "{}") whatever the subject holds, and are
// kept for reference, as are those of other calls. A line without a type
// (written by hand) is taken as a read's answer.
bool ParseAnswer(const JsonField& line, TimelineEvent& event, bool& played, std::string& why) {
    std::string type = "read";
    const JsonField typeField = line["type"];
    if (!typeField.IsNull() && !typeField.ReadText(type, why)) return false;
    const JsonField codeField = line["code"];
    if (!codeField.IsNull() && !codeField.ReadInt(event.code, why)) return false;
    if (type == "enable") return ParseEnableAnswer(line, event, played, why);
    bool hasData = false;
    if (!ReadData(line, event.data, hasData, why)) return false;
    if ((type != "read" && type != "request") || event.subject.empty()) return true;
    const JsonField payload = line["payload"];
    if (!payload.IsNull()) return ParsePayload(payload, event, played, why);
    // Statistics records as the monitor shows them, from before the payload
    // was recorded: their types are not all there.
    if (line["records"].Present() || !hasData) return true;
    event.kind = TimelineEvent::Kind::kAnswer;
    played = true;
    return true;
}

// The event of one line, or false with the reason.
bool ParseEvent(const Json::Value& value, double previousMs, TimelineEvent& event, bool& played, std::string& why) {
    const JsonField line(value);
    std::string kind;
    if (!line.ExpectObject(why) || !line["event"].ReadText(kind, why)) return false;
    if (!ReadTime(line["t_ms"], previousMs, event.tMs, why)) return false;
    played = false;
    if (kReferenceKinds.count(kind) != 0) return true;
    if (kind != "signal" && kind != "answer") return why = "unknown event kind " + tools::JsonQuoted(kind), false;
    const JsonField subject = line["subject"];
    if (kind == "signal" && !subject.Present()) return why = "\"subject\" is missing or not a string", false;
    if (subject.Present() && (!subject.ReadName(event.subject, why) || !CheckUtf8(subject, event.subject, why)))
        return false;
    if (kind == "answer") return ParseAnswer(line, event, played, why);
    bool hasData = false;
    if (!ReadData(line, event.data, hasData, why)) return false;
    if (!hasData) return why = "a signal without data", false;
    event.kind = TimelineEvent::Kind::kSignal;
    played = true;
    return true;
}

bool CheckHeader(const Json::Value& value, std::string& why) {
    const JsonField header(value);
    if (header["format"].TextOr("") != kTimelineFormat) {
        why = std::string("not a timeline: the first line must be {\"format\":\"") + kTimelineFormat +
              "\",\"version\":" + std::to_string(kTimelineVersion) + "}";
        return false;
    }
    const JsonField versionField = header["version"];
    int version = 0;
    if (versionField.Present() && !versionField.ReadInt(version, why)) return false;
    if (version != kTimelineVersion) {
        why = "timeline version " + (versionField.Present() ? std::to_string(version) : std::string("missing")) +
              " is not the one this simulator plays (" + std::to_string(kTimelineVersion) + ")";
        return false;
    }
    return true;
}

bool ParseLines(const std::string& text, std::vector<TimelineEvent>& events, std::string& error) {
    const char* end = nullptr;
    if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), &end)) {
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
        if (!tools::ParseJson(lineText, line, why)) {
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

namespace {

// The file's bytes. A directory opens and reads as nothing, which would be
// refused as an empty timeline: it is named as what it is.
bool ReadTimelineFile(const std::string& path, std::string& text, std::string& error) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = path + ": cannot be read: " + g_strerror(errno);
        return false;
    }
    struct stat info {};
    if (fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
        close(fd);
        error = path + ": is a directory, not a timeline";
        return false;
    }
    char buffer[65536];
    for (;;) {
        ssize_t got = read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            error = path + ": cannot be read: " + g_strerror(errno);
            close(fd);
            return false;
        }
        if (got == 0) break;
        text.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    return true;
}

}  // namespace

bool LoadTimeline(const std::string& path, std::vector<TimelineEvent>& events, std::string& error) {
    std::string text;
    if (!ReadTimelineFile(path, text, error)) return false;
    if (!ParseTimeline(text, events, error)) {
        error = path + ":" + error;
        return false;
    }
    return true;
}

}  // namespace lumora::sim
