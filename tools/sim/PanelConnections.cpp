// The panel's listening socket and the connections taken from it; see
// PanelConnections.h for why libsoup does not listen itself.
#include "PanelConnections.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <exception>
#include <memory>

#include "SimLog.h"

namespace lumora::sim {

namespace {

constexpr gint64 kSaidAgainAfterUs = 60 * G_USEC_PER_SEC;
constexpr unsigned kAcceptsPerWakeUp = 16;
constexpr gsize kDrainPiece = 16 * 1024;

std::string AddressText(GSocketAddress* address) {
    if (address == nullptr || !G_IS_INET_SOCKET_ADDRESS(address)) return "?";
    auto* inet = G_INET_SOCKET_ADDRESS(address);
    gchar* host = g_inet_address_to_string(g_inet_socket_address_get_address(inet));
    std::string text = host != nullptr ? host : "?";
    g_free(host);
    if (text.find(':') != std::string::npos) text = "[" + text + "]";
    return text + ":" + std::to_string(g_inet_socket_address_get_port(inet));
}

double Seconds(gint64 us) { return static_cast<double>(us) / G_USEC_PER_SEC; }

// Nothing may leave a GLib callback as an exception: it would end the
// simulator and its D-Bus clients with it.
template <typename Body>
void Guarded(const char* where, Body&& body) noexcept {
    try {
        body();
    } catch (const std::exception& e) {
        SIM_LOGE("panel: %s failed: %s", where, e.what());
    } catch (...) {
        SIM_LOGE("panel: %s failed", where);
    }
}

}  // namespace

PanelConnections::PanelConnections(SoupServer* server, Limits limits) : m_server(server), m_limits(limits) {}

PanelConnections::~PanelConnections() {
    if (m_watch != nullptr) {
        g_source_destroy(m_watch);
        g_source_unref(m_watch);
    }
    if (m_retry != 0) g_source_remove(m_retry);
    if (m_sweep != 0) g_source_remove(m_sweep);
    while (!m_connections.empty()) Close(m_connections.begin());
    if (m_listener != nullptr) {
        g_socket_close(m_listener, nullptr);
        g_object_unref(m_listener);
    }
}

bool PanelConnections::Listen(GInetAddress* address, unsigned port, std::string& error) {
    GError* failure = nullptr;
    m_listener = g_socket_new(g_inet_address_get_family(address), G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP,
                              &failure);
    GSocketAddress* where = g_inet_socket_address_new(address, static_cast<guint16>(port));
    bool listening = m_listener != nullptr && g_socket_bind(m_listener, where, TRUE, &failure);
    g_object_unref(where);
    if (listening) {
        // Room for a burst of connections while the main loop is busy.
        g_socket_set_listen_backlog(m_listener, 128);
        listening = g_socket_listen(m_listener, &failure);
    }
    GSocketAddress* bound = listening ? g_socket_get_local_address(m_listener, &failure) : nullptr;
    if (bound == nullptr) {
        error = failure != nullptr ? failure->message : "cannot listen";
        if (failure != nullptr) g_error_free(failure);
        return false;
    }
    m_port = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound));
    g_object_unref(bound);
    g_socket_set_blocking(m_listener, FALSE);
    Watch();
    return true;
}

void PanelConnections::Watch() {
    m_watch = g_socket_create_source(m_listener, G_IO_IN, nullptr);
    g_source_set_callback(m_watch, G_SOURCE_FUNC(&OnIncoming), this, nullptr);
    g_source_attach(m_watch, g_main_context_get_thread_default());
}

