// lumora: why the context service cannot be used, found step by step on a
// connection of the tool's own: the bus, the service's name, its answer, its
// enabled flag and its readiness marker. The library's start only says
// "not ready" for all of these.
#include <unistd.h>

#include <string>

#include "Cli.h"
#include "internal/ServiceContract.h"

namespace lumora::cli {

namespace {

namespace contract = lumora::contract;

// Longer than the library's own wait for "ServiceEnable" (0.3 s), so that a
// service that is merely slow is not reported as one that does not answer.
constexpr int kProbeTimeoutMs = 1000;

// Takes error; its message for a line.
std::string TakeMessage(GError* error) {
    if (error == nullptr) return "no reason given";
    g_dbus_error_strip_remote_error(error);
    std::string message = error->message;
    g_error_free(error);
    return message;
}

GDBusConnection* ConnectToBus(ServiceDiagnosis& diagnosis) {
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(contract::kBusType, nullptr, &error);
    if (address == nullptr) {
        diagnosis.problem = ServiceProblem::kBusUnreachable;
        diagnosis.detail = TakeMessage(error);
        return nullptr;
    }
    diagnosis.address = address;
    g_free(address);
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(diagnosis.address.c_str(), contract::kConnectionFlags,
                                                                  nullptr, nullptr, &error);
    if (bus == nullptr) {
        diagnosis.problem = ServiceProblem::kBusUnreachable;
        diagnosis.detail = TakeMessage(error);
    }
    return bus;
}

bool NameHasOwner(GDBusConnection* bus, ServiceDiagnosis& diagnosis) {
    GError* error = nullptr;
    GVariant* reply =
        g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                    "NameHasOwner", g_variant_new("(s)", contract::kBusName), G_VARIANT_TYPE("(b)"),
                                    G_DBUS_CALL_FLAGS_NONE, kProbeTimeoutMs, nullptr, &error);
    if (reply == nullptr) {
        // A bus that does not answer its own method is as good as none.
        diagnosis.problem = ServiceProblem::kBusUnreachable;
        diagnosis.detail = TakeMessage(error);
        return false;
    }
    gboolean owned = FALSE;
    g_variant_get(reply, "(b)", &owned);
    g_variant_unref(reply);
    if (!owned) diagnosis.problem = ServiceProblem::kNotRunning;
    return owned != FALSE;
}

// Asks "ServiceEnable" as the library does; false when there is no answer.
bool AskEnabled(GDBusConnection* bus, ServiceDiagnosis& diagnosis, bool& enabled) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(bus, contract::kBusName, contract::kObjectPath, contract::kInterface,
                                                  contract::kMethodServiceEnable, nullptr,
                                                  G_VARIANT_TYPE(contract::kServiceEnableReply),
                                                  G_DBUS_CALL_FLAGS_NO_AUTO_START, kProbeTimeoutMs, nullptr, &error);
    if (reply == nullptr) {
        diagnosis.problem = ServiceProblem::kNotAnswering;
        bool timedOut = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT);
        std::string message = TakeMessage(error);
        std::string method = contract::kMethodServiceEnable;
        diagnosis.detail = timedOut
                               ? "no answer to " + method + " within " + std::to_string(kProbeTimeoutMs / 1000) + " s"
                               : method + " failed: " + message;
        return false;
    }
    gboolean flag = FALSE;
    g_variant_get(reply, "(b&s)", &flag, nullptr);
    g_variant_unref(reply);
    enabled = flag != FALSE;
    return true;
}

}  // namespace

ServiceDiagnosis DiagnoseService() {
    ServiceDiagnosis diagnosis;
    diagnosis.markerPresent = access(contract::kReadyMarkerFile, F_OK) == 0;
    GDBusConnection* bus = ConnectToBus(diagnosis);
    if (bus == nullptr) return diagnosis;
    bool enabled = false;
    if (NameHasOwner(bus, diagnosis) && AskEnabled(bus, diagnosis, enabled)) {
        if (!enabled) {
            diagnosis.problem = ServiceProblem::kDisabled;
        } else if (!diagnosis.markerPresent) {
            diagnosis.problem = ServiceProblem::kNotReady;
        }
    }
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
    return diagnosis;
}

std::string BusAddress() {
    gchar* address = g_dbus_address_get_for_bus_sync(contract::kBusType, nullptr, nullptr);
    std::string text = address != nullptr ? address : "no address";
    g_free(address);
    return text;
}

std::string ServiceState(const ServiceDiagnosis& diagnosis) {
    switch (diagnosis.problem) {
        case ServiceProblem::kNone:
            return "available";
        case ServiceProblem::kBusUnreachable:
            return "unknown (the bus is unreachable)";
        case ServiceProblem::kNotRunning:
            return std::string("not running (") + contract::kBusName + " has no owner on the bus)";
        case ServiceProblem::kNotAnswering:
            return "not answering (" + diagnosis.detail + ")";
        case ServiceProblem::kDisabled:
            return std::string("disabled (it answers ") + contract::kMethodServiceEnable + " with false)";
        case ServiceProblem::kNotReady:
            return std::string("not ready (it answers, but ") + contract::kReadyMarkerFile + " is missing)";
    }
    return "unknown";
}

}  // namespace lumora::cli
