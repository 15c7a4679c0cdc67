// Scenario files: strict JSON, every member checked before anything is used,
// so that a typo is reported with its position instead of answered wrongly.
#include "Scenario.h"

#include <glib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>

#include "Statistics.h"

namespace lumora::sim {

namespace {

// The longest delay a scenario may ask for; longer ones are surely typos, and
// no client waits that long.
constexpr unsigned kMaxDelayMs = 600000;

const char* TypeName(const Json::Value& value) {
    switch (value.type()) {
        case Json::nullValue:
            return "null";
        case Json::intValue:
        case Json::uintValue:
            return "an integer";
        case Json::realValue:
            return "a number";
        case Json::stringValue:
            return "a string";
        case Json::booleanValue:
            return "a boolean";
        case Json::arrayValue:
            return "an array";
        case Json::objectValue:
            return "an object";
    }
    return "a value";
}

// "* Line 3, Column 5\n  Missing ',' ..." -> "3:5: Missing ',' ...".
std::string CompactJsonError(const std::string& formatted) {
    static const std::regex kFirst(R"(\* Line (\d+), Column (\d+)\s*\n\s*([^\n]*))");
    std::smatch match;
    if (std::regex_search(formatted, match, kFirst))
        return match[1].str() + ":" + match[2].str() + ": " + match[3].str();
    std::string flat = formatted;
    for (char& c : flat) {
        if (c == '\n') c = ' ';
    }
    return flat;
}

// Reports the first problem found, at the position of the value it concerns.
class Checker {
public:
    Checker(const std::string& file, const std::string& text) : m_file(file), m_text(text) {}

    bool Fail(const Json::Value& at, const std::string& path, const std::string& what) {
        return FailAt(at, path + ": " + what);
    }
    bool FailAt(const Json::Value& at, const std::string& message) {
        return FailAtOffset(at.getOffsetStart(), message);
    }
    bool FailAtOffset(ptrdiff_t offset, const std::string& message) {
        m_error = m_file + ":" + Position(offset) + ": " + message;
        return false;
    }
    bool Expect(const Json::Value& value, bool ok, const std::string& path, const char* expected) {
        return ok || Fail(value, path, std::string("expected ") + expected + ", found " + TypeName(value));
    }
    const std::string& Error() const { return m_error; }

private:
    std::string Position(ptrdiff_t offset) const {
        int line = 1;
        int column = 1;
        for (ptrdiff_t i = 0; i < offset && i < static_cast<ptrdiff_t>(m_text.size()); ++i) {
            if (m_text[static_cast<size_t>(i)] == '\n') {
                ++line;
                column = 1;
            } else {
                ++column;
            }
        }
        return std::to_string(line) + ":" + std::to_string(column);
    }

    std::string m_file;
    const std::string& m_text;
    std::string m_error;
};

std::string MemberPath(const std::string& parent, const std::string& key) { return parent + "[\"" + key + "\"]"; }

// The whole file must be UTF-8 (as JSON text is): the first byte that is not
// is reported where it stands, before jsoncpp, which takes any byte inside a
// string, hands it on.
bool CheckUtf8Text(Checker& check, const std::string& text) {
    const gchar* end = nullptr;
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), &end)) return true;
    return check.FailAtOffset(end - text.data(), *end == '\0' ? "a NUL byte" : "not valid UTF-8");
}

// jsoncpp gives up on deep nesting with an exception that names no place;
// no scenario needs more than this, and the place of the first value too deep
// is reported instead. Comments and strings are skipped as the parser skips
// them.
constexpr int kMaxNesting = 512;

bool CheckNesting(Checker& check, const std::string& text) {
    enum { kCode, kString, kLineComment, kBlockComment } state = kCode;
    int depth = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        char next = i + 1 < text.size() ? text[i + 1] : '\0';
        switch (state) {
            case kString:
                if (c == '\\') {
                    ++i;
                } else if (c == '"') {
                    state = kCode;
                }
                break;
            case kLineComment:
                if (c == '\n') state = kCode;
                break;
            case kBlockComment:
                if (c == '*' && next == '/') {
                    state = kCode;
                    ++i;
                }
                break;
            case kCode:
                if (c == '"') {
                    state = kString;
                } else if (c == '/' && next == '/') {
                    state = kLineComment;
                } else if (c == '/' && next == '*') {
                    state = kBlockComment;
                    ++i;
                } else if (c == '[' || c == '{') {
                    if (++depth > kMaxNesting) {
                        return check.FailAtOffset(static_cast<ptrdiff_t>(i),
                                                  "nested more than " + std::to_string(kMaxNesting) + " levels deep");
                    }
                } else if (c == ']' || c == '}') {
                    --depth;
                }
                break;
        }
    }
    return true;
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

