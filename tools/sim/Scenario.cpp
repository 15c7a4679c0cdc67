// Scenario files: JSON with comments, every member checked before anything is
// used, so that a typo is reported with its position instead of answered
// wrongly. Parsing and every read go through the tools' one boundary for
// foreign JSON (JsonInput.h); this file adds the positions and the words
// scenario files have always been reported with.
#include "Scenario.h"

#include <glib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "JsonInput.h"
#include "Statistics.h"

namespace lumora::sim {

namespace {

using tools::JsonField;
using tools::JsonPathStyle;

// The longest delay a scenario may ask for; longer ones are surely typos, and
// no client waits that long.
constexpr unsigned kMaxDelayMs = 600000;

// Reports the first problem found, at the position of the value it concerns.
class Checker {
public:
    Checker(const std::string& file, const std::string& text) : m_file(file), m_text(text) {}

    // why is a checked read's "PATH: what".
    bool FailAt(const JsonField& at, const std::string& why) { return FailAt(at.Value(), why); }
    bool Fail(const JsonField& at, const std::string& what) { return FailAt(at, at.Path() + ": " + what); }
    bool FailAt(const Json::Value& at, const std::string& message) {
        return FailAtOffset(at.getOffsetStart(), message);
    }
    // A value as clients are answered it: compact, keys in order, as
    // ValueText writes it, but each number as the file writes it (0.82 stays
    // 0.82, not the nearest double's 17 digits).
    std::string SourceText(const Json::Value& value) const {
        if (value.isObject()) {
            std::string text = "{";
            for (const std::string& key : value.getMemberNames()) {
                if (text.size() > 1) text += ",";
                text += Written(Json::Value(key)) + ":" + SourceText(value[key]);
            }
            return text + "}";
        }
        if (value.isArray()) {
            std::string text = "[";
            for (Json::ArrayIndex i = 0; i < value.size(); ++i) text += (i > 0 ? "," : "") + SourceText(value[i]);
            return text + "]";
        }
        ptrdiff_t start = value.getOffsetStart();
        ptrdiff_t limit = value.getOffsetLimit();
        if (value.isNumeric() && !value.isBool() && start >= 0 && limit > start &&
            static_cast<size_t>(limit) <= m_text.size()) {
            return m_text.substr(static_cast<size_t>(start), static_cast<size_t>(limit - start));
        }
        return Written(value);
    }
    static std::string Written(const Json::Value& value) {
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "";
        return Json::writeString(writer, value);
    }
    bool FailAtOffset(ptrdiff_t offset, const std::string& message) {
        m_error = m_file + ":" + tools::TextPosition(m_text, offset) + ": " + message;
        return false;
    }
    // A checked read's outcome: ok, or the failure placed at the value.
    bool Read(const JsonField& at, bool ok, const std::string& why) { return ok || FailAt(at, why); }
    bool Expect(const JsonField& at, bool ok, const std::string& expected) {
        std::string why;
        return at.Expect(ok, expected, why) || FailAt(at, why);
    }
    const std::string& Error() const { return m_error; }

private:
    std::string m_file;
    const std::string& m_text;
    std::string m_error;
};

// The whole file must be UTF-8 (as JSON text is): the first byte that is not
// is reported where it stands, before jsoncpp, which takes any byte inside a
// string, hands it on.
bool CheckUtf8Text(Checker& check, const std::string& text) {
    const gchar* end = nullptr;
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), &end)) return true;
    return check.FailAtOffset(end - text.data(), *end == '\0' ? "a NUL byte" : "not valid UTF-8");
}

// A message is one line, whatever the file holds: control characters of a
// member name or a path are written as escapes.
std::string OneLine(const std::string& text) {
    std::string line;
    line.reserve(text.size());
    for (char c : text) {
        unsigned char byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else if (byte < 0x20 || byte == 0x7f) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", byte);
            line += escape;
        } else {
            line += c;
        }
    }
    return line;
}

bool ReadWhiteList(Checker& check, const JsonField& list, Scenario& out) {
    if (!check.Expect(list, list.IsArray(), "an array of process names")) return false;
    out.whiteList.clear();
    for (Json::ArrayIndex i = 0; i < list.Size(); ++i) {
        std::string name;
        std::string why;
        if (!check.Read(list[i], list[i].ReadText(name, why), why)) return false;
        out.whiteList.push_back(name);
    }
    return true;
}

