// SimService: life cycle, signals and the readiness marker. The four methods
// of the wire protocol are answered in ServiceMethods.cpp.
#include "SimService.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "SimControl.h"
#include "SimLog.h"
#include "internal/ServiceContract.h"

namespace lumora::sim {

namespace contract = lumora::contract;

namespace {

// The process name the publisher admits for the context service.
constexpr const char* kServiceProcessName = "lumora-service";

std::string ServiceXml() {
    const std::string request =
        "<arg type='i' direction='in'/><arg type='i' direction='in'/>"
        "<arg type='i' direction='in'/><arg type='s' direction='in'/>"
        "<arg type='s' direction='in'/>";
    return std::string("<node><interface name='") + contract::kInterface + "'>" + "<method name='" +
           contract::kMethodServiceEnable +
           "'><arg type='b' direction='out'/><arg type='s' direction='out'/></method>" + "<method name='" +
           contract::kMethodRequestSync + "'>" + request +
           "<arg type='i' direction='out'/><arg type='s' direction='out'/></method>" + "<method name='" +
           contract::kMethodRequestAsync + "'>" + request +
           "<arg type='i' direction='out'/><arg type='s' direction='out'/><arg type='v' direction='out'/>"
           "</method>" +
           "<method name='" + contract::kMethodWrite + "'>" + request + "</method>" + "<signal name='" +
           contract::kSignalResponse + "'><arg type='i'/><arg type='s'/><arg type='s'/></signal>" +
           "</interface></node>";
}

}  // namespace

bool CreateReadyMarker() {
    int fd = open(contract::kReadyMarkerFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        SIM_LOGE("cannot create %s: %s", contract::kReadyMarkerFile, strerror(errno));
        return false;
    }
    std::string pid = std::to_string(getpid()) + "\n";
    bool written = write(fd, pid.data(), pid.size()) == static_cast<ssize_t>(pid.size());
    close(fd);
    return written;
}

void RemoveReadyMarker() {
    if (unlink(contract::kReadyMarkerFile) != 0 && errno != ENOENT) {
        SIM_LOGE("cannot remove %s: %s", contract::kReadyMarkerFile, strerror(errno));
    }
}

SimService::SimService(Scenario scenario, GMainLoop* loop) : m_state(std::move(scenario)), m_loop(loop) {}

SimService::~SimService() {
    g_cancellable_cancel(m_cancellable);
    g_object_unref(m_cancellable);
    ReleasePendingWork();
    delete m_control;
    if (m_closedHandler != 0) g_signal_handler_disconnect(m_connection, m_closedHandler);
    if (m_ownerWatch != 0) g_dbus_connection_signal_unsubscribe(m_connection, m_ownerWatch);
    if (m_handle != nullptr) Lumora_DIPC_Stop(&m_handle);
    if (m_connection != nullptr) g_object_unref(m_connection);
}

bool SimService::Start() {
    LumoraDIPCCallbacks callbacks = {OnBusAcquired, OnNameLost, OnNameAcquired, OnMethodCall};
    std::string xml = ServiceXml();
    m_handle = Lumora_DIPC_Start(kServiceProcessName, 1, contract::kBusName, contract::kObjectPath, xml.c_str(), this,
                                 callbacks);
    return m_handle != nullptr;
}

void SimService::OnBusAcquired(const char* name, void* self) {
    auto* service = static_cast<SimService*>(self);
    // g_bus_own_name works on GIO's shared system-bus connection, so this is
    // the connection the name is being requested on; the control object lives
    // beside the service object there.
    GError* error = nullptr;
    service->m_connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (service->m_connection == nullptr) {
        SIM_LOGE("no system bus connection for the control object: %s", error->message);
        g_error_free(error);
        return;
    }
    // A bus that goes away is reported as such (OnConnectionClosed), not by
    // GIO's SIGTERM to the process, which would read as an ordinary stop.
    g_dbus_connection_set_exit_on_close(service->m_connection, FALSE);
    service->m_closedHandler =
        g_signal_connect(service->m_connection, "closed", G_CALLBACK(OnConnectionClosed), service);
    service->m_control = new SimControl(*service, service->m_connection);
    service->m_ownerWatch = g_dbus_connection_signal_subscribe(
        service->m_connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", nullptr, G_DBUS_SIGNAL_FLAGS_NONE, OnNameOwnerChanged, service, nullptr);
    SIM_LOGI("bus acquired, requesting %s", name);
}

void SimService::OnNameAcquired(const char* name, void* self) {
    auto* service = static_cast<SimService*>(self);
    service->m_nameOwned = true;
    SIM_LOGI("%s owned, serving %s", name, contract::kObjectPath);
    service->SayHello();
}

// GIO reports a name as lost also when the whole connection went, or never
// came: those are said as what they are, once.
void SimService::OnNameLost(const char* name, void* self) {
    auto* service = static_cast<SimService*>(self);
    if (service->m_connection == nullptr) {
        const char* address = g_getenv("DBUS_SYSTEM_BUS_ADDRESS");
        SIM_LOGE("no system bus connection, %s not owned", name);
        fprintf(stderr, "lumora-sim: cannot connect to the system bus (%s)\n",
                address != nullptr ? address : "the machine's system bus");
    } else if (g_dbus_connection_is_closed(service->m_connection)) {
        // OnConnectionClosed says it, whichever of the two GIO calls first.
        SIM_LOGE("%s gone with the bus connection", name);
    } else {
        const char* what = service->m_nameOwned ? "lost" : "could not own";
        SIM_LOGE("%s %s", what, name);
        fprintf(stderr, "lumora-sim: %s %s on the system bus (is another service running?)\n", what, name);
    }
    service->StopAfterBusFailure();
}

void SimService::OnConnectionClosed(GDBusConnection* connection, gboolean remotePeerVanished, GError* error,
                                    gpointer self) {
    auto* service = static_cast<SimService*>(self);
    g_signal_handler_disconnect(connection, service->m_closedHandler);
    service->m_closedHandler = 0;
    const char* reason = error != nullptr ? error->message : remotePeerVanished ? "the bus went away" : "closed";
    SIM_LOGE("lost the bus connection: %s", reason);
    fprintf(stderr, "lumora-sim: lost the bus connection (%s)\n", reason);
    service->StopAfterBusFailure();
}

// Ends the service after a failure on the bus: nothing can be said there
// any more, so the marker goes here.
void SimService::StopAfterBusFailure() {
    if (m_nameOwned) RemoveReadyMarker();
    m_nameOwned = false;
    m_exitStatus = 1;
    g_main_loop_quit(m_loop);
}

// Subscriptions of a client that left the bus would only ever reach nobody.
void SimService::OnNameOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                    GVariant* parameters, gpointer self) {
    const gchar* name = nullptr;
    const gchar* newOwner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", &name, nullptr, &newOwner);
    if (name[0] != ':' || newOwner[0] != '\0') return;
    auto* service = static_cast<SimService*>(self);
    service->m_callerPids.erase(name);
    service->m_state.DropClient(name);
}

guint32 SimService::CallerPid(const std::string& sender) {
    auto known = m_callerPids.find(sender);
    if (known != m_callerPids.end()) return known->second;
    if (m_connection == nullptr) return 0;
    // Asked without waiting: a synchronous call would need descriptors of
    // its own, which may be the very thing that ran out.
    m_callerPids[sender] = 0;
    auto* request = new std::pair<SimService*, std::string>(this, sender);
    g_dbus_connection_call(m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", g_variant_new("(s)", sender.c_str()), G_VARIANT_TYPE("(u)"),
                           G_DBUS_CALL_FLAGS_NONE, 1000, m_cancellable, &SimService::OnCallerPid, request);
    return 0;
}

void SimService::OnCallerPid(GObject* connection, GAsyncResult* result, gpointer data) {
    auto* request = static_cast<std::pair<SimService*, std::string>*>(data);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error);
    guint32 pid = 0;
    if (reply != nullptr) {
        g_variant_get(reply, "(u)", &pid);
        g_variant_unref(reply);
    }
    bool cancelled = error != nullptr && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
    if (error != nullptr) g_error_free(error);
    // Cancelled: the service is gone, and request's service with it.
    if (!cancelled && pid != 0) {
        SimService* service = request->first;
        auto known = service->m_callerPids.find(request->second);
        if (known != service->m_callerPids.end()) known->second = pid;
        service->m_state.NameCaller(request->second, pid);
    }
    delete request;
}

