// JSON texts in tests: parsed (a text that is not JSON fails the test) and
// written compactly, to compare documents whatever their spacing.
#ifndef LUMORA_TESTS_JSONTEXT_H
#define LUMORA_TESTS_JSONTEXT_H

#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>
#include <string>

namespace lumora::test {

inline Json::Value ParseJson(const std::string& text) {
    Json::Value value;
    std::string errors;
    std::istringstream in(text);
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &value, &errors))
        ADD_FAILURE() << "not JSON: " << text << ": " << errors;
    return value;
}

// One line, keys in jsoncpp's (sorted) order.
inline std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

}  // namespace lumora::test

#endif
