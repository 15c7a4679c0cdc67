// The control panel's server: static files from the GResource, the state as
// JSON (GET /api/state and over the WebSocket /ws whenever it changes), and
// the changes (POST /api/set, POST /api/control, see PanelRequest.h).
//
// Every request is judged from its headers before its body is read (Host,
// Origin, length), and a refused one is answered there and then; a chunked
// body is cut off once it passes the limit. Nothing thrown in here leaves a
// libsoup callback: a request that meets an unexpected failure is answered
// 500, and the simulator goes on serving its D-Bus clients.
#include "SimHttp.h"

#include <gio/gio.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <map>

#include "ControlContract.h"
#include "Scenario.h"
#include "SimLog.h"
#include "SimService.h"
#include "SimState.h"

namespace lumora::sim {

namespace {

constexpr const char* kResourceRoot = "/org/verdin/tv/lumora-sim/panel";
// Set on a message whose refusal has had its log line.
constexpr const char* kLoggedKey = "lumora-sim-panel-logged";
// What a page may send over the WebSocket before it is closed: the page only
// listens, so nothing; a frame this size is still read whole by libsoup.
constexpr guint64 kMaxWebSocketFrame = 4096;
// The pages hear of changes at most this often.
constexpr gint64 kSendIntervalMs = 100;

// What changed from before to now, as the page applies it: "delta" set,
// the subjects' values that changed ("values") or went ("removed"), the
// calls served since ("calls", by their number "n"), and every other field
// that changed, whole. Empty when nothing changed.
Json::Value Delta(const Json::Value& before, const Json::Value& now) {
    Json::Value delta(Json::objectValue);
    for (const std::string& key : now.getMemberNames()) {
        if (key == "values" || key == "calls") continue;
        if (!before.isMember(key) || before[key] != now[key]) delta[key] = now[key];
    }
    for (const std::string& key : before.getMemberNames()) {
        if (!now.isMember(key)) delta[key] = Json::Value();  // gone (a replay's end)
    }
    const Json::Value& oldValues = before["values"];
    const Json::Value& newValues = now["values"];
    for (const std::string& subject : newValues.getMemberNames()) {
        const Json::Value* old = oldValues.find(subject.data(), subject.data() + subject.size());
        if (old == nullptr || *old != newValues[subject]) delta["values"][subject] = newValues[subject];
    }
    for (const std::string& subject : oldValues.getMemberNames()) {
        if (!newValues.isMember(subject)) delta["removed"].append(subject);
    }
    // New calls, and calls told before that changed since (a caller named
    // once the bus said who it is), each by its number.
    std::map<std::string, const Json::Value*> told;
    for (const Json::Value& call : before["calls"]) told[call["n"].toStyledString()] = &call;
    for (const Json::Value& call : now["calls"]) {
        auto it = told.find(call["n"].toStyledString());
        if (it == told.end() || *it->second != call) delta["calls"].append(call);
    }
    if (!delta.empty()) delta["delta"] = true;
    return delta;
}

// The policy every answer carries: the page loads only its own files and
// connects only to its own WebSocket, and no other page may frame it (a
// framed panel would take clicks meant for another site). host, once
// checked, names the WebSocket; "" before.
std::string SecurityPolicy(const std::string& host) {
    std::string connect = host.empty() ? "'self'" : "'self' ws://" + host;
    return "default-src 'self'; connect-src " + connect +
           "; img-src 'self' data:; frame-ancestors 'none'; base-uri 'none'; form-action 'self'; object-src 'none'";
}

void SetSafetyHeaders(SoupMessageHeaders* headers, const std::string& host) {
    soup_message_headers_replace(headers, "X-Frame-Options", "DENY");
    soup_message_headers_replace(headers, "Content-Security-Policy", SecurityPolicy(host).c_str());
    soup_message_headers_replace(headers, "X-Content-Type-Options", "nosniff");
    soup_message_headers_replace(headers, "Referrer-Policy", "no-referrer");
    soup_message_headers_replace(headers, "Cache-Control", "no-store");
}

std::string ErrorBody(const std::string& error) {
    Json::Value body;
    body["error"] = error;
    return ValueText(body);
}

void Reply(SoupServerMessage* message, guint status, const std::string& type, const std::string& body) {
    soup_server_message_set_status(message, status, nullptr);
    soup_server_message_set_response(message, type.c_str(), SOUP_MEMORY_COPY, body.data(), body.size());
    // One request a connection (see PanelConnections.h): said to the client.
    soup_message_headers_replace(soup_server_message_get_response_headers(message), "Connection", "close");
}

bool IsLoopback(const std::string& address) {
    GInetAddress* inet = g_inet_address_new_from_string(address.c_str());
    bool loopback = inet != nullptr && g_inet_address_get_is_loopback(inet);
    if (inet != nullptr) g_object_unref(inet);
    return loopback;
}

// An IPv4 address reached over an IPv6 socket (::ffff:a.b.c.d) as itself.
GInetAddress* Unmapped(GInetAddress* address) {
    if (g_inet_address_get_family(address) == G_SOCKET_FAMILY_IPV6) {
        const guint8* bytes = g_inet_address_to_bytes(address);
        static const guint8 kPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
        if (std::equal(kPrefix, kPrefix + 12, bytes)) return g_inet_address_new_from_bytes(bytes + 12, G_SOCKET_FAMILY_IPV4);
    }
    return G_INET_ADDRESS(g_object_ref(address));
}

// "ADDRESS:PORT" as a Host names it, or "" when address is none.
std::string HostText(GInetAddress* address, unsigned port) {
    if (address == nullptr) return "";
    GInetAddress* plain = Unmapped(address);
    gchar* text = g_inet_address_to_string(plain);
    std::string host = g_inet_address_get_family(plain) == G_SOCKET_FAMILY_IPV6 ? std::string("[") + text + "]" : text;
    g_free(text);
    g_object_unref(plain);
    return host + ":" + std::to_string(port);
}

// host with its address written as HostText writes it; "" when host does
// not name an address (a name, or nothing that parses).
std::string AddressHost(const std::string& host) {
    size_t colon = host.rfind(':');
    if (colon == std::string::npos) return "";
    std::string name = host.substr(0, colon);
    std::string port = host.substr(colon + 1);
    if (name.size() > 2 && name.front() == '[' && name.back() == ']') {
        name = name.substr(1, name.size() - 2);
    } else if (name.find(':') != std::string::npos) {
        return "";  // an IPv6 address outside brackets
    }
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos) return "";
    GInetAddress* address = g_inet_address_new_from_string(name.c_str());
    std::string text = HostText(address, static_cast<unsigned>(std::stoul(port)));
    if (address != nullptr) g_object_unref(address);
    return text;
}

const char* ContentType(const std::string& path) {
    if (g_str_has_suffix(path.c_str(), ".js")) return "text/javascript; charset=utf-8";
    if (g_str_has_suffix(path.c_str(), ".css")) return "text/css; charset=utf-8";
    return "text/html; charset=utf-8";
}

// Text from a request for the log and for answers: printable, and short.
std::string Shown(const char* text) {
    if (text == nullptr) return "(none)";
    std::string shown;
    for (const char* c = text; *c != '\0' && shown.size() < 120; ++c)
        shown += static_cast<unsigned char>(*c) < 0x20 || *c == 0x7f ? '?' : *c;
    return shown;
}

std::string PathOf(SoupServerMessage* message) {
    GUri* uri = soup_server_message_get_uri(message);
    return uri != nullptr ? Shown(g_uri_get_path(uri)) : "?";
}

std::string MethodOf(SoupServerMessage* message) { return Shown(soup_server_message_get_method(message)); }

// The state and the service, as a post changes them.
class ServiceTarget : public PanelTarget {
public:
    explicit ServiceTarget(SimService& service) : m_service(service) {}
    SimState& State() override { return m_service.State(); }
    void Notify(const std::string& subject, const std::string& value) override {
        m_service.EmitResponse(subject, value);
    }
    void StopAnswering() override { m_service.StopAnswering(); }
    void ResumeAnswering() override { m_service.ResumeAnswering(); }
    bool Restart(unsigned pauseMs) override { return m_service.Restart(pauseMs, nullptr); }

private:
    SimService& m_service;
};

// Runs a handler's body; anything it throws is logged, and what is given
// then (a 500 answer) is done too, itself guarded.
template <typename Body, typename Failed>
void Guarded(const char* where, Body&& body, Failed&& failed) noexcept {
    std::string what;
    try {
        body();
        return;
    } catch (const std::exception& e) {
        what = e.what();
    } catch (...) {
        what = "an unknown exception";
    }
    SIM_LOGE("panel: %s failed (500): %s", where, what.c_str());
    try {
        failed();
    } catch (...) {
        SIM_LOGE("panel: %s: the 500 answer failed too", where);
    }
}

template <typename Body>
void Guarded(const char* where, Body&& body) noexcept {
    Guarded(where, std::forward<Body>(body), [] {});
}

}  // namespace

