// The typed usage-statistics arrays that "RequestAsync" carries for the five
// statistics subjects, built from a scenario's tuples.
#ifndef LUMORA_SIM_STATISTICS_H
#define LUMORA_SIM_STATISTICS_H

#include <gio/gio.h>
#include <json/json.h>

#include <string>

#include "internal/ServiceContract.h"

namespace lumora::sim {

/// The statistics kind of subject, or null when it is none of the five.
const lumora::contract::StatisticsKind* FindStatisticsKind(const std::string& subject);

/// The element types of one tuple of kind, e.g. "uusssi" for "a(uusssi)".
std::string TupleTypes(const lumora::contract::StatisticsKind& kind);

/// A floating array of kind's signature holding tuples, which must already have
/// passed CheckStatistics. A null or empty tuples gives an empty array.
GVariant* BuildStatisticsArray(const lumora::contract::StatisticsKind& kind, const Json::Value& tuples);

/// The other way: the tuples of array in the form BuildStatisticsArray takes
/// (unsigned and signed integers, strings, in wire order), from which it
/// builds an equal array. False, tuples untouched, when array is not of
/// kind's signature.
bool StatisticsTuples(const lumora::contract::StatisticsKind& kind, GVariant* array, Json::Value& tuples);

}  // namespace lumora::sim

#endif  // LUMORA_SIM_STATISTICS_H
