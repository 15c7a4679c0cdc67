// lumora: how values and failures are printed.
#include <json/json.h>

#include <cstdio>

#include "Cli.h"
#include "JsonInput.h"

namespace lumora::cli {

namespace {

// The value indented as JSON, or as it came when it is not JSON, or nested
// too deep to be taken as such.
std::string Indented(const std::string& value) {
    Json::Value root;
    return ParseJsonInput(value, root) ? JsonText(root, true) : value;
}

// A JSON text on one line as the service wrote it, only without the
// whitespace between tokens: jsoncpp would sort the keys and rewrite
// numbers (0.1 as 0.10000000000000001). A raw control character inside a
// string, which jsoncpp lets through, is escaped to keep the line one line.
std::string WithoutWhitespace(const std::string& json) {
    std::string text;
    bool inString = false;
    bool escaped = false;
    for (char c : json) {
        auto byte = static_cast<unsigned char>(c);
        if (!inString && (c == ' ' || c == '\t' || c == '\n' || c == '\r')) continue;
        if (inString && byte < 0x20) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\u%04x", byte);
            text += escape;
            continue;
        }
        text += c;
        if (escaped) {
            escaped = false;
        } else if (inString && c == '\\') {
            escaped = true;
        } else if (c == '"') {
            inString = !inString;
        }
    }
    return text;
}

}  // namespace

bool ParseJsonInput(const std::string& text, Json::Value& value) {
    std::string error;
    return tools::ParseJson(text, value, error, tools::JsonDialect::kStrict);
}

std::string JsonText(const Json::Value& value, bool pretty) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = pretty ? "  " : "";
    writer["emitUTF8"] = true;
    return Json::writeString(writer, value);
}

void PrintValue(const Options& options, const std::string& value) {
    PrintText(options.pretty ? Indented(value) : value);
}

void PrintText(const std::string& text) {
    fprintf(stdout, "%s\n", text.c_str());
    fflush(stdout);
}

std::string EventData(const std::string& data) {
    Json::Value parsed;
    return ParseJsonInput(data, parsed) ? WithoutWhitespace(data) : JsonText(data, false);
}

void PrintEvent(const std::string& subject, const std::string& data) {
    // Written by hand so that "subject" comes first: jsoncpp sorts keys.
    PrintText("{\"subject\":" + JsonText(subject, false) + ",\"data\":" + EventData(data) + "}");
}

void PrintAvailability(bool available, const std::string& reason) {
    PrintText(std::string("{\"event\":\"") + (available ? "available" : "unavailable") +
              "\",\"reason\":" + JsonText(reason, false) + "}");
}

void Warn(const std::string& reason) { fprintf(stderr, "lumora: %s\n", reason.c_str()); }

int Fail(const std::string& reason) {
    Warn(reason);
    return kFailed;
}

}  // namespace lumora::cli