gboolean PanelConnections::OnIncoming(GSocket*, GIOCondition, gpointer self) {
    auto* connections = static_cast<PanelConnections*>(self);
    Guarded("accepting a connection", [connections] { connections->AcceptPending(); });
    return connections->m_watch != nullptr ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

void PanelConnections::AcceptPending() {
    for (unsigned i = 0; i < kAcceptsPerWakeUp; ++i) {
        GError* failure = nullptr;
        GSocket* socket = g_socket_accept(m_listener, nullptr, &failure);
        if (socket == nullptr) {
            if (!g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) OutOfDescriptors(failure);
            g_error_free(failure);
            return;
        }
        if (m_outSince != 0) {
            if (m_outSaid) {
                SIM_LOGI("panel: accepting connections again after %.1f s and %u attempts",
                         Seconds(g_get_monotonic_time() - m_outSince), m_outAttempts);
            }
            m_outSince = 0;
        }
        std::unique_ptr<GSocket, void (*)(gpointer)> accepted(socket, g_object_unref);
        Admit(socket);
    }
}

// An accept that failed: descriptors out (or another failure of the moment).
// The listening socket stays readable while connections wait, so watching it
// again now would spin: it is tried again after a pause, and connections wait
// in the backlog meanwhile.
void PanelConnections::OutOfDescriptors(const GError* error) {
    gint64 now = g_get_monotonic_time();
    if (m_outSince == 0) {
        m_outSince = now;
        m_outAttempts = 0;
        m_outSaid = m_outLogged == 0 || now - m_outLogged >= kSaidAgainAfterUs;
        if (m_outSaid) {
            bool descriptors = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES);
            SIM_LOGW("panel: %s (%s): no connection taken for now, trying again every %u ms",
                     descriptors ? "out of file descriptors" : "cannot accept connections", error->message,
                     m_limits.retryMs);
            m_outLogged = now;
        }
    }
    ++m_outAttempts;
    if (m_watch != nullptr) {
        g_source_destroy(m_watch);
        g_source_unref(m_watch);
        m_watch = nullptr;
    }
    if (m_retry == 0) m_retry = g_timeout_add(m_limits.retryMs, &PanelConnections::OnRetry, this);
}

gboolean PanelConnections::OnRetry(gpointer self) {
    auto* connections = static_cast<PanelConnections*>(self);
    connections->m_retry = 0;
    Guarded("listening again", [connections] {
        connections->Sweep();
        connections->Watch();
    });
    return G_SOURCE_REMOVE;
}

void PanelConnections::Admit(GSocket* socket) {
    GSocketAddress* local = g_socket_get_local_address(socket, nullptr);
    GSocketAddress* remote = g_socket_get_remote_address(socket, nullptr);
    std::string remoteText = AddressText(remote);
    Sweep();
    if (local == nullptr || remote == nullptr || !MakeRoom(remoteText)) {
        // Gone before its turn, or no room (said in MakeRoom).
        g_socket_close(socket, nullptr);
        if (local != nullptr) g_object_unref(local);
        if (remote != nullptr) g_object_unref(remote);
        return;
    }
    g_socket_set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1, nullptr);
    Connection connection;
    connection.stream = g_socket_connection_factory_create_connection(socket);
    connection.socket = socket;
    connection.remote = remoteText;
    connection.local = AddressText(local);
    connection.since = g_get_monotonic_time();
    // Listed before libsoup has it: it may read the request, and call the
    // server's handlers, before accept_iostream returns.
    m_connections.push_back(connection);
    GError* failure = nullptr;
    if (!soup_server_accept_iostream(m_server, G_IO_STREAM(connection.stream), local, remote, &failure)) {
        SIM_LOGW("panel: connection from %s dropped: %s", remoteText.c_str(), failure->message);
        g_error_free(failure);
        Close(std::prev(m_connections.end()));
    }
    g_object_unref(local);
    g_object_unref(remote);
    StartSweeping();
}

