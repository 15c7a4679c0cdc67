// lumora: the five usage-statistics record types, as JSON.
#include "Statistics.h"

#include "Cli.h"
#include "internal/ServiceContract.h"

namespace lumora::cli {

namespace {

namespace contract = lumora::contract;

Json::Value Number(int64_t value) { return Json::Value(static_cast<Json::Int64>(value)); }
Json::Value Number(int32_t value) { return Json::Value(value); }
Json::Value Text(const char* text) { return text != nullptr ? Json::Value(text) : Json::Value(Json::nullValue); }

Record Onoff(const void* record) {
    const auto& item = *static_cast<const OnoffDurationItem*>(record);
    return {{"field1", Number(item.field1)}, {"field2", Number(item.field2)}};
}

Record App(const void* record) {
    const auto& item = *static_cast<const AppDurationItem*>(record);
    return {{"field1", Number(item.field1)}, {"field2", Number(item.field2)}, {"field3", Text(item.field3)},
            {"field4", Text(item.field4)},   {"field5", Number(item.field5)}, {"field6", Text(item.field6)}};
}

Record Channel(const void* record) {
    const auto& item = *static_cast<const ChannelDurationItem*>(record);
    return {{"field1", Number(item.field1)}, {"field2", Number(item.field2)}, {"field3", Text(item.field3)},
            {"field4", Number(item.field4)}, {"field5", Number(item.field5)}, {"field6", Text(item.field6)},
            {"field7", Text(item.field7)}};
}

Record Genre(const void* record) {
    const auto& item = *static_cast<const GenreDurationItem*>(record);
    return {{"field1", Number(item.field1)},
            {"field2", Number(item.field2)},
            {"field3", Text(item.field3)},
            {"field4", Text(item.field4)}};
}

Record Content(const void* record) {
    const auto& item = *static_cast<const ContentDurationItem*>(record);
    return {{"field1", Number(item.field1)},   {"field2", Number(item.field2)},  {"field3", Text(item.field3)},
            {"field4", Text(item.field4)},     {"field5", Text(item.field5)},    {"field6", Text(item.field6)},
            {"field7", Text(item.field7)},     {"field8", Text(item.field8)},    {"field9", Text(item.field9)},
            {"field10", Number(item.field10)}, {"field11", Number(item.field11)}};
}

// In the order of the service's own list of statistics subjects.
const StatisticsKind kKinds[] = {
    {"onoff", contract::kStatisticsKinds[0].subject, sizeof(OnoffDurationItem), Onoff},
    {"app", contract::kStatisticsKinds[1].subject, sizeof(AppDurationItem), App},
    {"channel", contract::kStatisticsKinds[2].subject, sizeof(ChannelDurationItem), Channel},
    {"genre", contract::kStatisticsKinds[3].subject, sizeof(GenreDurationItem), Genre},
    {"content", contract::kStatisticsKinds[4].subject, sizeof(ContentDurationItem), Content},
};

std::string RecordText(const Record& record, bool pretty) {
    const char* open = pretty ? "{\n    " : "{";
    const char* separator = pretty ? ",\n    " : ",";
    const char* colon = pretty ? " : " : ":";
    std::string text = open;
    for (size_t i = 0; i < record.size(); ++i) {
        if (i > 0) text += separator;
        text += std::string("\"") + record[i].first + "\"" + colon + JsonText(record[i].second, false);
    }
    return text + (pretty ? "\n  }" : "}");
}

}  // namespace

const StatisticsKind* FindStatisticsKindByName(const std::string& name) {
    for (const StatisticsKind& kind : kKinds) {
        if (name == kind.name) return &kind;
    }
    return nullptr;
}

const StatisticsKind* FindStatisticsKindBySubject(const std::string& subject) {
    for (const StatisticsKind& kind : kKinds) {
        if (subject == kind.subject) return &kind;
    }
    return nullptr;
}

std::string StatisticsKindNames() {
    std::string names;
    size_t count = sizeof kKinds / sizeof kKinds[0];
    for (size_t i = 0; i < count; ++i) {
        if (i > 0) names += i + 1 < count ? ", " : " or ";
        names += kKinds[i].name;
    }
    return names;
}

bool DecodeStatistics(const std::string& subject, const StatisticsResult& result, std::vector<Record>& records,
                      std::string& failure) {
    records.clear();
    if (result.count <= 0) return true;
    const StatisticsKind* kind = FindStatisticsKindBySubject(subject);
    if (kind == nullptr) {
        failure = "the answer names " + subject + ", which has no record type";
        return false;
    }
    // The library keeps the count when it cannot allocate the records.
    if (result.items == nullptr) {
        failure = "the library could not store the " + std::to_string(result.count) + " records of " + subject;
        return false;
    }
    const char* items = static_cast<const char*>(result.items);
    for (int32_t i = 0; i < result.count; ++i)
        records.push_back(kind->decode(items + static_cast<size_t>(i) * kind->recordSize));
    return true;
}

// Laid out as jsoncpp lays out an indented array, so that --pretty looks the
// same for every command.
std::string RecordsText(const std::vector<Record>& records, bool pretty) {
    if (records.empty()) return "[]";
    std::string text = pretty ? "[\n  " : "[";
    for (size_t i = 0; i < records.size(); ++i) {
        if (i > 0) text += pretty ? ",\n  " : ",";
        text += RecordText(records[i], pretty);
    }
    return text + (pretty ? "\n]" : "]");
}

}  // namespace lumora::cli
