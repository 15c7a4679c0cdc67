// SimControl: one handler per control method, each a thin call into the service.
#include "SimControl.h"

#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "ControlContract.h"
#include "JsonInput.h"
#include "Scenario.h"
#include "SimLog.h"
#include "SimService.h"

namespace lumora::sim {

namespace {

void ReturnNothing(GDBusMethodInvocation* invocation) { g_dbus_method_invocation_return_value(invocation, nullptr); }

void Refuse(GDBusMethodInvocation* invocation, GDBusError code, const std::string& why) {
    g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, code, why.c_str());
}

}  // namespace

const SimControl::Method SimControl::kMethods[] = {
    {kCtlEmit, &SimControl::Emit},
    {kCtlSetValue, &SimControl::SetValue},
    {kCtlClearValue, &SimControl::ClearValue},
    {kCtlSetResultCode, &SimControl::SetResultCode},
    {kCtlSetDelay, &SimControl::SetDelay},
    {kCtlSetStatistics, &SimControl::SetStatistics},
    {kCtlStopAnswering, &SimControl::StopAnswering},
    {kCtlResumeAnswering, &SimControl::ResumeAnswering},
    {kCtlSetEnabled, &SimControl::SetEnabled},
    {kCtlSetWhiteList, &SimControl::SetWhiteList},
    {kCtlRestart, &SimControl::Restart},
    {kCtlGetStatus, &SimControl::GetStatus},
    {kCtlEmitEvent, &SimControl::EmitEvent},
};

SimControl::SimControl(SimService& service, GDBusConnection* connection)
    : m_service(service), m_connection(connection) {
    static const GDBusInterfaceVTable kVTable = {OnMethodCall, nullptr, nullptr, {nullptr}};
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kControlXml, nullptr);
    GError* error = nullptr;
    m_registrationId = g_dbus_connection_register_object(connection, kControlPath, node->interfaces[0], &kVTable, this,
                                                         nullptr, &error);
    g_dbus_node_info_unref(node);
    if (m_registrationId == 0) {
        SIM_LOGE("control object not registered: %s", error->message);
        g_error_free(error);
    }
}

SimControl::~SimControl() {
    if (m_registrationId != 0) g_dbus_connection_unregister_object(m_connection, m_registrationId);
}

void SimControl::OnMethodCall(GDBusConnection*, const gchar* sender, const gchar*, const gchar*, const gchar* method,
                              GVariant* parameters, GDBusMethodInvocation* invocation, gpointer self) {
    SIM_LOGI("control %s from %s", method, sender);
    auto* control = static_cast<SimControl*>(self);
    try {
        for (const Method& entry : kMethods) {
            if (strcmp(method, entry.name) == 0) return (control->*entry.handler)(parameters, invocation);
        }
        Refuse(invocation, G_DBUS_ERROR_UNKNOWN_METHOD, std::string("no method ") + method);
    } catch (const std::exception& e) {
        // Nothing may unwind into GIO; the caller gets the reason instead.
        SIM_LOGE("control %s failed: %s", method, e.what());
        Refuse(invocation, G_DBUS_ERROR_FAILED, e.what());
    }
}

void SimControl::Emit(GVariant* parameters, GDBusMethodInvocation* invocation) {
    const gchar* subject = nullptr;
    const gchar* data = nullptr;
    g_variant_get(parameters, "(&s&s)", &subject, &data);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", m_service.EmitResponse(subject, data)));
}

void SimControl::SetValue(GVariant* parameters, GDBusMethodInvocation* invocation) {
    const gchar* subject = nullptr;
    const gchar* data = nullptr;
    g_variant_get(parameters, "(&s&s)", &subject, &data);
    m_service.State().SetValue(subject, data);
    ReturnNothing(invocation);
}

void SimControl::ClearValue(GVariant* parameters, GDBusMethodInvocation* invocation) {
    const gchar* subject = nullptr;
    g_variant_get(parameters, "(&s)", &subject);
    m_service.State().ClearValue(subject);
    ReturnNothing(invocation);
}

void SimControl::SetResultCode(GVariant* parameters, GDBusMethodInvocation* invocation) {
    const gchar* subject = nullptr;
    gint32 code = 0;
    g_variant_get(parameters, "(&si)", &subject, &code);
    m_service.State().SetResultCode(subject, code);
    ReturnNothing(invocation);
}

