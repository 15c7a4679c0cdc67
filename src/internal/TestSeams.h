// Seams for faults a real bus cannot produce on demand. Not exported: only the
// tests that link the library's objects statically can reach them.
#ifndef LUMORA_INTERNAL_TESTSEAMS_H
#define LUMORA_INTERNAL_TESTSEAMS_H

namespace lumora::internal {

// Sets the request-id sequence, so that a test can reach the wrap at the
// largest int without sending two billion messages.
void SetRequestIdCounterForTesting(int value);

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_TESTSEAMS_H