bool ReadWhiteList(Checker& check, const Json::Value& list, Scenario& out) {
    if (!check.Expect(list, list.isArray(), "whiteList", "an array of process names")) return false;
    out.whiteList.clear();
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        const Json::Value& name = list[i];
        if (!check.Expect(name, name.isString(), "whiteList[" + std::to_string(i) + "]", "a string")) return false;
        out.whiteList.push_back(name.asString());
    }
    return true;
}

bool ReadValues(Checker& check, const Json::Value& values, Scenario& out) {
    if (!check.Expect(values, values.isObject(), "values", "an object of subject: value")) return false;
    for (const std::string& subject : values.getMemberNames()) {
        const Json::Value& value = values[subject];
        if (value.isNull()) continue;  // a subject without a value answers "{}"
        out.values[subject] = ValueText(value);
    }
    return true;
}

bool ReadResultCodes(Checker& check, const Json::Value& codes, Scenario& out) {
    if (!check.Expect(codes, codes.isObject(), "resultCodes", "an object of subject: code")) return false;
    for (const std::string& subject : codes.getMemberNames()) {
        const Json::Value& code = codes[subject];
        if (!check.Expect(code, code.isInt(), MemberPath("resultCodes", subject), "a 32-bit integer")) return false;
        out.resultCodes[subject] = code.asInt();
    }
    return true;
}

bool ReadDelays(Checker& check, const Json::Value& delays, Scenario& out) {
    if (!check.Expect(delays, delays.isObject(), "delaysMs", "an object of subject: milliseconds")) return false;
    for (const std::string& subject : delays.getMemberNames()) {
        const Json::Value& delay = delays[subject];
        std::string path = MemberPath("delaysMs", subject);
        // A number of the wrong sign is named as such: "expected a number"
        // would read as if it were no number at all.
        if (delay.isNumeric() && delay.asDouble() < 0) return check.Fail(delay, path, "must be zero or more");
        if (!check.Expect(delay, delay.isUInt(), path, "a number of milliseconds")) return false;
        if (delay.asUInt() > kMaxDelayMs) {
            return check.Fail(delay, path, "a delay above " + std::to_string(kMaxDelayMs) + " ms is not served");
        }
        out.delaysMs[subject] = delay.asUInt();
    }
    return true;
}

bool ReadStatistics(Checker& check, const Json::Value& statistics, Scenario& out) {
    if (!check.Expect(statistics, statistics.isObject(), "statistics", "an object of subject: tuples")) return false;
    for (const std::string& subject : statistics.getMemberNames()) {
        const Json::Value& tuples = statistics[subject];
        std::string error;
        const Json::Value* where = &tuples;
        if (!CheckStatistics(subject, tuples, MemberPath("statistics", subject), error, &where)) {
            return check.FailAt(*where, error);
        }
        out.statistics[subject] = tuples;
    }
    return true;
}

bool ReadScenario(Checker& check, const Json::Value& root, Scenario& out) {
    if (!check.Expect(root, root.isObject(), "scenario", "an object")) return false;
    static const std::set<std::string> kKeys = {"description", "enabled",     "broadcastResponses", "whiteList",
                                                "values",      "resultCodes", "delaysMs",           "statistics"};
    for (const std::string& key : root.getMemberNames()) {
        if (kKeys.count(key) == 0) return check.Fail(root[key], key, "unknown key");
    }
    if (root.isMember("description") &&
        !check.Expect(root["description"], root["description"].isString(), "description", "a string")) {
        return false;
    }
    for (const char* flag : {"enabled", "broadcastResponses"}) {
        if (root.isMember(flag) && !check.Expect(root[flag], root[flag].isBool(), flag, "true or false")) return false;
    }
    out.enabled = root.get("enabled", true).asBool();
    out.broadcastResponses = root.get("broadcastResponses", false).asBool();
    return (!root.isMember("whiteList") || ReadWhiteList(check, root["whiteList"], out)) &&
           (!root.isMember("values") || ReadValues(check, root["values"], out)) &&
           (!root.isMember("resultCodes") || ReadResultCodes(check, root["resultCodes"], out)) &&
           (!root.isMember("delaysMs") || ReadDelays(check, root["delaysMs"], out)) &&
           (!root.isMember("statistics") || ReadStatistics(check, root["statistics"], out));
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

// Every string the scenario holds ends up in a D-Bus string, which must be
// valid UTF-8. The text itself is checked before parsing (ReadScenarioText);
// this finds what only parsing makes, a \u escape of a lone surrogate.
// path is empty for the root.
bool CheckStrings(Checker& check, const Json::Value& value, const std::string& path) {
    const std::string where = path.empty() ? "scenario" : path;
    if (value.isString()) {
        const std::string& text = value.asString();
        if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) return true;
        return check.Fail(value, where, "not valid UTF-8 (a \\u escape of a lone surrogate)");
    }
    if (value.isArray()) {
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            if (!CheckStrings(check, value[i], path + "[" + std::to_string(i) + "]")) return false;
        }
    }
    if (value.isObject()) {
        for (const std::string& key : value.getMemberNames()) {
            const Json::Value& member = value[key];
            if (!g_utf8_validate(key.data(), static_cast<gssize>(key.size()), nullptr))
                return check.Fail(member, where, "a member name is not valid UTF-8");
            if (!CheckStrings(check, member, path.empty() ? key : MemberPath(path, key))) return false;
        }
    }
    return true;
}

