// A bus and a context service in the fuzzing process itself, for the targets
// that need the client's real bus calls: a GDBusServer on a socket in the
// scratch folder, named by DBUS_SYSTEM_BUS_ADDRESS, that answers the bus
// daemon's own methods ("Hello", "AddMatch", ...) and the service's methods
// with whatever the target sets, and records the service calls it saw. It
// runs on a thread and main context of its own; the client's replies and
// signals still need the target to run the default main context.
#ifndef LUMORA_FUZZ_FAKEBUS_H
#define LUMORA_FUZZ_FAKEBUS_H

#include <gio/gio.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "FuzzSupport.h"

namespace fuzz {

class FakeBus {
public:
    // One method call of the service: its name and parameters (a reference
    // of the record's own).
    struct Call {
        std::string method;
        GVariant* parameters = nullptr;
    };

    // Starts the bus once per process and points DBUS_SYSTEM_BUS_ADDRESS at it.
    static FakeBus& Start() {
        static FakeBus* bus = [] {
            auto* made = new FakeBus();
            made->Run();
            return made;
        }();
        return *bus;
    }

    // From now on, every call of method is answered with body (a tuple, or
    // null for the usual answer; sunk and referenced here).
    void Answer(const char* method, GVariant* body) {
        if (body != nullptr) g_variant_ref_sink(body);
        g_mutex_lock(&m_mutex);
        GVariant*& slot = m_answers[method];
        if (slot != nullptr) g_variant_unref(slot);
        slot = body;
        g_mutex_unlock(&m_mutex);
    }

    // The service calls seen since the last call of this, oldest first; the
    // caller releases them with Release.
    std::vector<Call> TakeCalls() {
        g_mutex_lock(&m_mutex);
        std::vector<Call> calls;
        calls.swap(m_calls);
        g_mutex_unlock(&m_mutex);
        return calls;
    }

    static void Release(std::vector<Call>& calls) {
        for (Call& call : calls) {
            if (call.parameters != nullptr) g_variant_unref(call.parameters);
        }
        calls.clear();
    }

    // Emits the service's "Response" signal (iss) to the client, if one is
    // connected; false when none is.
    bool EmitResponse(const char* subject, const char* data) {
        g_mutex_lock(&m_mutex);
        GDBusConnection* client = m_client != nullptr ? G_DBUS_CONNECTION(g_object_ref(m_client)) : nullptr;
        g_mutex_unlock(&m_mutex);
        if (client == nullptr) return false;
        gboolean sent =
            g_dbus_connection_emit_signal(client, nullptr, "/org/verdin/tv/lumora2", "org.verdin.tv.lumora.interface2",
                                          "Response", g_variant_new("(iss)", 0, subject, data), nullptr);
        g_object_unref(client);
        return sent;
    }

