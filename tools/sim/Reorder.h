// The simulator's answer to a channel reorder request.
#ifndef LUMORA_SIM_REORDER_H
#define LUMORA_SIM_REORDER_H

#include <string>

#include "internal/ServiceContract.h"

namespace lumora::sim {

/// The subject whose read carries a candidate order.
constexpr const char* kReorderSubject = lumora::contract::subjects::kChannelReorder;

/// When input is {"reorder":[{"major":m,"minor":n},...], ...}, sets answer to
/// {"reorder":[...]} holding the same channels ordered by major, then minor
/// number (a stable, predictable stand-in for the television's own order) and
/// returns true. Returns false for any other input.
bool ReorderCandidates(const std::string& input, std::string& answer);

}  // namespace lumora::sim

#endif  // LUMORA_SIM_REORDER_H