bool CheckTupleElement(char type, const Json::Value& element, const std::string& path, std::string& error) {
    bool ok =
        (type == 'u' && element.isUInt()) || (type == 'i' && element.isInt()) || (type == 's' && element.isString());
    // The control interface's text is valid UTF-8, but a \u escape in it can
    // still make a string that g_variant_new_string would refuse.
    if (ok && type == 's' && !g_utf8_validate(element.asCString(), -1, nullptr)) {
        error = path + ": not valid UTF-8 (a \\u escape of a lone surrogate)";
        return false;
    }
    if (ok) return true;
    const char* expected = type == 'u' ? "an unsigned 32-bit integer" : type == 'i' ? "a 32-bit integer" : "a string";
    error = path + ": expected " + expected + ", found " + TypeName(element);
    return false;
}

}  // namespace

bool ParseJsonText(const std::string& text, Json::Value& out, std::string& error) {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    builder["allowComments"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (reader->parse(text.data(), text.data() + text.size(), &out, &errors)) return true;
    error = CompactJsonError(errors);
    return false;
}

bool CheckStatistics(const std::string& subject, const Json::Value& tuples, const std::string& path, std::string& error,
                     const Json::Value** where) {
    const lumora::contract::StatisticsKind* kind = FindStatisticsKind(subject);
    if (kind == nullptr) {
        error = path + ": not a statistics subject";
        return false;
    }
    const std::string tupleTypes = TupleTypes(*kind);
    if (!tuples.isArray()) {
        error = path + ": expected an array of " + kind->arraySignature + " tuples, found " + TypeName(tuples);
        return false;
    }
    for (Json::ArrayIndex i = 0; i < tuples.size(); ++i) {
        const Json::Value& tuple = tuples[i];
        std::string tuplePath = path + "[" + std::to_string(i) + "]";
        if (where != nullptr) *where = &tuple;
        if (!tuple.isArray() || tuple.size() != tupleTypes.size()) {
            error = tuplePath + ": expected an array of " + std::to_string(tupleTypes.size()) + " elements (" +
                    tupleTypes + ")";
            return false;
        }
        for (Json::ArrayIndex j = 0; j < tuple.size(); ++j) {
            std::string elementPath = tuplePath + "[" + std::to_string(j) + "]";
            if (where != nullptr) *where = &tuple[j];
            if (!CheckTupleElement(tupleTypes[j], tuple[j], elementPath, error)) return false;
        }
    }
    return true;
}

namespace {

bool LoadChecked(const std::string& path, Scenario& out, std::string& error) {
    try {
        std::string text;
        if (!ReadFile(path, text, error)) return false;
        Checker check(path, text);
        if (!CheckUtf8Text(check, text) || !CheckNesting(check, text)) {
            error = check.Error();
            return false;
        }
        Json::Value root;
        std::string parseError;
        if (!ParseJsonText(text, root, parseError)) {
            error = path + ":" + parseError;
            return false;
        }
        Scenario scenario;
        if (!CheckStrings(check, root, "") || !ReadScenario(check, root, scenario)) {
            error = check.Error();
            return false;
        }
        out = std::move(scenario);
        return true;
    } catch (const std::exception& e) {
        error = path + ": " + e.what();
        return false;
    }
}

}  // namespace

bool LoadScenario(const std::string& path, Scenario& out, std::string& error) {
    if (LoadChecked(path, out, error)) return true;
    error = OneLine(error);
    return false;
}

std::string ValueText(const Json::Value& value) {
    if (value.isString()) return value.asString();
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
