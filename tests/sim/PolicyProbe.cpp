// A small client that the bus-policy test runs as an unprivileged user:
//   policy_probe ADDRESS own      tries to own the service name
//   policy_probe ADDRESS call     calls "ServiceEnable"
//   policy_probe ADDRESS receive  subscribes to a subject, has the simulator
//                                 emit it, and waits for the "Response" signal
//   policy_probe ADDRESS forge    sends the service's "Response" signal as if
//                                 it were the service: a value, "BYE" and
//                                 "HELLO", between two "Canary" signals of an
//                                 interface of its own
// Prints one line with the outcome; exit status 0 when the probe ran.
#include <gio/gio.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "ControlContract.h"
#include "internal/ServiceContract.h"

namespace {

namespace contract = lumora::contract;
constexpr const char* kProbeSubject = "Probe/Policy";
// Signals of the probe's own: nothing in the policy restricts them, so they
// show that the forger's signals reach the bus at all.
constexpr const char* kCanaryInterface = "org.verdin.tv.lumora2.PolicyProbe";

std::string Outcome(GVariant* reply, GError* error) {
    if (reply == nullptr) {
        gchar* name = g_dbus_error_get_remote_error(error);
        std::string text = std::string("error ") + (name != nullptr ? name : error->message);
        g_free(name);
        g_error_free(error);
        return text;
    }
    gchar* printed = g_variant_print(reply, FALSE);
    std::string text = std::string("reply ") + printed;
    g_free(printed);
    g_variant_unref(reply);
    return text;
}

std::string Call(GDBusConnection* bus, const char* destination, const char* path, const char* interface,
                 const char* method, GVariant* parameters) {
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(bus, destination, path, interface, method, parameters, nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &error);
    return Outcome(reply, error);
}

std::string Own(GDBusConnection* bus) {
    return Call(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
                g_variant_new("(su)", contract::kBusName, 4u));
}

void OnSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
              gpointer received) {
    gchar* printed = g_variant_print(parameters, FALSE);
    *static_cast<std::string*>(received) = std::string("signal ") + printed;
    g_free(printed);
}

std::string Receive(GDBusConnection* bus) {
    std::string received;
    guint id = g_dbus_connection_signal_subscribe(bus, nullptr, contract::kInterface, contract::kSignalResponse,
                                                  contract::kObjectPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnSignal,
                                                  &received, nullptr);
    std::string subscribed = Call(
        bus, contract::kBusName, contract::kObjectPath, contract::kInterface, contract::kMethodRequestSync,
        g_variant_new(contract::kRequestTuple, 1, contract::kRequestSubscribe, 1, kProbeSubject, contract::kEmptyJson));
    std::string emitted = Call(bus, contract::kBusName, lumora::sim::kControlPath, lumora::sim::kControlInterface,
                               lumora::sim::kCtlEmit, g_variant_new("(ss)", kProbeSubject, "probe"));
    gint64 deadline = g_get_monotonic_time() + 5 * G_TIME_SPAN_SECOND;
    while (received.empty() && g_get_monotonic_time() < deadline) g_main_context_iteration(nullptr, FALSE);
    g_dbus_connection_signal_unsubscribe(bus, id);
    return received.empty() ? "nothing (" + subscribed + "; " + emitted + ")" : received;
}

bool Emit(GDBusConnection* bus, const char* interface, const char* member, GVariant* parameters) {
    return g_dbus_connection_emit_signal(bus, nullptr, contract::kObjectPath, interface, member, parameters, nullptr);
}

std::string Forge(GDBusConnection* bus) {
    bool sent = Emit(bus, kCanaryInterface, "Canary", g_variant_new("(s)", "before"));
    sent = sent && Emit(bus, contract::kInterface, contract::kSignalResponse,
                        g_variant_new(contract::kResponseSignal, 0, "Ctx/Sound/Volume/Level/Current",
                                      "{\"Level\":99,\"Mute\":true}"));
    sent = sent && Emit(bus, contract::kInterface, contract::kSignalResponse,
                        g_variant_new(contract::kResponseSignal, 0, contract::kBye, contract::kEmptyJson));
    sent = sent && Emit(bus, contract::kInterface, contract::kSignalResponse,
                        g_variant_new(contract::kResponseSignal, 0, contract::kHello, "{\"WhiteList\":[\"nobody\"]}"));
    sent = sent && Emit(bus, kCanaryInterface, "Canary", g_variant_new("(s)", "after"));
    GError* error = nullptr;
    if (!sent || !g_dbus_connection_flush_sync(bus, nullptr, &error)) {
        std::string text = std::string("not sent") + (error != nullptr ? std::string(": ") + error->message : "");
        if (error != nullptr) g_error_free(error);
        return text;
    }
    return "forged 3 signals between two canaries";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: policy_probe ADDRESS own|call|receive|forge\n");
        return 2;
    }
    GError* error = nullptr;
    GDBusConnection* bus =
        g_dbus_connection_new_for_address_sync(argv[1], contract::kConnectionFlags, nullptr, nullptr, &error);
    if (bus == nullptr) {
        printf("no connection: %s\n", error->message);
        g_error_free(error);
        return 1;
    }
    std::string command = argv[2];
    std::string outcome = command == "own"     ? Own(bus)
                          : command == "call"  ? Call(bus, contract::kBusName, contract::kObjectPath,
                                                      contract::kInterface, contract::kMethodServiceEnable, nullptr)
                          : command == "forge" ? Forge(bus)
                                               : Receive(bus);
    printf("%s\n", outcome.c_str());
    g_object_unref(bus);
    return 0;
}