bool ParseHttpAddress(const std::string& text, std::string& address, unsigned& port) {
    size_t colon = text.rfind(':');
    std::string portText = colon == std::string::npos ? text : text.substr(colon + 1);
    address = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    if (address.size() > 2 && address.front() == '[' && address.back() == ']')
        address = address.substr(1, address.size() - 2);
    if (portText.empty() || portText.size() > 5 || portText.find_first_not_of("0123456789") != std::string::npos)
        return false;
    port = static_cast<unsigned>(strtoul(portText.c_str(), nullptr, 10));
    GInetAddress* inet = g_inet_address_new_from_string(address.c_str());
    bool valid = inet != nullptr;
    if (inet != nullptr) g_object_unref(inet);
    return valid && port <= 65535;
}

SimHttp::SimHttp(SimService& service, std::string address, unsigned port, bool allowRemote)
    : m_service(service), m_address(std::move(address)), m_port(port), m_allowRemote(allowRemote) {}

SimHttp::~SimHttp() {
    if (m_server != nullptr) m_service.State().SetChangeListener(nullptr);
    if (m_tick != 0) g_source_remove(m_tick);
    for (SoupWebsocketConnection* socket : m_sockets) {
        g_signal_handlers_disconnect_by_data(socket, this);
        g_object_unref(socket);
    }
    if (m_server != nullptr) {
        g_signal_handlers_disconnect_by_data(m_server, this);
        soup_server_disconnect(m_server);
    }
    m_connections.reset();
    if (m_server != nullptr) g_object_unref(m_server);
}

