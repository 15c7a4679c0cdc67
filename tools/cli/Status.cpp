// lumora status: the feature switch, the bus, the service and the whitelist,
// each on a line of its own, and an exit status that names the first thing
// that stands between this process and the service.
#include <lumora/lumora-api.h>

#include <cstdio>
#include <string>

#include "Cli.h"

namespace lumora::cli {

namespace {

int ExitStatusOf(ServiceProblem problem) {
    switch (problem) {
        case ServiceProblem::kBusUnreachable:
            return kStatusBusUnreachable;
        case ServiceProblem::kNotRunning:
            return kStatusNotRunning;
        case ServiceProblem::kNotAnswering:
            return kStatusNotAnswering;
        case ServiceProblem::kDisabled:
            return kStatusDisabled;
        case ServiceProblem::kNotReady:
            return kStatusNotReady;
        case ServiceProblem::kNone:
            break;
    }
    return kOk;
}

// The library holds the service's whitelist only once the service answered
// "ServiceEnable" to it: when it started, or when it found the service
// disabled (it asks only while the readiness marker exists).
void PrintWhiteList(bool started, const ServiceDiagnosis& diagnosis) {
    const char* process = LMFServiceAPI::_GetProcessName();
    bool answered = started || (diagnosis.problem == ServiceProblem::kDisabled && diagnosis.markerPresent);
    if (!answered || LMFServiceAPI::m_pDbusClient == nullptr) {
        printf("whitelist: unknown for %s (the service did not answer)\n", process);
        return;
    }
    bool granted = LMFServiceAPI::m_pDbusClient->CheckWhiteListProcess();
    printf("whitelist: %s for %s%s\n", granted ? "granted" : "denied", process,
           granted ? "" : " (internal subjects I... are refused)");
}

void OnAvailability(int available, const char* reason, void*) { PrintAvailability(available == 1, reason); }

// The library stays started, whatever its start found: it goes on checking
// and reconnecting by itself, and tells each change.
int Watch(GMainLoop* loop) {
    if (!Lumora_AddAvailabilityCallback(OnAvailability, nullptr)) {
        StopService();
        return Fail("the library refused to tell the service's availability");
    }
    g_main_loop_run(loop);
    Lumora_RemoveAvailabilityCallback(OnAvailability, nullptr);
    StopService();
    return kOk;
}

}  // namespace

int RunStatus(const Options& options, const std::vector<std::string>&) {
    bool switchOn = Is_LMFSupported();
    printf("feature switch: %s\n", switchOn ? "enabled" : "disabled (com.kaldor/featureconf/lumora.service_enable)");
    bool started = Lumora_InitServiceWithResponse(nullptr, nullptr) == LMF_INIT_OK;
    // The library's start is what applications get; the tool's own look at
    // the bus only explains a failed one.
    ServiceDiagnosis diagnosis;
    if (started) {
        diagnosis.address = BusAddress();
    } else {
        diagnosis = DiagnoseService();
    }
    if (diagnosis.problem == ServiceProblem::kBusUnreachable) {
        printf("bus: unreachable (%s: %s)\n", diagnosis.address.empty() ? "no address" : diagnosis.address.c_str(),
               diagnosis.detail.c_str());
    } else {
        printf("bus: connected (%s)\n", diagnosis.address.c_str());
    }
    // Everything answers the tool, yet the library's own, shorter check
    // failed: its log (-v) tells why.
    bool libraryOnly = !started && diagnosis.problem == ServiceProblem::kNone;
    printf("service: %s\n", libraryOnly ? "not ready (the library's check failed; see lumora -v status)"
                                        : ServiceState(diagnosis).c_str());
    PrintWhiteList(started, diagnosis);
    if (options.watch) return FollowUntilStopped(Watch);
    StopService();
    if (diagnosis.problem != ServiceProblem::kNone) return ExitStatusOf(diagnosis.problem);
    if (libraryOnly) return kFailed;
    return switchOn ? kOk : kStatusSwitchOff;
}

}  // namespace lumora::cli
