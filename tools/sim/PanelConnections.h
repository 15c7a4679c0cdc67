// The control panel's connections, accepted here and handed to libsoup one
// by one: libsoup's own listener stops for good when an accept fails (no file
// descriptors left) and keeps no count of its clients. Here the descriptors
// running out is waited through, the connections open at a time are bounded,
// a connection that has not brought its request within a time-out is closed,
// and a request refused from its headers is answered at once and its body
// never read.
#ifndef LUMORA_SIM_PANELCONNECTIONS_H
#define LUMORA_SIM_PANELCONNECTIONS_H

#include <gio/gio.h>
#include <libsoup/soup.h>

#include <list>
#include <string>

namespace lumora::sim {

class PanelConnections {
public:
    struct Limits {
        /// Connections open at a time; a new one beyond it closes the oldest
        /// that is not a WebSocket (a flood of idle connections cannot lock
        /// the page out).
        unsigned connections = 64;
        /// WebSockets open at a time (pages following the state).
        unsigned webSockets = 16;
        /// From its accept, a connection that is not a WebSocket has this long
        /// to bring its request and take its answer (one request a
        /// connection: libsoup closes a connection it did not accept itself
        /// after one answer).
        unsigned requestTimeoutMs = 10000;
        /// After an answer given from the headers: how long, and how many
        /// bytes, the rest of the request is read and dropped so that the
        /// answer is not lost to a reset.
        unsigned lingerMs = 2000;
        gsize lingerBytes = 16 * 1024 * 1024;
        /// Out of descriptors: the wait before trying to accept again.
        unsigned retryMs = 500;
    };

    PanelConnections(SoupServer* server, Limits limits);
    ~PanelConnections();
    PanelConnections(const PanelConnections&) = delete;
    PanelConnections& operator=(const PanelConnections&) = delete;

    /// Listens on address:port (port 0: a free one); false with the reason.
    bool Listen(GInetAddress* address, unsigned port, std::string& error);
    /// The port listened on.
    unsigned Port() const { return m_port; }

    /// Answers message with response (a whole HTTP response, head and body),
    /// written here and not by libsoup, which lets go of the connection:
    /// nothing more of the request is read but to drop it, and the
    /// connection is closed.
    void AnswerAndClose(SoupServerMessage* message, const std::string& response);
    /// The connection of message became a WebSocket: it has no time-out from
    /// now on. False when the WebSockets open are at their limit.
    bool AdoptWebSocket(SoupServerMessage* message);

    /// Open now, and WebSockets among them.
    unsigned Open();
    unsigned WebSockets();

private:
    struct Connection {
        GSocketConnection* stream = nullptr;  // a reference of ours
        GSocket* socket = nullptr;            // the stream's
        std::string remote;                   // "ADDRESS:PORT", also for the log
        std::string local;
        gint64 since = 0;  // monotonic, µs
        bool webSocket = false;
        // Shut down by us: waiting for libsoup to close it (or, after an
        // answer written here, reading what is left until the peer closes).
        bool closing = false;
        gint64 closingSince = 0;
        GSource* drain = nullptr;
        std::string unsent;  // of the answer written here
        gsize drained = 0;
    };
    using Iterator = std::list<Connection>::iterator;

    static gboolean OnIncoming(GSocket*, GIOCondition, gpointer self);
    static gboolean OnRetry(gpointer self);
    static gboolean OnSweep(gpointer self);
    static gboolean OnDrain(GSocket*, GIOCondition condition, gpointer self);

    void Watch();
    void AcceptPending();
    void OutOfDescriptors(const GError* error);
    void Admit(GSocket* socket);
    bool MakeRoom(const std::string& newcomer);
    void Sweep();
    void ShutDown(Connection& connection, const char* why);
    void Close(Iterator it);
    Iterator Find(SoupServerMessage* message);
    bool Drain(Connection& connection);
    void StartSweeping();

    SoupServer* m_server;
    Limits m_limits;
    GSocket* m_listener = nullptr;
    unsigned m_port = 0;
    GSource* m_watch = nullptr;
    guint m_retry = 0;
    guint m_sweep = 0;
    std::list<Connection> m_connections;
    // Running out of descriptors is said once a minute at most, and its end
    // only when its start was said.
    gint64 m_outSince = 0;     // 0 while accepting
    gint64 m_outLogged = 0;    // when the last "out of file descriptors" line was written
    bool m_outSaid = false;    // this time's start was said
    unsigned m_outAttempts = 0;
};

}  // namespace lumora::sim

#endif  // LUMORA_SIM_PANELCONNECTIONS_H
