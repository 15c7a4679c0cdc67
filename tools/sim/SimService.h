// The simulated context service: owns the service name through DIPC, answers
// the four methods of the wire protocol from a SimState, and emits "Response".
#ifndef LUMORA_SIM_SIMSERVICE_H
#define LUMORA_SIM_SIMSERVICE_H

#include <gio/gio.h>
#include <lumora/lumora-dipc.h>

#include <deque>
#include <list>
#include <map>
#include <string>

#include "SimState.h"

namespace lumora::sim {

class SimControl;

/// The error that answers a delayed call when the simulator stops.
constexpr const char* kStoppingError = "org.verdin.tv.lumora2.Error.Stopping";

/**
 * Everything runs on the thread that iterates the default main context; no
 * method is thread-safe. Calls that arrive while answering is stopped are kept
 * unanswered until ResumeAnswering (or released unanswered by the destructor);
 * delayed answers leave later from timeout sources, never blocking the loop.
 */
class SimService {
public:
    SimService(Scenario scenario, GMainLoop* loop);
    ~SimService();
    SimService(const SimService&) = delete;
    SimService& operator=(const SimService&) = delete;

    /// Requests the service name. False when the publisher refuses to start.
    bool Start();
    /// Fails the delayed answers with kStoppingError, says "BYE", removes the
    /// readiness marker and flushes the connection; the name is given up by
    /// the destructor. Held calls stay unanswered, as with a hung service.
    void Shutdown();
    /// 0 after a normal stop; 1 when the name could not be owned or was lost,
    /// or the bus connection was lost.
    int ExitStatus() const { return m_exitStatus; }

    SimState& State() { return m_state; }

    /// Sends "Response" (0, subject, data) to the subject's subscribers, or to
    /// everyone when the scenario broadcasts. Returns the number of signals sent.
    unsigned EmitResponse(const std::string& subject, const std::string& data);
    void StopAnswering();
    /// Answers every held call in arrival order; returns how many.
    unsigned ResumeAnswering();
    /// "BYE", marker removed, subscriptions forgotten; after pauseMs the marker
    /// again and "HELLO", as a restarted service would, and then the empty
    /// answer to invocation (taken over). False, with invocation untouched,
    /// while a restart is under way or the name is not owned.
    bool Restart(unsigned pauseMs, GDBusMethodInvocation* invocation);
    unsigned HeldCalls() const { return static_cast<unsigned>(m_held.size()); }
    unsigned DelayedAnswers() const { return static_cast<unsigned>(m_delayed.size()); }
    bool Answering() const { return m_answering; }

private:
    struct HeldCall {
        std::string sender;
        std::string method;
        GVariant* parameters;
        GDBusMethodInvocation* invocation;
    };
    struct DelayedAnswer {
        SimService* service;
        GDBusMethodInvocation* invocation;
        GVariant* reply;
        guint source;
    };
    struct PendingRestart {
        guint source = 0;
        GDBusMethodInvocation* invocation = nullptr;
    };

    static void OnBusAcquired(const char* name, void* self);
    static void OnNameAcquired(const char* name, void* self);
    static void OnNameLost(const char* name, void* self);
    static void OnMethodCall(const char* sender, const char* objectPath, const char* interfaceName,
                             const char* methodName, GVariant* parameters, GDBusMethodInvocation* invocation,
                             void* self);
    static gboolean OnDelayElapsed(gpointer answer);
    static gboolean OnRestartPauseElapsed(gpointer self);
    static void OnConnectionClosed(GDBusConnection* connection, gboolean remotePeerVanished, GError* error,
                                   gpointer self);
    static void OnNameOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                   GVariant* parameters, gpointer self);

    void Dispatch(const std::string& sender, const std::string& method, GVariant* parameters,
                  GDBusMethodInvocation* invocation);
    void OnServiceEnable(GDBusMethodInvocation* invocation);
    void OnRequestSync(const std::string& sender, GVariant* parameters, GDBusMethodInvocation* invocation);
    void OnRequestAsync(const std::string& sender, GVariant* parameters, GDBusMethodInvocation* invocation);
    void OnWrite(const std::string& sender, GVariant* parameters, GDBusMethodInvocation* invocation);
    /// Records a write to a channel removal subject and takes the channels it
    /// names out of the stored channel list; true when the list changed.
    bool ApplyChannelRemoval(const std::string& subject, const std::string& input);
    /// The process of a caller whose call does not name it, asked of the bus
    /// once per client: 0 until the bus has answered, and the calls recorded
    /// meanwhile are named then.
    guint32 CallerPid(const std::string& sender);
    static void OnCallerPid(GObject* connection, GAsyncResult* result, gpointer self);
    void Answer(const std::string& subject, GDBusMethodInvocation* invocation, GVariant* reply);
    bool Publish(const char* destination, const std::string& subject, const std::string& data);
    void SayHello();
    void SayBye();
    void FailDelayedAnswers();
    void StopAfterBusFailure();
    void ReleasePendingWork();

    SimState m_state;
    GMainLoop* m_loop;
    LumoraDIPCHandle* m_handle = nullptr;
    GDBusConnection* m_connection = nullptr;  // the shared system-bus connection, owned ref
    SimControl* m_control = nullptr;
    guint m_ownerWatch = 0;
    gulong m_closedHandler = 0;
    bool m_nameOwned = false;
    bool m_answering = true;
    int m_exitStatus = 0;
    std::deque<HeldCall> m_held;
    std::list<DelayedAnswer*> m_delayed;
    PendingRestart m_restart;
    std::map<std::string, guint32> m_callerPids;  // 0 while the bus is asked
    GCancellable* m_cancellable = g_cancellable_new();
};

/// Creates (or refreshes) and removes the readiness marker file.
bool CreateReadyMarker();
void RemoveReadyMarker();

}  // namespace lumora::sim

#endif  // LUMORA_SIM_SIMSERVICE_H