// Room for one more connection: those being closed go first, then the one
// open longest that is not a WebSocket.
bool PanelConnections::MakeRoom(const std::string& newcomer) {
    auto open = [this] { return static_cast<unsigned>(m_connections.size()); };
    for (auto it = m_connections.begin(); it != m_connections.end() && open() >= m_limits.connections;) {
        auto next = std::next(it);
        if (it->closing) Close(it);
        it = next;
    }
    if (open() < m_limits.connections) return true;
    for (Connection& connection : m_connections) {
        if (connection.webSocket || connection.closing) continue;
        gchar* why = g_strdup_printf("%u connections open, the oldest (%s, %.1f s) makes room for %s", open(),
                                     connection.remote.c_str(), Seconds(g_get_monotonic_time() - connection.since),
                                     newcomer.c_str());
        ShutDown(connection, why);
        g_free(why);
        return true;
    }
    SIM_LOGW("panel: connection from %s refused: %u connections open, all WebSockets", newcomer.c_str(), open());
    return false;
}

void PanelConnections::StartSweeping() {
    if (m_sweep == 0 && !m_connections.empty()) m_sweep = g_timeout_add(1000, &PanelConnections::OnSweep, this);
}

gboolean PanelConnections::OnSweep(gpointer self) {
    auto* connections = static_cast<PanelConnections*>(self);
    Guarded("timing connections out", [connections] { connections->Sweep(); });
    if (!connections->m_connections.empty()) return G_SOURCE_CONTINUE;
    connections->m_sweep = 0;
    return G_SOURCE_REMOVE;
}

// Forgets the connections closed since, closes those that have had their
// time, and shuts down those whose request has not come whole in time.
void PanelConnections::Sweep() {
    gint64 now = g_get_monotonic_time();
    gint64 timeout = static_cast<gint64>(m_limits.requestTimeoutMs) * 1000;
    gint64 linger = static_cast<gint64>(m_limits.lingerMs) * 1000;
    for (auto it = m_connections.begin(); it != m_connections.end();) {
        auto next = std::next(it);
        if (g_io_stream_is_closed(G_IO_STREAM(it->stream)) || (it->closing && now - it->closingSince > linger)) {
            Close(it);
        } else if (!it->webSocket && !it->closing && now - it->since > timeout) {
            std::string why =
                "no whole request from " + it->remote + " within " + std::to_string(m_limits.requestTimeoutMs) + " ms";
            ShutDown(*it, why.c_str());
        }
        it = next;
    }
}

// Both directions shut: libsoup's pending read ends (end of stream) and it
// closes the connection itself; the sweep closes it if libsoup has not.
void PanelConnections::ShutDown(Connection& connection, const char* why) {
    SIM_LOGW("panel: connection closed: %s", why);
    g_socket_shutdown(connection.socket, TRUE, TRUE, nullptr);
    connection.closing = true;
    connection.closingSince = g_get_monotonic_time();
}

void PanelConnections::Close(Iterator it) {
    if (it->drain != nullptr) {
        g_source_destroy(it->drain);
        g_source_unref(it->drain);
    }
    g_io_stream_close(G_IO_STREAM(it->stream), nullptr, nullptr);
    g_object_unref(it->stream);
    m_connections.erase(it);
}

PanelConnections::Iterator PanelConnections::Find(SoupServerMessage* message) {
    std::string remote = AddressText(soup_server_message_get_remote_address(message));
    std::string local = AddressText(soup_server_message_get_local_address(message));
    for (auto it = m_connections.begin(); it != m_connections.end(); ++it) {
        if (it->remote == remote && it->local == local && !g_io_stream_is_closed(G_IO_STREAM(it->stream))) return it;
    }
    return m_connections.end();
}

void PanelConnections::AnswerAndClose(SoupServerMessage* message, const std::string& response) {
    Iterator it = Find(message);
    // libsoup lets go: it reads no more of this request and answers nothing.
    GIOStream* stolen = soup_server_message_steal_connection(message);
    if (it == m_connections.end()) {
        if (stolen != nullptr) {
            g_io_stream_close(stolen, nullptr, nullptr);
            g_object_unref(stolen);
        }
        return;
    }
    // Dropped without closing: libsoup's wrapper leaves the socket open, and
    // it is ours to answer on.
    if (stolen != nullptr) g_object_unref(stolen);
    it->unsent = response;
    it->closing = true;
    it->closingSince = g_get_monotonic_time();
    if (!Drain(*it)) return Close(it);
    StartSweeping();
}