    // Whether the client's GDBus could read a reply whose body is body: what
    // it cannot parse would make it close the connection. body must be a
    // tuple.
    static bool Deliverable(GVariant* body) {
        GDBusMessage* call = g_dbus_message_new_method_call(nullptr, "/org/verdin/tv/lumora2",
                                                            "org.verdin.tv.lumora.interface2", "RequestSync");
        g_dbus_message_set_serial(call, 1);
        GDBusMessage* reply = g_dbus_message_new_method_reply(call);
        g_dbus_message_set_body(reply, body);
        g_dbus_message_set_serial(reply, 2);
        gsize size = 0;
        guchar* blob = g_dbus_message_to_blob(reply, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
        bool readable = false;
        if (blob != nullptr) {
            GDBusMessage* back = g_dbus_message_new_from_blob(blob, size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
            if (back != nullptr) {
                // An empty tuple travels as no body, which GIO hands on as ().
                GVariant* got = g_dbus_message_get_body(back);
                readable = got != nullptr ? g_variant_equal(got, body) : g_variant_n_children(body) == 0;
                g_object_unref(back);
            }
            g_free(blob);
        }
        g_object_unref(reply);
        g_object_unref(call);
        return readable;
    }

private:
    FakeBus() {
        g_mutex_init(&m_mutex);
        g_cond_init(&m_ready);
    }

    void Run() {
        std::string path = ScratchFolder() + "/bus";
        m_address = "unix:path=" + path;
        g_mutex_lock(&m_mutex);
        g_thread_unref(g_thread_new("fake-bus", &FakeBus::Thread, this));
        while (!m_started) g_cond_wait(&m_ready, &m_mutex);
        g_mutex_unlock(&m_mutex);
        Check(m_listening);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
    }

    static gpointer Thread(gpointer data) {
        auto* self = static_cast<FakeBus*>(data);
        GMainContext* context = g_main_context_new();
        g_main_context_push_thread_default(context);
        gchar* guid = g_dbus_generate_guid();
        GDBusServer* server =
            g_dbus_server_new_sync(self->m_address.c_str(), G_DBUS_SERVER_FLAGS_NONE, guid, nullptr, nullptr, nullptr);
        g_free(guid);
        if (server != nullptr) {
            g_signal_connect(server, "new-connection", G_CALLBACK(&FakeBus::OnNewConnection), self);
            g_dbus_server_start(server);
        }
        g_mutex_lock(&self->m_mutex);
        self->m_listening = server != nullptr;
        self->m_started = true;
        g_cond_signal(&self->m_ready);
        g_mutex_unlock(&self->m_mutex);
        if (server == nullptr) return nullptr;
        GMainLoop* loop = g_main_loop_new(context, FALSE);
        g_main_loop_run(loop);  // for the life of the process
        return nullptr;
    }

    static gboolean OnNewConnection(GDBusServer*, GDBusConnection* connection, gpointer data) {
        auto* self = static_cast<FakeBus*>(data);
        g_object_ref(connection);
        g_dbus_connection_add_filter(connection, &FakeBus::Filter, self, nullptr);
        g_mutex_lock(&self->m_mutex);
        // The newest client is the one signals go to; older ones are kept.
        self->m_client = connection;
        g_mutex_unlock(&self->m_mutex);
        return TRUE;
    }

    // The usual answer of a service method: enabled with an empty whitelist,
    // success with "{}", or for "RequestAsync" a text reply of its subject.
    static GVariant* UsualAnswer(const std::string& method, GVariant* parameters) {
        if (method == "ServiceEnable") return g_variant_new("(bs)", TRUE, "{}");
        if (method == "RequestAsync" && parameters != nullptr &&
            g_variant_is_of_type(parameters, G_VARIANT_TYPE("(iiiss)"))) {
            const gchar* subject = nullptr;
            g_variant_get_child(parameters, 3, "&s", &subject);
            return g_variant_new("(isv)", 0, subject, g_variant_new("(s)", "{}"));
        }
        return g_variant_new("(is)", 0, "{}");
    }

    // Runs on GDBus's worker thread for every message of a client; answers
    // the method calls itself and lets nothing through.
    static GDBusMessage* Filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming, gpointer data) {
        if (!incoming) return message;
        auto* self = static_cast<FakeBus*>(data);
        if (g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
            g_object_unref(message);
            return nullptr;
        }
        std::string interface =
            g_dbus_message_get_interface(message) != nullptr ? g_dbus_message_get_interface(message) : "";
        std::string member = g_dbus_message_get_member(message) != nullptr ? g_dbus_message_get_member(message) : "";
        GVariant* parameters = g_dbus_message_get_body(message);
        GVariant* body = nullptr;  // a reference of our own
        if (interface == "org.freedesktop.DBus") {
            // The daemon's methods: a name for "Hello", nothing for the rest.
            if (member == "Hello") body = g_variant_ref_sink(g_variant_new("(s)", ":1.42"));
        } else {
            g_mutex_lock(&self->m_mutex);
            self->m_calls.push_back({member, parameters != nullptr ? g_variant_ref(parameters) : nullptr});
            auto answer = self->m_answers.find(member);
            body =
                answer != self->m_answers.end() && answer->second != nullptr ? g_variant_ref(answer->second) : nullptr;
            g_mutex_unlock(&self->m_mutex);
            if (body == nullptr) body = g_variant_ref_sink(UsualAnswer(member, parameters));
        }
        if ((g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
            GDBusMessage* reply = g_dbus_message_new_method_reply(message);
            if (body != nullptr) g_dbus_message_set_body(reply, body);
            g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
            g_object_unref(reply);
        }
        if (body != nullptr) g_variant_unref(body);
        g_object_unref(message);
        return nullptr;
    }

    GMutex m_mutex;
    GCond m_ready;
    bool m_started = false;
    bool m_listening = false;
    std::string m_address;
    GDBusConnection* m_client = nullptr;
    std::map<std::string, GVariant*> m_answers;
    std::vector<Call> m_calls;
};

// Runs the default main context (replies, signals, timers of the client)
// until done() or for at most seconds; whether done() came true.
template <typename Done>
bool RunMainContextUntil(Done done, double seconds) {
    gint64 end = g_get_monotonic_time() + static_cast<gint64>(seconds * G_USEC_PER_SEC);
    while (!done()) {
        if (g_get_monotonic_time() >= end) return false;
        // Polls, so that the deadline is always looked at.
        if (!g_main_context_iteration(nullptr, FALSE)) g_usleep(200);
    }
    return true;
}

}  // namespace fuzz

#endif  // LUMORA_FUZZ_FAKEBUS_H
