// Fuzzes lumora-sim's scenario loader: the input is written to a file and
// loaded. A refused file must be reported in one line that starts with the
// file's name and, for anything wrong with the text, its LINE:COLUMN (a
// position inside the text); a loaded one must hold nothing the simulator
// could not send: every text valid UTF-8, every statistics array building to
// its subject's type with one tuple per entry, the whitelist a JSON text
// that gives the names back.
#include <json/json.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"
#include "JsonSupport.h"
#include "Scenario.h"
#include "Statistics.h"

using fuzz::Check;

namespace {

std::string g_path;

bool AllDigits(const std::string& text) {
    if (text.empty()) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

// "LINE:COLUMN: " at the start of message, with the position inside text.
bool StartsWithPosition(const std::string& message, const std::string& text) {
    size_t colon = message.find(':');
    if (colon == std::string::npos) return false;
    size_t second = message.find(':', colon + 1);
    if (second == std::string::npos || message.compare(second, 2, ": ") != 0) return false;
    std::string line = message.substr(0, colon);
    std::string column = message.substr(colon + 1, second - colon - 1);
    if (!AllDigits(line) || !AllDigits(column) || line.size() > 9 || column.size() > 9) return false;
    long lineNumber = std::stol(line);
    long columnNumber = std::stol(column);
    // jsoncpp also counts a lone carriage return as a line break.
    long lines = 1;
    for (size_t i = 0; i < text.size(); ++i) {
        lines += text[i] == '\n' || (text[i] == '\r' && (i + 1 == text.size() || text[i + 1] != '\n'));
    }
    // The column may point one past the end of a line (at its newline, or
    // at the end of the text).
    return lineNumber >= 1 && lineNumber <= lines && columnNumber >= 1 &&
           columnNumber <= static_cast<long>(text.size()) + 1;
}

void CheckRefusal(const std::string& error, const std::string& text) {
    Check(!error.empty() && error.find('\n') == std::string::npos);
    Check(error.compare(0, g_path.size() + 1, g_path + ":") == 0);
    Check(fuzz::IsUtf8(error));
    std::string message = error.substr(g_path.size() + 1);
    // Only a file that cannot be read has no position; this one always can.
    Check(StartsWithPosition(message, text));
}

void CheckLoaded(const lumora::sim::Scenario& scenario) {
    for (const std::string& name : scenario.whiteList) Check(fuzz::IsUtf8(name));
    std::string whiteList = lumora::sim::WhiteListJson(scenario.whiteList);
    Check(fuzz::IsUtf8(whiteList));
    Json::Value root;
    Check(fuzz::ParseJson(whiteList, root) && root["WhiteList"].size() == scenario.whiteList.size());
    for (Json::ArrayIndex i = 0; i < root["WhiteList"].size(); ++i)
        Check(root["WhiteList"][i].asString() == scenario.whiteList[i]);

    for (const auto& [subject, value] : scenario.values) Check(fuzz::IsUtf8(subject) && fuzz::IsUtf8(value));
    for (const auto& [subject, code] : scenario.resultCodes) Check(fuzz::IsUtf8(subject));
    for (const auto& [subject, delay] : scenario.delaysMs) Check(fuzz::IsUtf8(subject) && delay <= 600000);
    for (const auto& [subject, tuples] : scenario.statistics) {
        const lumora::contract::StatisticsKind* kind = lumora::sim::FindStatisticsKind(subject);
        Check(kind != nullptr && tuples.isArray());
        GVariant* array = g_variant_ref_sink(lumora::sim::BuildStatisticsArray(*kind, tuples));
        Check(g_variant_is_of_type(array, G_VARIANT_TYPE(kind->arraySignature)));
        Check(g_variant_n_children(array) == tuples.size());
        g_variant_unref(array);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_path = fuzz::ScratchFolder() + "/scenario.json";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text = fuzz::WriteScratchFile(g_path, data, size);

    lumora::sim::Scenario scenario;
    std::string error;
    if (lumora::sim::LoadScenario(g_path, scenario, error)) {
        Check(error.empty());
        CheckLoaded(scenario);
    } else {
        CheckRefusal(error, text);
    }
    return 0;
}
