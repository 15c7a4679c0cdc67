// Timelines: the parser, which refuses anything it would have to guess at.
// Every field is read through the checked reads of JsonInput.h, so that a
// line of the wrong shape is refused with its path and both types instead of
// reaching jsoncpp's throwing accessors.
#include "Timeline.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <set>
#include <sstream>

#include "JsonInput.h"
#include "Scenario.h"

namespace lumora::sim {

namespace {

using tools::JsonField;

// Kinds a timeline holds for reference only: checked, never played.
const std::set<std::string> kReferenceKinds = {"call", "error", "timeout", "unanswered", "undecodable", "hello", "bye"};

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

// An answer becomes a value only when it had one: a code of 0 (or none) and
// text or data, and no statistics records.
bool AnswerHasValue(const JsonField& line, bool& hasValue, std::string& why) {
    int code = 0;
    const JsonField codeField = line["code"];
    if (!codeField.IsNull() && !codeField.ReadInt(code, why)) return false;
    hasValue = line["subject"].Present() && code == 0 && (!line["text"].IsNull() || line["data"].Present()) &&
               !line["records"].Present();
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
    // The text exactly as it went, else the decoded data.
    const JsonField text = line["text"];
    const JsonField data = line["data"];
    if (!text.IsNull() && !text.ReadText(event.data, why)) return false;
    if (kind == "signal" && text.IsNull() && !data.Present()) return why = "a signal without data", false;
    bool hasValue = true;
    if (kind == "answer" && !AnswerHasValue(line, hasValue, why)) return false;
    if (!hasValue) return true;
    event.kind = kind == "signal" ? TimelineEvent::Kind::kSignal : TimelineEvent::Kind::kValue;
    if (text.IsNull()) event.data = ValueText(data.Value());
    if (!CheckUtf8(text.IsNull() ? data : text, event.data, why)) return false;
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
