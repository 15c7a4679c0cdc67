#include "MisbehavingService.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "BusCalls.h"
#include "internal/HandOff.h"

namespace lumora::test {

namespace {
constexpr const char* kMarker = "/tmp/lmf_service_ready";
}

MisbehavingService::MisbehavingService(const std::string& address) {
    m_connection = ConnectToBus(address);
    if (m_connection == nullptr) return;
    // The filter runs on GDBus's worker thread: the members reach it through GLib.
    internal::HandOffSend(this);
    g_dbus_connection_add_filter(m_connection, Filter, this, nullptr);
    CallResult owned = CallMethod(m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                  "RequestName", g_variant_new("(su)", "org.verdin.tv.lumora2", 0u));
    if (!owned.Ok()) {
        fprintf(stderr, "misbehaving service: %s\n", owned.Print().c_str());
        g_object_unref(m_connection);
        m_connection = nullptr;
    }
}

MisbehavingService::~MisbehavingService() {
    if (m_connection != nullptr) {
        g_dbus_connection_close_sync(m_connection, nullptr, nullptr);
        g_object_unref(m_connection);
    }
    // The filter's last run on GDBus's thread is ordered before this by the
    // mutex, which the sanitizers can see; GIO's own ordering they cannot.
    std::lock_guard<std::mutex> lock(m_mutex);
    m_replies.clear();
}

void MisbehavingService::SetReply(const std::string& member, const std::string& body) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_replies[member] = body;
}

bool MisbehavingService::EmitResponse(const std::string& body) {
    GVariant* parameters = g_variant_new_parsed(body.c_str());
    return g_dbus_connection_emit_signal(m_connection, nullptr, "/org/verdin/tv/lumora2",
                                         "org.verdin.tv.lumora.interface2", "Response", parameters, nullptr) &&
           g_dbus_connection_flush_sync(m_connection, nullptr, nullptr);
}

// Runs on GDBus's worker thread; answers the service's method calls itself.
GDBusMessage* MisbehavingService::Filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                                         gpointer self) {
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL ||
        g_strcmp0(g_dbus_message_get_path(message), "/org/verdin/tv/lumora2") != 0)
        return message;
    internal::HandOffReceive(self);
    auto* service = static_cast<MisbehavingService*>(self);
    std::string body;
    {
        std::lock_guard<std::mutex> lock(service->m_mutex);
        auto it = service->m_replies.find(g_dbus_message_get_member(message));
        if (it != service->m_replies.end()) body = it->second;
    }
    if (!body.empty()) {
        GDBusMessage* reply = g_dbus_message_new_method_reply(message);
        g_dbus_message_set_body(reply, g_variant_new_parsed(body.c_str()));
        g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
        g_object_unref(reply);
    }
    g_object_unref(message);
    return nullptr;
}

ReadyMarker::ReadyMarker() { std::ofstream(kMarker) << "test\n"; }

ReadyMarker::~ReadyMarker() { unlink(kMarker); }

bool MisbehavingServiceBus::Start() {
    if (!m_bus.Start()) return false;
    m_marker = std::make_unique<ReadyMarker>();
    m_service = std::make_unique<MisbehavingService>(m_bus.Address());
    if (!m_service->Ok()) return false;
    m_service->SetReply("ServiceEnable", "(true, '{\"WhiteList\":[]}')");
    return true;
}

}  // namespace lumora::test
