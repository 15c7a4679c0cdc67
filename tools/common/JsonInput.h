// JSON that the tools take from outside (a file, a socket, a command line, the
// bus), read at one boundary: parsing that never throws and bounds nesting,
// and checked reads that name the value's path and what it should have been.
// jsoncpp's as*() accessors throw on a wrong type, and an exception that
// leaves a libsoup or GLib callback ends the process: nothing of foreign JSON
// is read with them outside this file.
#ifndef LUMORA_TOOLS_COMMON_JSONINPUT_H
#define LUMORA_TOOLS_COMMON_JSONINPUT_H

#include <json/json.h>

#include <cstddef>
#include <string>
#include <vector>

namespace lumora::tools {

/// The deepest nesting of arrays and objects taken unless a caller asks for
/// less: no value the tools exchange comes near it, and jsoncpp's recursive
/// reader and writer stay far from the end of the stack.
constexpr int kMaxJsonDepth = 512;

/// What is taken beside strict JSON.
enum class JsonDialect {
    kStrict,        // RFC 8259 only; any value may be the root (the service's answers)
    kWithComments,  // "//" and "/* */" comments, a byte order mark and trailing commas
                    // (the simulator's files and control texts); duplicate keys refused
};

/// Parses text as exactly one JSON value. Never throws. On failure returns
/// false, leaves out unspecified and sets error to "LINE:COLUMN: reason";
/// text nested deeper than maxDepth is refused where the level that is too
/// deep opens, before jsoncpp sees it.
bool ParseJson(const std::string& text, Json::Value& out, std::string& error,
               JsonDialect dialect = JsonDialect::kWithComments, int maxDepth = kMaxJsonDepth);

/// The offset of the bracket or brace that opens level maxDepth + 1 of text,
/// or -1 when it is nested no deeper. Strings and comments are skipped as
/// the parser skips them.
std::ptrdiff_t TooDeepAt(const std::string& text, int maxDepth);

/// "LINE:COLUMN" (both from 1) of offset in text.
std::string TextPosition(const std::string& text, std::ptrdiff_t offset);

/// text as a JSON string, for messages that must stay one line whatever a
/// foreign name holds.
std::string JsonQuoted(const std::string& text);

/// What a value is, for messages: "a string", "an integer", "an object"...
const char* JsonTypeName(const Json::Value& value);

/// How paths are written.
enum class JsonPathStyle {
    kJsonPath,   // $.events[3].code, $["a/b"]: what the tools say of texts and posts
    kBracketed,  // resultCodes["a/b"][0]: as scenario files have always been reported
};

/**
 * A value inside a parsed document with its path. A member that is absent is
 * a field too, whose reads fail with "found nothing". Reads never throw: each
 * is true with out set, or false with error "PATH: expected WHAT, found WHAT"
 * and out unchanged. The document must outlive its fields.
 */
class JsonField {
public:
    /// The root of a document. kJsonPath roots are "$"; a kBracketed root is
    /// called rootName in messages about itself, and its members by their
    /// bare names.
    explicit JsonField(const Json::Value& root, JsonPathStyle style = JsonPathStyle::kJsonPath,
                       std::string rootName = "$");

    const Json::Value& Value() const { return *m_value; }
    const std::string& Path() const { return m_path; }
    bool Present() const { return m_present; }
    /// Absent, or JSON null.
    bool IsNull() const { return !m_present || m_value->isNull(); }

    /// The member named key; absent unless this is an object that has it.
    JsonField operator[](const std::string& key) const;
    /// The element at index; absent unless this is an array that long.
    JsonField operator[](Json::ArrayIndex index) const;
    /// The elements of an array, 0 for anything else.
    Json::ArrayIndex Size() const;
    /// The member names of an object, none for anything else.
    std::vector<std::string> Keys() const;

    bool ReadText(std::string& out, std::string& error) const;
    /// A string that is not empty.
    bool ReadName(std::string& out, std::string& error) const;
    bool ReadBool(bool& out, std::string& error) const;
    bool ReadInt(int& out, std::string& error) const;
    bool ReadUInt(unsigned& out, std::string& error) const;
    /// A whole number from low to high.
    bool ReadIntIn(long long& out, long long low, long long high, std::string& error) const;
    /// A finite number of any kind.
    bool ReadNumber(double& out, std::string& error) const;

    /// The same reads of a member that may be left out: absent or null is no
    /// error and leaves out as it was.
    bool ReadOptional(bool& out, std::string& error) const { return IsNull() || ReadBool(out, error); }
    bool ReadOptionalIn(long long& out, long long low, long long high, std::string& error) const {
        return IsNull() || ReadIntIn(out, low, high, error);
    }

    /// ok, or false with error "PATH: expected EXPECTED, found TYPE".
    bool Expect(bool ok, const std::string& expected, std::string& error) const;
    bool ExpectObject(std::string& error) const { return Expect(IsObject(), "an object", error); }
    bool ExpectArray(std::string& error) const { return Expect(IsArray(), "an array", error); }
    /// Always false, with error "PATH: what".
    bool Fail(const std::string& what, std::string& error) const;

    bool IsObject() const { return m_present && m_value->isObject(); }
    bool IsArray() const { return m_present && m_value->isArray(); }
    bool IsText() const { return m_present && m_value->isString(); }

    /// Lenient reads, for what is only shown or counted: the value when it
    /// has that type, else fallback.
    std::string TextOr(const std::string& fallback) const;
    long long IntOr(long long fallback) const;
    double NumberOr(double fallback) const;
    bool BoolOr(bool fallback) const;

private:
    JsonField(const Json::Value* value, bool present, std::string path, JsonPathStyle style, bool root);
    std::string MemberPath(const std::string& key) const;
    std::string What() const;

    const Json::Value* m_value;
    bool m_present;
    std::string m_path;
    JsonPathStyle m_style;
    bool m_root;
};

}  // namespace lumora::tools

#endif  // LUMORA_TOOLS_COMMON_JSONINPUT_H
