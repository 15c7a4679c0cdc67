// The one place where the tools turn foreign JSON into values: parsing with a
// bound on nesting and checked reads. Nothing here throws.
#include "JsonInput.h"

#include <cmath>
#include <exception>
#include <limits>
#include <memory>
#include <regex>

namespace lumora::tools {

namespace {

void Configure(Json::CharReaderBuilder& builder, JsonDialect dialect, int maxDepth) {
    if (dialect == JsonDialect::kStrict) {
        Json::CharReaderBuilder::strictMode(&builder.settings_);
        builder["strictRoot"] = false;     // a number or a string is JSON too
        builder["rejectDupKeys"] = false;  // the last one counts, as everywhere
    } else {
        builder["allowComments"] = true;
        builder["rejectDupKeys"] = true;
        builder["failIfExtra"] = true;
    }
    // A second line behind TooDeepAt: jsoncpp counts somewhat differently
    // (and throws when the count is passed).
    builder["stackLimit"] = maxDepth + 2;
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

bool IsIdentifier(const std::string& key) {
    if (key.empty() || (key[0] >= '0' && key[0] <= '9')) return false;
    for (char c : key) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        if (!ok) return false;
    }
    return true;
}

const Json::Value& Null() {
    static const Json::Value null;
    return null;
}

}  // namespace

std::string JsonQuoted(const std::string& text) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, Json::Value(text));
}

std::ptrdiff_t TooDeepAt(const std::string& text, int maxDepth) {
    enum { kCode, kString, kLineComment, kBlockComment } state = kCode;
    int depth = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        char next = i + 1 < text.size() ? text[i + 1] : '\0';
        if (state == kString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                state = kCode;
            }
        } else if (state == kLineComment) {
            if (c == '\n') state = kCode;
        } else if (state == kBlockComment) {
            if (c == '*' && next == '/') {
                state = kCode;
                ++i;
            }
        } else if (c == '"') {
            state = kString;
        } else if (c == '/' && (next == '/' || next == '*')) {
            state = next == '/' ? kLineComment : kBlockComment;
            ++i;
        } else if (c == '[' || c == '{') {
            if (++depth > maxDepth) return static_cast<std::ptrdiff_t>(i);
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return -1;
}

