// lumora-sim --http: a control panel for the simulated television in the
// browser, served from the simulator's own main loop (libsoup). The page's
// files are compiled in (GResource); the page follows the state over a
// WebSocket and changes it with JSON posts.
#ifndef LUMORA_SIM_SIMHTTP_H
#define LUMORA_SIM_SIMHTTP_H

#include <json/json.h>
#include <libsoup/soup.h>

#include <memory>
#include <string>
#include <vector>

#include "PanelConnections.h"
#include "PanelRequest.h"

namespace lumora::sim {

class SimService;

class SimHttp {
public:
    /// address: the address to listen on ("127.0.0.1" by default); port 0
    /// picks a free one. A non-loopback address needs allowRemote; on a
    /// wildcard address (0.0.0.0, ::) a request may name as its Host the
    /// address its connection came to.
    SimHttp(SimService& service, std::string address, unsigned port, bool allowRemote);
    ~SimHttp();
    SimHttp(const SimHttp&) = delete;
    SimHttp& operator=(const SimHttp&) = delete;

    /// Listens; false with the reason in error.
    bool Start(std::string& error);
    /// "http://ADDRESS:PORT/" once listening.
    const std::string& Url() const { return m_url; }

private:
    static void OnRequestStarted(SoupServer*, SoupServerMessage* message, gpointer self);
    static void OnGotHeaders(SoupServerMessage* message, gpointer self);
    static void OnGotChunk(SoupServerMessage* message, GBytes* chunk, gpointer self);
    static void OnFinished(SoupServerMessage* message, gpointer self);
    static void OnRequest(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer self);
    static void OnWebSocket(SoupServer*, SoupServerMessage* message, const char*,
                            SoupWebsocketConnection* connection, gpointer self);
    static void OnSocketClosed(SoupWebsocketConnection* connection, gpointer self);
    static void OnSocketMessage(SoupWebsocketConnection* connection, gint type, GBytes* data, gpointer self);
    static gboolean OnTick(gpointer self);

    // Why message may not go further (403 or 413), or "" when it may; host
    // is then the Host it named.
    std::string Refusal(SoupServerMessage* message, guint& status, std::string& host) const;
    std::string ReachedHost(SoupServerMessage* message) const;
    bool HostAllowed(const std::string& host, SoupServerMessage* message) const;
    // A refusal with its one log line: answered by libsoup once the request
    // is read (Refuse), or at once from the headers, the body left unread
    // (RefuseNow; message is no longer libsoup's after it).
    void Refuse(SoupServerMessage* message, guint status, const std::string& why);
    void RefuseNow(SoupServerMessage* message, guint status, const std::string& why);
    void Serve(SoupServerMessage* message, const std::string& path);
    void ServeFile(SoupServerMessage* message, const std::string& path);
    void Post(SoupServerMessage* message, const std::string& path);
    Json::Value Snapshot() const;
    /// Sends the pages what changed since the last time, if anything.
    void SendChanges();

    SimService& m_service;
    std::string m_address;
    unsigned m_port;
    bool m_allowRemote;
    bool m_wildcard = false;  // listening on every address of the machine
    std::string m_host;       // "ADDRESS:PORT" as served: the Host a request names
    std::string m_url;
    SoupServer* m_server = nullptr;
    std::unique_ptr<PanelConnections> m_connections;
    std::vector<SoupWebsocketConnection*> m_sockets;
    Json::Value m_sent;          // the state as the pages were last told it
    gint64 m_lastSentUs = 0;     // when, on the monotonic clock
    guint m_tick = 0;  // the source that tells the pages of the changes
};

/// Parses "[ADDRESS:]PORT"; false when it is not that.
bool ParseHttpAddress(const std::string& text, std::string& address, unsigned& port);

}  // namespace lumora::sim

#endif  // LUMORA_SIM_SIMHTTP_H