void SimControl::SetDelay(GVariant* parameters, GDBusMethodInvocation* invocation) {
    const gchar* subject = nullptr;
    guint32 delayMs = 0;
    g_variant_get(parameters, "(&su)", &subject, &delayMs);
    m_service.State().SetDelayMs(subject, delayMs);
    ReturnNothing(invocation);
}

void SimControl::SetStatistics(GVariant* parameters, GDBusMethodInvocation* invocation) {
    const gchar* subject = nullptr;
    const gchar* text = nullptr;
    g_variant_get(parameters, "(&s&s)", &subject, &text);
    Json::Value tuples;
    std::string error;
    if (!tools::ParseJson(text, tuples, error)) {
        Refuse(invocation, G_DBUS_ERROR_INVALID_ARGS, "tuples are not JSON: " + error);
    } else if (!CheckStatistics(subject, tuples, "tuples", error)) {
        Refuse(invocation, G_DBUS_ERROR_INVALID_ARGS, error);
    } else {
        m_service.State().SetStatistics(subject, tuples);
        ReturnNothing(invocation);
    }
}

void SimControl::StopAnswering(GVariant*, GDBusMethodInvocation* invocation) {
    m_service.StopAnswering();
    ReturnNothing(invocation);
}

void SimControl::ResumeAnswering(GVariant*, GDBusMethodInvocation* invocation) {
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", m_service.ResumeAnswering()));
}

void SimControl::SetEnabled(GVariant* parameters, GDBusMethodInvocation* invocation) {
    gboolean enabled = FALSE;
    g_variant_get(parameters, "(b)", &enabled);
    m_service.State().SetEnabled(enabled != FALSE);
    ReturnNothing(invocation);
}

void SimControl::SetWhiteList(GVariant* parameters, GDBusMethodInvocation* invocation) {
    GVariantIter* iter = nullptr;
    g_variant_get(parameters, "(as)", &iter);
    std::vector<std::string> names;
    const gchar* name = nullptr;
    while (g_variant_iter_next(iter, "&s", &name)) names.emplace_back(name);
    g_variant_iter_free(iter);
    m_service.State().SetWhiteList(std::move(names));
    ReturnNothing(invocation);
}

void SimControl::Restart(GVariant* parameters, GDBusMethodInvocation* invocation) {
    guint32 pauseMs = 0;
    g_variant_get(parameters, "(u)", &pauseMs);
    // Answered by the service once "HELLO" has gone out.
    if (!m_service.Restart(pauseMs, invocation)) {
        Refuse(invocation, G_DBUS_ERROR_FAILED, "a restart is under way, or the name is not owned");
    }
}

void SimControl::GetStatus(GVariant*, GDBusMethodInvocation* invocation) {
    Json::Value status = m_service.State().ToJson();
    status["answering"] = m_service.Answering();
    status["heldCalls"] = m_service.HeldCalls();
    status["delayedAnswers"] = m_service.DelayedAnswers();
    std::string text = ValueText(status);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(s)", text.c_str()));
}

// Data, when given, becomes the value of every subject of the kind before any
// is signalled, so that a callback reading one of them back sees the event.
void SimControl::EmitEvent(GVariant* parameters, GDBusMethodInvocation* invocation) {
    const gchar* name = nullptr;
    const gchar* data = nullptr;
    g_variant_get(parameters, "(&s&s)", &name, &data);
    const EventKind* kind = FindEventKind(name);
    if (kind == nullptr) {
        std::string kinds;
        for (const EventKind& known : kEventKinds) kinds += std::string(kinds.empty() ? "" : ", ") + known.name;
        return Refuse(invocation, G_DBUS_ERROR_INVALID_ARGS,
                      std::string("unknown event kind '") + name + "' (one of " + kinds + ")");
    }
    Json::Value parsed;
    std::string error;
    if (data[0] != '\0' && !tools::ParseJson(data, parsed, error)) {
        return Refuse(invocation, G_DBUS_ERROR_INVALID_ARGS, "data is not JSON: " + error);
    }
    SimState& state = m_service.State();
    for (const char* subject : kind->subjects) {
        if (subject != nullptr && data[0] != '\0') state.SetValue(subject, data);
    }
    unsigned sent = 0;
    for (const char* subject : kind->subjects) {
        if (subject != nullptr) sent += m_service.EmitResponse(subject, state.Value(subject));
    }
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(u)", sent));
}

}  // namespace lumora::sim