std::string TextPosition(const std::string& text, std::ptrdiff_t offset) {
    int line = 1;
    int column = 1;
    for (std::ptrdiff_t i = 0; i < offset && i < static_cast<std::ptrdiff_t>(text.size()); ++i) {
        if (text[static_cast<size_t>(i)] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return std::to_string(line) + ":" + std::to_string(column);
}

bool ParseJson(const std::string& text, Json::Value& out, std::string& error, JsonDialect dialect, int maxDepth) {
    std::ptrdiff_t deep = TooDeepAt(text, maxDepth);
    if (deep >= 0) {
        error = TextPosition(text, deep) + ": nested more than " + std::to_string(maxDepth) + " levels deep";
        return false;
    }
    Json::CharReaderBuilder builder;
    Configure(builder, dialect, maxDepth);
    try {
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        std::string errors;
        if (reader->parse(text.data(), text.data() + text.size(), &out, &errors)) return true;
        error = CompactJsonError(errors);
    } catch (const std::exception& e) {
        error = std::string("1:1: ") + e.what();
    }
    return false;
}

const char* JsonTypeName(const Json::Value& value) {
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

JsonField::JsonField(const Json::Value& root, JsonPathStyle style, std::string rootName)
    : JsonField(&root, true, std::move(rootName), style, true) {}

JsonField::JsonField(const Json::Value* value, bool present, std::string path, JsonPathStyle style, bool root)
    : m_value(value), m_present(present), m_path(std::move(path)), m_style(style), m_root(root) {}

std::string JsonField::MemberPath(const std::string& key) const {
    if (m_style == JsonPathStyle::kBracketed) return m_root ? key : m_path + "[\"" + key + "\"]";
    // A path stays one line whatever the key holds.
    return IsIdentifier(key) ? m_path + "." + key : m_path + "[" + JsonQuoted(key) + "]";
}

JsonField JsonField::operator[](const std::string& key) const {
    const Json::Value* member = IsObject() ? m_value->find(key.data(), key.data() + key.size()) : nullptr;
    return JsonField(member != nullptr ? member : &Null(), member != nullptr, MemberPath(key), m_style, false);
}

JsonField JsonField::operator[](Json::ArrayIndex index) const {
    bool present = IsArray() && index < m_value->size();
    const Json::Value* element = present ? &(*m_value)[index] : &Null();
    return JsonField(element, present, m_path + "[" + std::to_string(index) + "]", m_style, false);
}

Json::ArrayIndex JsonField::Size() const { return IsArray() ? m_value->size() : 0; }

std::vector<std::string> JsonField::Keys() const {
    return IsObject() ? m_value->getMemberNames() : std::vector<std::string>();
}

std::string JsonField::What() const { return m_present ? JsonTypeName(*m_value) : "nothing"; }

bool JsonField::Expect(bool ok, const std::string& expected, std::string& error) const {
    return ok || Fail("expected " + expected + ", found " + What(), error);
}

bool JsonField::Fail(const std::string& what, std::string& error) const {
    error = m_path + ": " + what;
    return false;
}

bool JsonField::ReadText(std::string& out, std::string& error) const {
    if (!Expect(IsText(), "a string", error)) return false;
    out = m_value->asString();
    return true;
}

bool JsonField::ReadName(std::string& out, std::string& error) const {
    if (!Expect(IsText() && !m_value->asString().empty(), "a string that is not empty", error)) return false;
    out = m_value->asString();
    return true;
}

bool JsonField::ReadBool(bool& out, std::string& error) const {
    if (!Expect(m_present && m_value->isBool(), "true or false", error)) return false;
    out = m_value->asBool();
    return true;
}

bool JsonField::ReadIntIn(long long& out, long long low, long long high, std::string& error) const {
    bool whole = m_present && (m_value->isInt64() || m_value->isUInt64());
    if (!Expect(whole, "a whole number", error)) return false;
    // An unsigned value above the largest signed one is out of every range here.
    bool fits = m_value->isInt64() && m_value->asInt64() >= low && m_value->asInt64() <= high;
    if (!fits) {
        return Fail(
            m_value->asString() + " is out of range (" + std::to_string(low) + " to " + std::to_string(high) + ")",
            error);
    }
    out = m_value->asInt64();
    return true;
}

bool JsonField::ReadInt(int& out, std::string& error) const {
    bool whole = m_present && (m_value->isInt64() || m_value->isUInt64());
    if (!Expect(whole, "a 32-bit integer", error)) return false;
    if (!m_value->isInt()) return Fail(m_value->asString() + " is out of range for a 32-bit integer", error);
    out = m_value->asInt();
    return true;
}

bool JsonField::ReadUInt(unsigned& out, std::string& error) const {
    bool whole = m_present && (m_value->isInt64() || m_value->isUInt64());
    if (!Expect(whole, "an unsigned 32-bit integer", error)) return false;
    if (!m_value->isUInt()) return Fail(m_value->asString() + " is out of range for an unsigned 32-bit integer", error);
    out = m_value->asUInt();
    return true;
}

bool JsonField::ReadNumber(double& out, std::string& error) const {
    if (!Expect(m_present && m_value->isNumeric() && std::isfinite(m_value->asDouble()), "a number", error))
        return false;
    out = m_value->asDouble();
    return true;
}

std::string JsonField::TextOr(const std::string& fallback) const { return IsText() ? m_value->asString() : fallback; }

long long JsonField::IntOr(long long fallback) const {
    return m_present && m_value->isInt64() ? m_value->asInt64() : fallback;
}

double JsonField::NumberOr(double fallback) const {
    return m_present && m_value->isNumeric() ? m_value->asDouble() : fallback;
}

bool JsonField::BoolOr(bool fallback) const { return m_present && m_value->isBool() ? m_value->asBool() : fallback; }

}  // namespace lumora::tools
