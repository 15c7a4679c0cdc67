// JSON as the library reads it (ContextData: trailing text refused, comments
// allowed and dropped), for the targets that check what it stored or handed on.
#ifndef LUMORA_FUZZ_JSONSUPPORT_H
#define LUMORA_FUZZ_JSONSUPPORT_H

#include <json/json.h>

#include <exception>
#include <memory>
#include <string>

namespace fuzz {

// False for a text that ContextData::MakeData refuses (root is then not to be used).
inline bool ParseJson(const std::string& text, Json::Value& root) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
    } catch (const std::exception&) {
        return false;  // nesting deeper than the parser allows
    }
}

// A member read as ContextData::GetValueStr reads it: a string as itself, a
// number or boolean as its text, anything else as "".
inline std::string ScalarText(const Json::Value& value) {
    if (value.isString()) return value.asString();
    if (value.isNull() || !value.isConvertibleTo(Json::stringValue)) return std::string();
    return value.asString();
}

}  // namespace fuzz

#endif  // LUMORA_FUZZ_JSONSUPPORT_H