bool SimHttp::Start(std::string& error) {
    if (!IsLoopback(m_address) && !m_allowRemote) {
        error = "--http " + m_address + " is not a loopback address: add --http-allow-remote to serve other machines";
        return false;
    }
    if (!IsLoopback(m_address)) {
        SIM_LOGW("the control panel is served to other machines on %s: anyone who reaches it drives the simulator",
                 m_address.c_str());
        fprintf(stderr, "lumora-sim: warning: the control panel on %s is open to other machines\n", m_address.c_str());
    }
    GInetAddress* inet = g_inet_address_new_from_string(m_address.c_str());
    m_wildcard = g_inet_address_get_is_any(inet);
    m_server = soup_server_new("server-header", "lumora-sim", nullptr);
    g_signal_connect(m_server, "request-started", G_CALLBACK(&SimHttp::OnRequestStarted), this);
    soup_server_add_handler(m_server, nullptr, &SimHttp::OnRequest, this, nullptr);
    // Host and Origin of the upgrade are checked with every request's, from
    // its headers (libsoup would check only an Origin fixed in advance).
    soup_server_add_websocket_handler(m_server, "/ws", nullptr, nullptr, &SimHttp::OnWebSocket, this, nullptr);
    m_connections = std::make_unique<PanelConnections>(m_server, PanelConnections::Limits{});
    std::string why;
    bool listening = m_connections->Listen(inet, m_port, why);
    g_object_unref(inet);
    if (!listening) {
        error = "cannot serve the control panel on " + m_address + ":" + std::to_string(m_port) + ": " + why;
        return false;
    }
    m_port = m_connections->Port();
    bool v6 = m_address.find(':') != std::string::npos;
    m_host = (v6 ? "[" + m_address + "]" : m_address) + ":" + std::to_string(m_port);
    m_url = "http://" + m_host + "/";
    // Every change of the state, from ctl, a replay, another browser or the
    // clients, reaches the pages as what changed, at most every
    // kSendIntervalMs: a call served costs its clients nothing more than
    // noting that something changed, whatever the size of the state.
    m_service.State().SetChangeListener([this] {
        if (m_tick != 0 || m_sockets.empty()) return;
        gint64 since = (g_get_monotonic_time() - m_lastSentUs) / 1000;
        if (since >= kSendIntervalMs) {
            m_tick = g_idle_add(&SimHttp::OnTick, this);
        } else {
            m_tick = g_timeout_add(static_cast<guint>(kSendIntervalMs - since), &SimHttp::OnTick, this);
        }
    });
    SIM_LOGI("control panel at %s", m_url.c_str());
    return true;
}