bool SimService::Publish(const char* destination, const std::string& subject, const std::string& data) {
    return Lumora_DIPC_Publish(m_handle, destination,
                               g_variant_new(contract::kResponseSignal, 0, subject.c_str(), data.c_str()),
                               contract::kInterface, contract::kSignalResponse);
}

unsigned SimService::EmitResponse(const std::string& subject, const std::string& data) {
    if (m_state.BroadcastResponses()) return Publish(nullptr, subject, data) ? 1 : 0;
    unsigned sent = 0;
    for (const std::string& client : m_state.Subscribers(subject)) {
        if (Publish(client.c_str(), subject, data)) ++sent;
    }
    SIM_LOGI("Response %s sent to %u subscriber(s)", subject.c_str(), sent);
    return sent;
}

// The marker comes first, so that a client reacting to "HELLO" finds it.
void SimService::SayHello() {
    CreateReadyMarker();
    std::string whiteList = m_state.WhiteList();
    Publish(nullptr, contract::kHello, whiteList);
    SIM_LOGI("HELLO %s", whiteList.c_str());
}

void SimService::SayBye() {
    Publish(nullptr, contract::kBye, "");
    RemoveReadyMarker();
    SIM_LOGI("BYE");
}

void SimService::Shutdown() {
    FailDelayedAnswers();
    if (m_nameOwned) SayBye();
    // The signal must leave before the process does.
    if (m_connection != nullptr) g_dbus_connection_flush_sync(m_connection, nullptr, nullptr);
}

