// lumora: starting and stopping the library's connection to the service.
#include <glib-unix.h>
#include <lumora/lumora-api.h>

#include <csignal>

#include "Cli.h"

namespace lumora::cli {

namespace {

// The library says only "not ready"; the tool looks for the reason itself.
std::string NotReadyReason() {
    ServiceDiagnosis diagnosis = DiagnoseService();
    switch (diagnosis.problem) {
        case ServiceProblem::kNone:
        case ServiceProblem::kBusUnreachable:  // gone since the library connected
            return "the context service is not ready";
        default:
            return "the context service is " + ServiceState(diagnosis);
    }
}

gboolean OnStopSignal(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

}  // namespace

int FollowUntilStopped(const std::function<int(GMainLoop*)>& follow) {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    guint interrupt = g_unix_signal_add(SIGINT, OnStopSignal, loop);
    guint terminate = g_unix_signal_add(SIGTERM, OnStopSignal, loop);
    int status = follow(loop);
    g_source_remove(interrupt);
    g_source_remove(terminate);
    g_main_loop_unref(loop);
    return status;
}

bool StartService() {
    if (!Is_LMFSupported()) {
        Fail("the context service is disabled on this device (feature com.kaldor/featureconf/lumora.service_enable)");
        return false;
    }
    switch (Lumora_InitServiceWithResponse(nullptr, nullptr)) {
        case LMF_INIT_OK:
            return true;
        case LMF_INIT_CONNECTION_FAILED:
            Fail("cannot connect to the system bus (DBUS_SYSTEM_BUS_ADDRESS)");
            break;
        case LMF_INIT_SERVICE_NOT_READY:
        default:  // the library gives no other outcome
            Fail(NotReadyReason());
            break;
    }
    StopService();
    return false;
}

// The last stop flushes the connection, so a queued write leaves before exit.
void StopService() { Lumora_FiniService(); }

bool MayUseSubject(const std::string& subject) {
    if (!LMFServiceAPI::_CheckInternalSubject(subject.c_str()) || LMFServiceAPI::m_pDbusClient->CheckWhiteListProcess())
        return true;
    Fail(subject + " is internal and this process (" + LMFServiceAPI::_GetProcessName() +
         ") is not on the service's whitelist");
    return false;
}

}  // namespace lumora::cli