// Writes what is left of the answer, shuts the sending side once it is all
// out, and reads and drops what the peer still sends until it closes (or the
// sweep ends it): closing with unread data would reset the connection, and
// the peer might lose the answer. False when the connection is to be closed
// now (the peer is gone).
bool PanelConnections::Drain(Connection& connection) {
    bool wasWriting = !connection.unsent.empty();
    while (!connection.unsent.empty()) {
        GError* failure = nullptr;
        gssize sent = g_socket_send_with_blocking(connection.socket, connection.unsent.data(), connection.unsent.size(),
                                                  FALSE, nullptr, &failure);
        if (sent < 0) {
            bool later = g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK);
            g_error_free(failure);
            if (later) break;
            return false;
        }
        connection.unsent.erase(0, static_cast<size_t>(sent));
    }
    bool written = wasWriting && connection.unsent.empty();
    if (written) g_socket_shutdown(connection.socket, FALSE, TRUE, nullptr);
    if (connection.drain != nullptr && written) {
        // Only reading is watched from now on: a new source.
        g_source_destroy(connection.drain);
        g_source_unref(connection.drain);
        connection.drain = nullptr;
    }
    if (connection.drain == nullptr) {
        auto condition =
            static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR | (connection.unsent.empty() ? 0 : G_IO_OUT));
        connection.drain = g_socket_create_source(connection.socket, condition, nullptr);
        g_source_set_callback(connection.drain, G_SOURCE_FUNC(&OnDrain), this, nullptr);
        g_source_attach(connection.drain, g_main_context_get_thread_default());
    }
    return true;
}

gboolean PanelConnections::OnDrain(GSocket* socket, GIOCondition, gpointer self) {
    auto* connections = static_cast<PanelConnections*>(self);
    gboolean keep = G_SOURCE_REMOVE;
    Guarded("closing a connection", [connections, socket, &keep] {
        auto it = connections->m_connections.begin();
        while (it != connections->m_connections.end() && it->socket != socket) ++it;
        if (it == connections->m_connections.end()) return;
        if (!it->unsent.empty()) {
            GSource* before = it->drain;
            if (!connections->Drain(*it)) return connections->Close(it);
            // Drain put another source in place once the answer was out.
            if (it->drain != before) return;
        }
        char piece[kDrainPiece];
        for (int i = 0; i < 16; ++i) {
            GError* failure = nullptr;
            gssize got = g_socket_receive_with_blocking(socket, piece, sizeof piece, FALSE, nullptr, &failure);
            if (got < 0 && g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
                g_error_free(failure);
                keep = G_SOURCE_CONTINUE;
                return;
            }
            if (failure != nullptr) g_error_free(failure);
            it->drained += got > 0 ? static_cast<gsize>(got) : 0;
            // The peer closed, or sent more than is worth waiting through.
            if (got <= 0 || it->drained > connections->m_limits.lingerBytes) return connections->Close(it);
        }
        keep = G_SOURCE_CONTINUE;
    });
    return keep;
}

bool PanelConnections::AdoptWebSocket(SoupServerMessage* message) {
    Iterator it = Find(message);
    if (it == m_connections.end()) return true;  // not one of ours to count
    if (WebSockets() >= m_limits.webSockets) return false;
    it->webSocket = true;
    return true;
}

unsigned PanelConnections::Open() {
    Sweep();
    return static_cast<unsigned>(m_connections.size());
}

unsigned PanelConnections::WebSockets() {
    unsigned count = 0;
    for (const Connection& connection : m_connections) {
        if (connection.webSocket && !g_io_stream_is_closed(G_IO_STREAM(connection.stream))) ++count;
    }
    return count;
}

}  // namespace lumora::sim
