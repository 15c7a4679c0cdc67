// lumora-sim --http: a control panel for the simulated television in the
// browser, served from the simulator's own main loop (libsoup). The page's
// files are compiled in (GResource); the page follows the state over a
// WebSocket and changes it with JSON posts.
#ifndef LUMORA_SIM_SIMHTTP_H
#define LUMORA_SIM_SIMHTTP_H

#include <json/json.h>
#include <libsoup/soup.h>

#include <string>
#include <vector>

namespace lumora::sim {

class SimService;

/// The largest request body the panel takes.
constexpr gsize kMaxPanelBody = 64 * 1024;

class SimHttp {
public:
    /// address: the address to listen on ("127.0.0.1" by default); port 0
    /// picks a free one. A non-loopback address needs allowRemote.
    SimHttp(SimService& service, std::string address, unsigned port, bool allowRemote);
    ~SimHttp();
    SimHttp(const SimHttp&) = delete;
    SimHttp& operator=(const SimHttp&) = delete;

    /// Listens; false with the reason in error.
    bool Start(std::string& error);
    /// "http://ADDRESS:PORT/" once listening.
    const std::string& Url() const { return m_url; }

private:
    static void OnEarly(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer self);
    static void OnRequest(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer self);
    static void OnWebSocket(SoupServer*, SoupServerMessage*, const char*, SoupWebsocketConnection* connection,
                            gpointer self);
    static void OnSocketClosed(SoupWebsocketConnection* connection, gpointer self);
    static void OnSocketMessage(SoupWebsocketConnection* connection, gint type, GBytes* data, gpointer self);
    static gboolean OnTick(gpointer self);

    // Why message may not go further (403 or 413), or "" when it may.
    std::string Refusal(SoupServerMessage* message, guint& status) const;
    void ServeFile(SoupServerMessage* message, const std::string& path);
    void Post(SoupServerMessage* message, const std::string& path);
    bool Apply(const std::string& path, const Json::Value& request, std::string& error);
    Json::Value Snapshot() const;
    void SendSnapshot(bool onlyWhenChanged);

    SimService& m_service;
    std::string m_address;
    unsigned m_port;
    bool m_allowRemote;
    std::string m_host;  // "ADDRESS:PORT" as served: the Host every request must name
    std::string m_url;
    SoupServer* m_server = nullptr;
    std::vector<SoupWebsocketConnection*> m_sockets;
    std::string m_lastSnapshot;
    guint m_tick = 0;  // the idle source that tells the pages of a change
};

/// Parses "[ADDRESS:]PORT"; false when it is not that.
bool ParseHttpAddress(const std::string& text, std::string& address, unsigned& port);

}  // namespace lumora::sim

#endif  // LUMORA_SIM_SIMHTTP_H