bool ReadValues(Checker& check, const JsonField& values, Scenario& out) {
    if (!check.Expect(values, values.IsObject(), "an object of subject: value")) return false;
    for (const std::string& subject : values.Keys()) {
        const JsonField value = values[subject];
        if (value.IsNull()) continue;  // a subject without a value answers "{}"
        // A string is the text itself, answered as it stands; anything else
        // is JSON, its numbers as the file writes them.
        out.values[subject] = value.IsText() ? ValueText(value.Value()) : check.SourceText(value.Value());
    }
    return true;
}

bool ReadResultCodes(Checker& check, const JsonField& codes, Scenario& out) {
    if (!check.Expect(codes, codes.IsObject(), "an object of subject: code")) return false;
    for (const std::string& subject : codes.Keys()) {
        int code = 0;
        std::string why;
        if (!check.Read(codes[subject], codes[subject].ReadInt(code, why), why)) return false;
        out.resultCodes[subject] = code;
    }
    return true;
}

bool ReadDelays(Checker& check, const JsonField& delays, Scenario& out) {
    if (!check.Expect(delays, delays.IsObject(), "an object of subject: milliseconds")) return false;
    for (const std::string& subject : delays.Keys()) {
        const JsonField delay = delays[subject];
        // A number of the wrong sign is named as such: "expected a number"
        // would read as if it were no number at all; so is one too large.
        if (delay.NumberOr(0) < 0) return check.Fail(delay, "must be zero or more");
        bool whole = delay.Value().isUInt64();
        if (whole && delay.NumberOr(0) > kMaxDelayMs) {
            return check.Fail(delay, "a delay above " + std::to_string(kMaxDelayMs) + " ms is not served");
        }
        if (!check.Expect(delay, whole, "a number of milliseconds")) return false;
        out.delaysMs[subject] = static_cast<unsigned>(delay.IntOr(0));
    }
    return true;
}

bool ReadStatistics(Checker& check, const JsonField& statistics, Scenario& out) {
    if (!check.Expect(statistics, statistics.IsObject(), "an object of subject: tuples")) return false;
    for (const std::string& subject : statistics.Keys()) {
        const JsonField tuples = statistics[subject];
        std::string error;
        const Json::Value* where = &tuples.Value();
        if (!CheckStatistics(subject, tuples.Value(), tuples.Path(), error, &where)) {
            return check.FailAt(*where, error);
        }
        out.statistics[subject] = tuples.Value();
    }
    return true;
}

bool ReadScenario(Checker& check, const JsonField& root, Scenario& out) {
    if (!check.Expect(root, root.IsObject(), "an object")) return false;
    static const std::set<std::string> kKeys = {"description", "enabled",     "broadcastResponses", "whiteList",
                                                "values",      "resultCodes", "delaysMs",           "statistics"};
    for (const std::string& key : root.Keys()) {
        if (kKeys.count(key) == 0) return check.Fail(root[key], "unknown key");
    }
    std::string why;
    std::string description;
    const JsonField describe = root["description"];
    if (describe.Present() && !check.Read(describe, describe.ReadText(description, why), why)) return false;
    // A flag that is there must be true or false, null included.
    for (auto [flag, value] : {std::pair<const char*, bool*>{"enabled", &out.enabled},
                               std::pair<const char*, bool*>{"broadcastResponses", &out.broadcastResponses}}) {
        const JsonField field = root[flag];
        if (field.Present() && !check.Read(field, field.ReadBool(*value, why), why)) return false;
    }
    return (!root["whiteList"].Present() || ReadWhiteList(check, root["whiteList"], out)) &&
           (!root["values"].Present() || ReadValues(check, root["values"], out)) &&
           (!root["resultCodes"].Present() || ReadResultCodes(check, root["resultCodes"], out)) &&
           (!root["delaysMs"].Present() || ReadDelays(check, root["delaysMs"], out)) &&
           (!root["statistics"].Present() || ReadStatistics(check, root["statistics"], out));
}

bool ReadFile(const std::string& path, std::string& text, std::string& error) {
    // A directory opens as a stream that reads nothing, which would be
    // reported as an empty file.
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        error = path + ": is a directory";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = path + ": cannot open: " + strerror(errno);
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad()) {
        error = path + ": cannot read: " + strerror(errno);
        return false;
    }
    text = content.str();
    return true;
}

