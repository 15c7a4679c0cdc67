// The control panel's server: static files from the GResource, the state as
// JSON (GET /api/state and over the WebSocket /ws whenever it changes), and
// the changes (POST /api/set, POST /api/control).
#include "SimHttp.h"

#include <gio/gio.h>

#include <algorithm>
#include <cstdlib>

#include "Scenario.h"
#include "SimLog.h"
#include "SimService.h"

namespace lumora::sim {

namespace {

constexpr const char* kResourceRoot = "/org/verdin/tv/lumora-sim/panel";

void Reply(SoupServerMessage* message, guint status, const std::string& type, const std::string& body) {
    soup_server_message_set_status(message, status, nullptr);
    soup_server_message_set_response(message, type.c_str(), SOUP_MEMORY_COPY, body.data(), body.size());
    soup_message_headers_replace(soup_server_message_get_response_headers(message), "Cache-Control", "no-store");
}

void ReplyError(SoupServerMessage* message, guint status, const std::string& error) {
    Json::Value body;
    body["error"] = error;
    Reply(message, status, "application/json", ValueText(body));
}

bool IsLoopback(const std::string& address) {
    GInetAddress* inet = g_inet_address_new_from_string(address.c_str());
    bool loopback = inet != nullptr && g_inet_address_get_is_loopback(inet);
    if (inet != nullptr) g_object_unref(inet);
    return loopback;
}

const char* ContentType(const std::string& path) {
    if (g_str_has_suffix(path.c_str(), ".js")) return "text/javascript; charset=utf-8";
    if (g_str_has_suffix(path.c_str(), ".css")) return "text/css; charset=utf-8";
    return "text/html; charset=utf-8";
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
        soup_server_disconnect(m_server);
        g_object_unref(m_server);
    }
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
    m_server = soup_server_new("server-header", "lumora-sim", nullptr);
    soup_server_add_early_handler(m_server, nullptr, &SimHttp::OnEarly, this, nullptr);
    soup_server_add_handler(m_server, nullptr, &SimHttp::OnRequest, this, nullptr);
    GInetAddress* inet = g_inet_address_new_from_string(m_address.c_str());
    GSocketAddress* socketAddress = g_inet_socket_address_new(inet, static_cast<guint16>(m_port));
    g_object_unref(inet);
    GError* listenError = nullptr;
    bool listening = soup_server_listen(m_server, socketAddress, static_cast<SoupServerListenOptions>(0), &listenError);
    g_object_unref(socketAddress);
    if (!listening) {
        error = std::string("cannot serve the control panel on ") + m_address + ":" + std::to_string(m_port) + ": " +
                listenError->message;
        g_error_free(listenError);
        return false;
    }
    GSList* uris = soup_server_get_uris(m_server);
    if (uris != nullptr) m_port = static_cast<unsigned>(g_uri_get_port(static_cast<GUri*>(uris->data)));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
    bool v6 = m_address.find(':') != std::string::npos;
    m_host = (v6 ? "[" + m_address + "]" : m_address) + ":" + std::to_string(m_port);
    m_url = "http://" + m_host + "/";
    // The WebSocket takes only the panel's own page (libsoup checks Origin
    // too); the early handler has refused any other Host or Origin before.
    std::string origin = "http://" + m_host;
    soup_server_add_websocket_handler(m_server, "/ws", origin.c_str(), nullptr, &SimHttp::OnWebSocket, this, nullptr);
    // Every change of the state, from ctl, a replay, another browser or the
    // clients, reaches the pages once the main loop is idle: a burst of
    // changes is one message.
    m_service.State().SetChangeListener([this] {
        if (m_tick == 0) m_tick = g_idle_add(&SimHttp::OnTick, this);
    });
    SIM_LOGI("control panel at %s", m_url.c_str());
    return true;
}

// Every request, before its body is read: a page of another site (Origin) or
// a name that resolves here by trickery (Host) is refused whatever it asks.
std::string SimHttp::Refusal(SoupServerMessage* message, guint& status) const {
    SoupMessageHeaders* headers = soup_server_message_get_request_headers(message);
    const char* host = soup_message_headers_get_one(headers, "Host");
    const char* origin = soup_message_headers_get_one(headers, "Origin");
    std::string method = soup_server_message_get_method(message);
    status = SOUP_STATUS_FORBIDDEN;
    if (host == nullptr || m_host != host)
        return std::string("Host ") + (host != nullptr ? host : "(none)") + " is not " + m_host;
    bool reading = method == "GET" || method == "HEAD";
    bool upgrade = soup_message_headers_header_contains(headers, "Upgrade", "websocket");
    if ((!reading || upgrade || origin != nullptr) && (origin == nullptr || "http://" + m_host != origin))
        return std::string("Origin ") + (origin != nullptr ? origin : "(none)") + " is not the panel's own";
    goffset length = soup_message_headers_get_content_length(headers);
    if (length > static_cast<goffset>(kMaxPanelBody)) {
        status = SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE;
        return "a body of " + std::to_string(length) + " bytes is over " + std::to_string(kMaxPanelBody);
    }
    return "";
}

void SimHttp::OnEarly(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    guint status = 0;
    std::string why = http->Refusal(message, status);
    if (why.empty()) return;
    SIM_LOGW("panel: %s %s refused (%u): %s", soup_server_message_get_method(message), path, status, why.c_str());
    ReplyError(message, status, why);
}

void SimHttp::OnRequest(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*, gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    if (soup_server_message_get_status(message) >= 400) return;  // refused early
    guint status = 0;
    std::string why = http->Refusal(message, status);
    if (!why.empty()) return ReplyError(message, status, why);
    std::string method = soup_server_message_get_method(message);
    std::string route = path;
    if (method == "GET" || method == "HEAD") {
        if (route == "/api/state")
            return Reply(message, SOUP_STATUS_OK, "application/json", ValueText(http->Snapshot()));
        return http->ServeFile(message, route == "/" ? "/index.html" : route);
    }
    if (method == "POST") return http->Post(message, route);
    ReplyError(message, SOUP_STATUS_METHOD_NOT_ALLOWED, method + " is not served");
}

void SimHttp::ServeFile(SoupServerMessage* message, const std::string& path) {
    std::string resource = std::string(kResourceRoot) + path;
    GBytes* bytes = g_resources_lookup_data(resource.c_str(), G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
    if (bytes == nullptr) return ReplyError(message, SOUP_STATUS_NOT_FOUND, path + " is not part of the panel");
    gsize size = 0;
    const char* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    Reply(message, SOUP_STATUS_OK, ContentType(path), std::string(data, size));
    g_bytes_unref(bytes);
}

void SimHttp::Post(SoupServerMessage* message, const std::string& path) {
    SoupMessageBody* body = soup_server_message_get_request_body(message);
    GBytes* bytes = soup_message_body_flatten(body);
    gsize size = 0;
    const char* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    std::string text(data != nullptr ? data : "", size);
    g_bytes_unref(bytes);
    std::string error;
    guint status = SOUP_STATUS_BAD_REQUEST;
    Json::Value request;
    if (size > kMaxPanelBody) {
        status = SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE;
        error = "the body is over " + std::to_string(kMaxPanelBody) + " bytes";
    } else if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
        error = "the body is not valid UTF-8";
    } else if (!ParseJsonText(text, request, error)) {
        error = "the body is not JSON: " + error;
    } else if (!request.isObject()) {
        error = "the body is not a JSON object";
    } else if (path != "/api/set" && path != "/api/control") {
        status = SOUP_STATUS_NOT_FOUND;
        error = path + " takes no post";
    } else if (Apply(path, request, error)) {
        Reply(message, SOUP_STATUS_OK, "application/json", "{}");
        SendSnapshot(true);
        return;
    }
    SIM_LOGW("panel: POST %s refused (%u): %s", path.c_str(), status, error.c_str());
    ReplyError(message, status, error);
}

// The change a post asks for, through the same state and service operations
// as the control interface.
bool SimHttp::Apply(const std::string& path, const Json::Value& request, std::string& error) {
    SimState& state = m_service.State();
    if (path == "/api/set") {
        const Json::Value& subject = request["subject"];
        const Json::Value& value = request["value"];
        if (!subject.isString() || subject.asString().empty()) return error = "\"subject\" must be a text", false;
        if (!value.isString()) return error = "\"value\" must be the value's text", false;
        Json::Value parsed;
        std::string why;
        if (!ParseJsonText(value.asString(), parsed, why)) return error = "the value is not JSON: " + why, false;
        state.SetValue(subject.asString(), value.asString());
        if (request["notify"].asBool()) m_service.EmitResponse(subject.asString(), value.asString());
        SIM_LOGI("panel: %s %s", request["notify"].asBool() ? "set and notified" : "set", subject.asCString());
        return true;
    }
    std::string action = request["action"].asString();
    const Json::Value& subject = request["subject"];
    if (action == "enable" || action == "disable") {
        state.SetEnabled(action == "enable");
    } else if (action == "stop-answering") {
        m_service.StopAnswering();
    } else if (action == "resume-answering") {
        m_service.ResumeAnswering();
    } else if (action == "restart") {
        unsigned pause = request["pause_ms"].isUInt() ? std::min(request["pause_ms"].asUInt(), 60000u) : 1000u;
        if (!m_service.Restart(pause, nullptr))
            return error = "a restart is under way, or the name is not owned", false;
    } else if (action == "whitelist") {
        if (!request["names"].isArray()) return error = "\"names\" must be a list of process names", false;
        std::vector<std::string> names;
        for (const Json::Value& name : request["names"]) {
            if (!name.isString()) return error = "\"names\" must be a list of process names", false;
            names.push_back(name.asString());
        }
        state.SetWhiteList(std::move(names));
    } else if (action == "code" || action == "delay") {
        if (!subject.isString() || subject.asString().empty()) return error = "\"subject\" must be a text", false;
        const Json::Value& number = request["value"];
        if (action == "code") {
            if (!number.isInt()) return error = "\"value\" must be a whole number", false;
            state.SetResultCode(subject.asString(), number.asInt());
        } else {
            if (!number.isUInt() || number.asUInt() > 600000) return error = "\"value\" must be 0 to 600000 ms", false;
            state.SetDelayMs(subject.asString(), number.asUInt());
        }
    } else {
        return error = "unknown action \"" + action + "\"", false;
    }
    SIM_LOGI("panel: %s", action.c_str());
    return true;
}

Json::Value SimHttp::Snapshot() const {
    Json::Value snapshot = m_service.State().ToJson();
    snapshot["answering"] = m_service.Answering();
    snapshot["heldCalls"] = m_service.HeldCalls();
    snapshot["delayedAnswers"] = m_service.DelayedAnswers();
    snapshot["calls"] = m_service.State().RecentCalls();
    return snapshot;
}

void SimHttp::SendSnapshot(bool onlyWhenChanged) {
    std::string text = ValueText(Snapshot());
    if (onlyWhenChanged && text == m_lastSnapshot) return;
    m_lastSnapshot = text;
    for (SoupWebsocketConnection* socket : m_sockets) {
        if (soup_websocket_connection_get_state(socket) == SOUP_WEBSOCKET_STATE_OPEN)
            soup_websocket_connection_send_text(socket, text.c_str());
    }
}

gboolean SimHttp::OnTick(gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    http->m_tick = 0;
    if (!http->m_sockets.empty()) http->SendSnapshot(true);
    return G_SOURCE_REMOVE;
}

void SimHttp::OnWebSocket(SoupServer*, SoupServerMessage*, const char*, SoupWebsocketConnection* connection,
                          gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    http->m_sockets.push_back(SOUP_WEBSOCKET_CONNECTION(g_object_ref(connection)));
    g_signal_connect(connection, "closed", G_CALLBACK(&SimHttp::OnSocketClosed), http);
    g_signal_connect(connection, "message", G_CALLBACK(&SimHttp::OnSocketMessage), http);
    // The page starts from the whole state.
    soup_websocket_connection_send_text(connection, ValueText(http->Snapshot()).c_str());
}

// The page only listens: anything it sends is dropped with a line.
void SimHttp::OnSocketMessage(SoupWebsocketConnection*, gint, GBytes* data, gpointer) {
    SIM_LOGW("panel: %zu byte(s) from a WebSocket ignored (the panel posts its changes)", g_bytes_get_size(data));
}

void SimHttp::OnSocketClosed(SoupWebsocketConnection* connection, gpointer self) {
    auto* http = static_cast<SimHttp*>(self);
    auto it = std::find(http->m_sockets.begin(), http->m_sockets.end(), connection);
    if (it == http->m_sockets.end()) return;
    http->m_sockets.erase(it);
    g_signal_handlers_disconnect_by_data(connection, http);
    g_object_unref(connection);
}

}  // namespace lumora::sim