// A request has begun: what every answer carries, and the checks made as its
// headers and body come.
void SimHttp::OnRequestStarted(SoupServer*, SoupServerMessage* message, gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    Guarded("a request's start", [http, message] {
        SetSafetyHeaders(soup_server_message_get_response_headers(message), "");
        g_signal_connect(message, "got-headers", G_CALLBACK(&SimHttp::OnGotHeaders), http);
        g_signal_connect(message, "got-chunk", G_CALLBACK(&SimHttp::OnGotChunk), http);
        g_signal_connect(message, "finished", G_CALLBACK(&SimHttp::OnFinished), http);
    });
}

// What a request reaching the panel names as its Host: the address served,
// always; with a wildcard bind also the address its connection came to,
// written as an address (a name could be rebound to this machine by another
// site's page), with the port served. "" when there is no second one.
std::string SimHttp::ReachedHost(SoupServerMessage* message) const {
    if (!m_wildcard) return "";
    GSocketAddress* local = soup_server_message_get_local_address(message);
    if (local == nullptr || !G_IS_INET_SOCKET_ADDRESS(local)) return "";
    return HostText(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(local)), m_port);
}

bool SimHttp::HostAllowed(const std::string& host, SoupServerMessage* message) const {
    if (host == m_host) return true;
    std::string reached = ReachedHost(message);
    return !reached.empty() && AddressHost(host) == reached;
}

// Every request, before its body is read: a page of another site (Origin) or
// a name that resolves here by trickery (Host) is refused whatever it asks,
// and so is a body announced over the limit.
std::string SimHttp::Refusal(SoupServerMessage* message, guint& status, std::string& host) const {
    SoupMessageHeaders* headers = soup_server_message_get_request_headers(message);
    const char* hostHeader = soup_message_headers_get_one(headers, "Host");
    const char* origin = soup_message_headers_get_one(headers, "Origin");
    std::string method = MethodOf(message);
    status = SOUP_STATUS_FORBIDDEN;
    host = hostHeader != nullptr ? hostHeader : "";
    if (hostHeader == nullptr || !HostAllowed(host, message)) {
        std::string reached = ReachedHost(message);
        return "Host " + Shown(hostHeader) + " is not " + m_host +
               (reached.empty() ? "" : " nor " + reached + " (the address this connection came to)");
    }
    bool reading = method == "GET" || method == "HEAD";
    bool upgrade = soup_message_headers_header_contains(headers, "Upgrade", "websocket");
    if ((!reading || upgrade || origin != nullptr) && (origin == nullptr || "http://" + host != origin))
        return "Origin " + Shown(origin) + " is not the panel's own";
    if (soup_message_headers_get_encoding(headers) == SOUP_ENCODING_CONTENT_LENGTH) {
        goffset length = soup_message_headers_get_content_length(headers);
        if (length > static_cast<goffset>(kMaxPanelBody)) {
            status = SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE;
            return "a body of " + std::to_string(length) + " bytes is over " + std::to_string(kMaxPanelBody);
        }
    }
    return "";
}

