// lumora: how values and failures are printed.
#include <json/json.h>

#include <cstdio>
#include <memory>
#include <sstream>

#include "Cli.h"

namespace lumora::cli {

namespace {

// The value indented as JSON, or as it came when it is not JSON.
std::string Indented(const std::string& value) {
    Json::CharReaderBuilder reader;
    std::unique_ptr<Json::CharReader> parser(reader.newCharReader());
    Json::Value root;
    if (!parser->parse(value.data(), value.data() + value.size(), &root, nullptr)) return value;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    writer["emitUTF8"] = true;
    return Json::writeString(writer, root);
}

}  // namespace

void PrintValue(const Options& options, const std::string& value) {
    std::string text = options.pretty ? Indented(value) : value;
    fprintf(stdout, "%s\n", text.c_str());
    fflush(stdout);
}

int Fail(const std::string& reason) {
    fprintf(stderr, "lumora: %s\n", reason.c_str());
    return kFailed;
}

}  // namespace lumora::cli
