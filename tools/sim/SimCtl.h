// `lumora-sim ctl`: the command-line client of the control object.
#ifndef LUMORA_SIM_SIMCTL_H
#define LUMORA_SIM_SIMCTL_H

#include <cstdio>

namespace lumora::sim {

/// Runs one control command; argv holds the words after "ctl". Prints what
/// the command answers on stdout. Returns 0 on success, 1 when the bus or the
/// simulator refused, 2 on a usage error.
int RunCtl(int argc, char** argv);

void PrintCtlUsage(FILE* out);

}  // namespace lumora::sim

#endif  // LUMORA_SIM_SIMCTL_H