void SimHttp::OnGotHeaders(SoupServerMessage* message, gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    Guarded(
        "a request's headers",
        [http, message] {
            guint status = 0;
            std::string host;
            std::string why = http->Refusal(message, status, host);
            guint early = soup_server_message_get_status(message);
            if (why.empty() && early >= 400) {
                // libsoup refused it already (a path that climbs out, say):
                // answered now too, whatever body it announces.
                status = early;
                why = std::string("malformed request (") + soup_status_get_phrase(early) + ")";
            }
            if (!why.empty()) return http->RefuseNow(message, status, why);
            SetSafetyHeaders(soup_server_message_get_response_headers(message), host);
        },
        [http, message] { http->RefuseNow(message, SOUP_STATUS_INTERNAL_SERVER_ERROR, "internal error"); });
}

// A chunked body has no length in its headers: it is cut off as it passes
// the limit, before more of it is read.
void SimHttp::OnGotChunk(SoupServerMessage* message, GBytes*, gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    Guarded(
        "a request's body",
        [http, message] {
            SoupMessageBody* body = soup_server_message_get_request_body(message);
            if (body == nullptr || body->length <= static_cast<goffset>(kMaxPanelBody)) return;
            http->RefuseNow(message, SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE,
                            "a body of more than " + std::to_string(kMaxPanelBody) + " bytes");
        },
        [http, message] { http->RefuseNow(message, SOUP_STATUS_INTERNAL_SERVER_ERROR, "internal error"); });
}

// Answers refused by libsoup itself (a request it could not parse) get their
// line too.
void SimHttp::OnFinished(SoupServerMessage* message, gpointer) {
    Guarded("a request's end", [message] {
        guint status = soup_server_message_get_status(message);
        if (status < 400 || g_object_get_data(G_OBJECT(message), kLoggedKey) != nullptr) return;
        SIM_LOGW("panel: %s %s ended with %u (%s)", MethodOf(message).c_str(), PathOf(message).c_str(), status,
                 Shown(soup_server_message_get_reason_phrase(message)).c_str());
    });
}

void SimHttp::Refuse(SoupServerMessage* message, guint status, const std::string& why) {
    SIM_LOGW("panel: %s %s refused (%u): %s", MethodOf(message).c_str(), PathOf(message).c_str(), status, why.c_str());
    g_object_set_data(G_OBJECT(message), kLoggedKey, GINT_TO_POINTER(1));
    Reply(message, status, "application/json", ErrorBody(why));
}

void SimHttp::RefuseNow(SoupServerMessage* message, guint status, const std::string& why) {
    SIM_LOGW("panel: %s %s refused (%u): %s", MethodOf(message).c_str(), PathOf(message).c_str(), status, why.c_str());
    g_object_set_data(G_OBJECT(message), kLoggedKey, GINT_TO_POINTER(1));
    // The answer as libsoup would write it, with the headers already set
    // (date, server, the safety headers).
    std::string body = ErrorBody(why);
    std::string answer = "HTTP/1.1 " + std::to_string(status) + " " + soup_status_get_phrase(status) + "\r\n";
    SoupMessageHeadersIter iter;
    soup_message_headers_iter_init(&iter, soup_server_message_get_response_headers(message));
    const char* name = nullptr;
    const char* value = nullptr;
    while (soup_message_headers_iter_next(&iter, &name, &value)) {
        if (g_ascii_strcasecmp(name, "Content-Length") == 0 || g_ascii_strcasecmp(name, "Content-Type") == 0 ||
            g_ascii_strcasecmp(name, "Connection") == 0 || g_ascii_strcasecmp(name, "Transfer-Encoding") == 0) {
            continue;
        }
        answer += std::string(name) + ": " + value + "\r\n";
    }
    answer += "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
              "\r\nConnection: close\r\n\r\n" + body;
    m_connections->AnswerAndClose(message, answer);
}

