// The simulated television's state as a scenario file describes it, and the
// loader that refuses a malformed file with its file, line and reason.
#ifndef LUMORA_SIM_SCENARIO_H
#define LUMORA_SIM_SCENARIO_H

#include <json/json.h>

#include <map>
#include <string>
#include <vector>

namespace lumora::sim {

/**
 * Everything the simulator answers from. Values are kept as the text the
 * service sends: a JSON string in the file is taken as that text itself,
 * any other JSON value as its compact serialisation.
 */
struct Scenario {
    bool enabled = true;
    bool broadcastResponses = false;
    std::vector<std::string> whiteList;
    std::map<std::string, std::string> values;
    std::map<std::string, int> resultCodes;
    std::map<std::string, unsigned> delaysMs;
    // Statistics subject -> array of tuples in wire order, already checked
    // against the subject's signature.
    std::map<std::string, Json::Value> statistics;
};

/// Reads and checks a scenario file. On failure returns false and sets error
/// to one line "FILE:LINE:COLUMN: what is wrong" (or "FILE: ..." when no
/// position applies). Never throws.
bool LoadScenario(const std::string& path, Scenario& out, std::string& error);

/// Checks statistics tuples for subject against its array signature. On
/// failure error names the offending element by its JSON path (path is that of
/// tuples) and, when where is given, *where points at that element.
bool CheckStatistics(const std::string& subject, const Json::Value& tuples, const std::string& path, std::string& error,
                     const Json::Value** where = nullptr);

/// The text answered for a scenario value (see Scenario).
std::string ValueText(const Json::Value& value);

/// The whitelist as the service sends it: {"WhiteList":[...]}.
std::string WhiteListJson(const std::vector<std::string>& names);

}  // namespace lumora::sim

#endif  // LUMORA_SIM_SCENARIO_H