void SimService::StopAnswering() {
    m_answering = false;
    SIM_LOGI("answering stopped");
    m_state.Changed();
}

unsigned SimService::ResumeAnswering() {
    m_answering = true;
    m_state.Changed();
    unsigned answered = 0;
    while (m_answering && !m_held.empty()) {
        HeldCall call = m_held.front();
        m_held.pop_front();
        Dispatch(call.sender, call.method, call.parameters, call.invocation);
        g_variant_unref(call.parameters);
        ++answered;
    }
    SIM_LOGI("answering resumed, %u held call(s) answered", answered);
    return answered;
}

bool SimService::Restart(unsigned pauseMs, GDBusMethodInvocation* invocation) {
    if (m_restart.source != 0 || !m_nameOwned) return false;
    SayBye();
    m_state.DropAllSubscriptions();  // a restarted service starts with none
    m_restart = {g_timeout_add(pauseMs, OnRestartPauseElapsed, this), invocation};
    return true;
}

gboolean SimService::OnRestartPauseElapsed(gpointer self) {
    auto* service = static_cast<SimService*>(self);
    PendingRestart restart = service->m_restart;
    service->m_restart = PendingRestart();
    service->SayHello();
    // A restart from the control panel has no call to answer.
    if (restart.invocation != nullptr) Lumora_DIPC_SendData(restart.invocation, nullptr);
    return G_SOURCE_REMOVE;
}

void SimService::Answer(const std::string& subject, GDBusMethodInvocation* invocation, GVariant* reply) {
    unsigned delayMs = m_state.DelayMs(subject);
    if (delayMs == 0) {
        Lumora_DIPC_SendData(invocation, reply);
        return;
    }
    auto* answer = new DelayedAnswer{this, invocation, g_variant_ref_sink(reply), 0};
    answer->source = g_timeout_add(delayMs, OnDelayElapsed, answer);
    m_delayed.push_back(answer);
    SIM_LOGI("answer for %s delayed by %u ms", subject.c_str(), delayMs);
}

gboolean SimService::OnDelayElapsed(gpointer data) {
    auto* answer = static_cast<DelayedAnswer*>(data);
    answer->service->m_delayed.remove(answer);
    Lumora_DIPC_SendData(answer->invocation, answer->reply);
    g_variant_unref(answer->reply);
    delete answer;
    return G_SOURCE_REMOVE;
}

// A service stopping in order fails the answers it has begun before it says
// "BYE", so that their callers hear of it before they hear it is gone.
void SimService::FailDelayedAnswers() {
    for (DelayedAnswer* answer : m_delayed) {
        g_source_remove(answer->source);
        g_variant_unref(answer->reply);
        g_dbus_method_invocation_return_dbus_error(answer->invocation, kStoppingError,
                                                   "the context service is stopping");
        delete answer;
    }
    if (!m_delayed.empty()) SIM_LOGI("%zu delayed answer(s) failed: stopping", m_delayed.size());
    m_delayed.clear();
}

// Calls still held (a hung service) or delayed at exit are dropped
// unanswered; their clients see the bus's own error once the process is gone.
void SimService::ReleasePendingWork() {
    for (HeldCall& call : m_held) {
        g_variant_unref(call.parameters);
        g_object_unref(call.invocation);
    }
    m_held.clear();
    for (DelayedAnswer* answer : m_delayed) {
        g_source_remove(answer->source);
        g_variant_unref(answer->reply);
        g_object_unref(answer->invocation);
        delete answer;
    }
    m_delayed.clear();
    if (m_restart.source != 0) {
        g_source_remove(m_restart.source);
        g_object_unref(m_restart.invocation);
    }
    m_restart = PendingRestart();
}

}  // namespace lumora::sim
