// lumora: the five usage-statistics record types, as JSON.
#ifndef LUMORA_TOOLS_CLI_STATISTICS_H
#define LUMORA_TOOLS_CLI_STATISTICS_H

#include <json/json.h>
#include <lumora/lumora-c.h>

#include <string>
#include <utility>
#include <vector>

namespace lumora::cli {

// One record as (field name, value) pairs in the record struct's order,
// which jsoncpp's sorted objects would lose (field10 before field2).
using Record = std::vector<std::pair<const char*, Json::Value>>;

struct StatisticsKind {
    const char* name;  // as "lumora stats" takes it
    const char* subject;
    size_t recordSize;
    Record (*decode)(const void* record);
};

const StatisticsKind* FindStatisticsKindByName(const std::string& name);
const StatisticsKind* FindStatisticsKindBySubject(const std::string& subject);
// "onoff, app, channel, genre or content"
std::string StatisticsKindNames();

// The records of a statistics answer for subject (the subject the answer
// names). False, with failure set, when they cannot be shown.
bool DecodeStatistics(const std::string& subject, const StatisticsResult& result, std::vector<Record>& records,
                      std::string& failure);
// A JSON array of objects, compact on one line or indented.
std::string RecordsText(const std::vector<Record>& records, bool pretty);

}  // namespace lumora::cli

#endif