bool IsUtf8(const std::string& text) { return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr); }

// Every string the scenario holds ends up in a D-Bus string, which must be
// valid UTF-8. The text itself is checked before parsing (CheckUtf8Text);
// this finds what only parsing makes, a \u escape of a lone surrogate.
bool CheckStrings(Checker& check, const JsonField& value) {
    if (value.IsText()) {
        if (IsUtf8(value.TextOr(""))) return true;
        return check.Fail(value, "not valid UTF-8 (a \\u escape of a lone surrogate)");
    }
    for (Json::ArrayIndex i = 0; i < value.Size(); ++i) {
        if (!CheckStrings(check, value[i])) return false;
    }
    for (const std::string& key : value.Keys()) {
        if (!IsUtf8(key)) return check.FailAt(value[key], value.Path() + ": a member name is not valid UTF-8");
        if (!CheckStrings(check, value[key])) return false;
    }
    return true;
}

bool CheckTupleElement(char type, const JsonField& element, std::string& error) {
    // The words are those scenario files have always been answered with: a
    // negative number where an unsigned one goes is "found an integer".
    if (type == 'u') return element.Expect(element.Value().isUInt(), "an unsigned 32-bit integer", error);
    if (type == 'i') return element.Expect(element.Value().isInt(), "a 32-bit integer", error);
    std::string text;
    if (!element.ReadText(text, error)) return false;
    // The control interface's text is valid UTF-8, but a \u escape in it can
    // still make a string that g_variant_new_string would refuse.
    return IsUtf8(text) || element.Fail("not valid UTF-8 (a \\u escape of a lone surrogate)", error);
}

}  // namespace

bool CheckStatistics(const std::string& subject, const Json::Value& value, const std::string& path, std::string& error,
                     const Json::Value** where) {
    const JsonField tuples(value, JsonPathStyle::kBracketed, path);
    const lumora::contract::StatisticsKind* kind = FindStatisticsKind(subject);
    if (kind == nullptr) return tuples.Fail("not a statistics subject", error);
    const std::string tupleTypes = TupleTypes(*kind);
    if (!tuples.Expect(tuples.IsArray(), std::string("an array of ") + kind->arraySignature + " tuples", error))
        return false;
    for (Json::ArrayIndex i = 0; i < tuples.Size(); ++i) {
        const JsonField tuple = tuples[i];
        if (where != nullptr) *where = &tuple.Value();
        if (!tuple.IsArray() || tuple.Size() != tupleTypes.size()) {
            return tuple.Fail(
                "expected an array of " + std::to_string(tupleTypes.size()) + " elements (" + tupleTypes + ")", error);
        }
        for (Json::ArrayIndex j = 0; j < tuple.Size(); ++j) {
            if (where != nullptr) *where = &tuple[j].Value();
            if (!CheckTupleElement(tupleTypes[j], tuple[j], error)) return false;
        }
    }
    return true;
}

namespace {

bool LoadChecked(const std::string& path, Scenario& out, std::string& error) {
    std::string text;
    if (!ReadFile(path, text, error)) return false;
    Checker check(path, text);
    if (!CheckUtf8Text(check, text)) {
        error = check.Error();
        return false;
    }
    Json::Value root;
    std::string parseError;
    if (!tools::ParseJson(text, root, parseError, tools::JsonDialect::kWithComments)) {
        error = path + ":" + parseError;
        return false;
    }
    const JsonField scenarioRoot(root, JsonPathStyle::kBracketed, "scenario");
    Scenario scenario;
    if (!CheckStrings(check, scenarioRoot) || !ReadScenario(check, scenarioRoot, scenario)) {
        error = check.Error();
        return false;
    }
    out = std::move(scenario);
    return true;
}

}  // namespace

bool LoadScenario(const std::string& path, Scenario& out, std::string& error) {
    if (LoadChecked(path, out, error)) return true;
    error = OneLine(error);
    return false;
}

std::string ValueText(const Json::Value& value) {
    if (value.isString()) return JsonField(value).TextOr("");
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

std::string WhiteListJson(const std::vector<std::string>& names) {
    Json::Value root(Json::objectValue);
    Json::Value& list = root["WhiteList"] = Json::Value(Json::arrayValue);
    for (const std::string& name : names) list.append(name);
    return ValueText(root);
}

}  // namespace lumora::sim
