// The control object: lets tests, demos and developers change the simulated
// television while clients talk to it (see ControlContract.h).
#ifndef LUMORA_SIM_SIMCONTROL_H
#define LUMORA_SIM_SIMCONTROL_H

#include <gio/gio.h>

namespace lumora::sim {

class SimService;

/// Registered on the service's connection for the life of the object; runs on
/// the thread of the default main context, like the service.
class SimControl {
public:
    SimControl(SimService& service, GDBusConnection* connection);
    ~SimControl();
    SimControl(const SimControl&) = delete;
    SimControl& operator=(const SimControl&) = delete;

private:
    using Handler = void (SimControl::*)(GVariant* parameters, GDBusMethodInvocation* invocation);
    struct Method {
        const char* name;
        Handler handler;
    };
    static const Method kMethods[];

    static void OnMethodCall(GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* method,
                             GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self);
    void Emit(GVariant* parameters, GDBusMethodInvocation* invocation);
    void SetValue(GVariant* parameters, GDBusMethodInvocation* invocation);
    void ClearValue(GVariant* parameters, GDBusMethodInvocation* invocation);
    void SetResultCode(GVariant* parameters, GDBusMethodInvocation* invocation);
    void SetDelay(GVariant* parameters, GDBusMethodInvocation* invocation);
    void SetStatistics(GVariant* parameters, GDBusMethodInvocation* invocation);
    void StopAnswering(GVariant* parameters, GDBusMethodInvocation* invocation);
    void ResumeAnswering(GVariant* parameters, GDBusMethodInvocation* invocation);
    void SetEnabled(GVariant* parameters, GDBusMethodInvocation* invocation);
    void SetWhiteList(GVariant* parameters, GDBusMethodInvocation* invocation);
    void Restart(GVariant* parameters, GDBusMethodInvocation* invocation);
    void GetStatus(GVariant* parameters, GDBusMethodInvocation* invocation);
    void EmitEvent(GVariant* parameters, GDBusMethodInvocation* invocation);

    SimService& m_service;
    GDBusConnection* m_connection;
    guint m_registrationId = 0;
};

}  // namespace lumora::sim

#endif  // LUMORA_SIM_SIMCONTROL_H