void SimHttp::OnRequest(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    std::string route = path != nullptr ? path : "/";
    Guarded(
        "a request", [http, message, &route] { http->Serve(message, route); },
        [message] {
            g_object_set_data(G_OBJECT(message), kLoggedKey, GINT_TO_POINTER(1));
            Reply(message, SOUP_STATUS_INTERNAL_SERVER_ERROR, "application/json", "{\"error\":\"internal error\"}");
        });
}

void SimHttp::Serve(SoupServerMessage* message, const std::string& route) {
    if (soup_server_message_get_status(message) >= 400) return;  // refused already
    guint status = 0;
    std::string host;
    std::string why = Refusal(message, status, host);
    if (!why.empty()) return Refuse(message, status, why);
    std::string method = MethodOf(message);
    if (method == "GET" || method == "HEAD") {
        if (route == "/api/state")
            return Reply(message, SOUP_STATUS_OK, "application/json", ValueText(Snapshot()));
        return ServeFile(message, route == "/" ? "/index.html" : route);
    }
    if (method == "POST") return Post(message, route);
    Refuse(message, SOUP_STATUS_METHOD_NOT_ALLOWED, method + " is not served");
}

void SimHttp::ServeFile(SoupServerMessage* message, const std::string& path) {
    std::string resource = std::string(kResourceRoot) + path;
    GBytes* bytes = g_resources_lookup_data(resource.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
    if (bytes == nullptr) return Refuse(message, SOUP_STATUS_NOT_FOUND, path + " is not part of the panel");
    gsize size = 0;
    const char* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    std::string text(data, size);
    g_bytes_unref(bytes);
    Reply(message, SOUP_STATUS_OK, ContentType(path), text);
}

void SimHttp::Post(SoupServerMessage* message, const std::string& path) {
    SoupMessageBody* body = soup_server_message_get_request_body(message);
    GBytes* bytes = soup_message_body_flatten(body);
    gsize size = 0;
    const char* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    std::string text(data != nullptr ? data : "", size);
    g_bytes_unref(bytes);
    ServiceTarget target(m_service);
    PanelOutcome outcome = ApplyPanelPost(path, text, target);
    if (outcome.status != SOUP_STATUS_OK) return Refuse(message, outcome.status, outcome.error);
    SIM_LOGI("panel: %s", outcome.done.c_str());
    Reply(message, SOUP_STATUS_OK, "application/json", "{}");
    // The page that posted sees its change at once.
    if (m_tick != 0) g_source_remove(m_tick);
    m_tick = 0;
    SendChanges();
}

Json::Value SimHttp::Snapshot() const {
    Json::Value snapshot = m_service.State().ToJson();
    snapshot["answering"] = m_service.Answering();
    snapshot["heldCalls"] = m_service.HeldCalls();
    snapshot["delayedAnswers"] = m_service.DelayedAnswers();
    snapshot["calls"] = m_service.State().RecentCalls();
    snapshot["clients"] = m_service.State().SubscribedClients();
    // What the page offers to edit and to send, as the simulator knows them.
    Json::Value& kinds = snapshot["statisticsKinds"] = Json::Value(Json::arrayValue);
    for (const auto& kind : lumora::contract::kStatisticsKinds) {
        Json::Value& entry = kinds.append(Json::Value(Json::objectValue));
        entry["subject"] = kind.subject;
        entry["signature"] = kind.arraySignature;
    }
    Json::Value& events = snapshot["eventKinds"] = Json::Value(Json::arrayValue);
    for (const EventKind& kind : kEventKinds) {
        Json::Value& entry = events.append(Json::Value(Json::objectValue));
        entry["kind"] = kind.name;
        for (const char* subject : kind.subjects) {
            if (subject != nullptr) entry["subjects"].append(subject);
        }
    }
    return snapshot;
}

void SimHttp::SendChanges() {
    if (m_sockets.empty()) return;
    Json::Value now = Snapshot();
    Json::Value delta = Delta(m_sent, now);
    m_sent = std::move(now);
    m_lastSentUs = g_get_monotonic_time();
    if (delta.empty()) return;
    std::string text = ValueText(delta);
    for (SoupWebsocketConnection* socket : m_sockets) {
        if (soup_websocket_connection_get_state(socket) == SOUP_WEBSOCKET_STATE_OPEN)
            soup_websocket_connection_send_text(socket, text.c_str());
    }
}

gboolean SimHttp::OnTick(gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    http->m_tick = 0;
    Guarded("telling the pages", [http] {
        http->SendChanges();
    });
    return G_SOURCE_REMOVE;
}

void SimHttp::OnWebSocket(SoupServer*, SoupServerMessage* message, const char*, SoupWebsocketConnection* connection,
                          gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    Guarded(
        "a WebSocket's start",
        [http, message, connection] {
            if (!http->m_connections->AdoptWebSocket(message)) {
                SIM_LOGW("panel: WebSocket refused: %u open already", http->m_connections->WebSockets());
                soup_websocket_connection_close(connection, SOUP_WEBSOCKET_CLOSE_POLICY_VIOLATION, "too many pages");
                return;
            }
            soup_websocket_connection_set_max_incoming_payload_size(connection, kMaxWebSocketFrame);
            http->m_sockets.push_back(SOUP_WEBSOCKET_CONNECTION(g_object_ref(connection)));
            g_signal_connect(connection, "closed", G_CALLBACK(&SimHttp::OnSocketClosed), http);
            g_signal_connect(connection, "message", G_CALLBACK(&SimHttp::OnSocketMessage), http);
            SIM_LOGI("panel: WebSocket opened (%zu open)", http->m_sockets.size());
            // The page starts from the whole state; changes not yet sent to
            // the others come to it again, which changes nothing there.
            Json::Value snapshot = http->Snapshot();
            soup_websocket_connection_send_text(connection, ValueText(snapshot).c_str());
            if (http->m_sockets.size() == 1) http->m_sent = std::move(snapshot);
        },
        [connection] { soup_websocket_connection_close(connection, SOUP_WEBSOCKET_CLOSE_SERVER_ERROR, nullptr); });
}

// The page only listens (it posts its changes): a frame from it is nothing
// the panel reads, and the WebSocket that sent it is closed.
void SimHttp::OnSocketMessage(SoupWebsocketConnection* connection, gint, GBytes* data, gpointer) {
    Guarded("a WebSocket frame", [connection, data] {
        SIM_LOGW("panel: WebSocket frame of %zu byte(s) refused (the page only listens): closing it",
                 g_bytes_get_size(data));
        if (soup_websocket_connection_get_state(connection) == SOUP_WEBSOCKET_STATE_OPEN)
            soup_websocket_connection_close(connection, SOUP_WEBSOCKET_CLOSE_POLICY_VIOLATION, "the panel only sends");
    });
}

void SimHttp::OnSocketClosed(SoupWebsocketConnection* connection, gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    Guarded("a WebSocket's end", [http, connection] {
        auto it = std::find(http->m_sockets.begin(), http->m_sockets.end(), connection);
        if (it == http->m_sockets.end()) return;
        http->m_sockets.erase(it);
        g_signal_handlers_disconnect_by_data(connection, http);
        g_object_unref(connection);
        SIM_LOGI("panel: WebSocket closed (%zu open)", http->m_sockets.size());
    });
}

}  // namespace lumora::sim
