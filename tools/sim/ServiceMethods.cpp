// SimService: the four methods of the wire protocol. GIO has already checked
// each call's argument signature against the introspection data, so only the
// request type is left to check here.
#include "ChannelRemoval.h"
#include "Reorder.h"
#include "SimLog.h"
#include "SimService.h"
#include "Statistics.h"
#include "internal/ServiceContract.h"

namespace lumora::sim {

namespace contract = lumora::contract;

namespace {

struct RequestTuple {
    gint32 pid = 0;
    gint32 type = 0;
    gint32 reqId = 0;
    const gchar* subject = nullptr;  // borrowed from the call's parameters
    const gchar* input = nullptr;
};

RequestTuple ReadRequest(GVariant* parameters) {
    RequestTuple request;
    g_variant_get(parameters, "(iii&s&s)", &request.pid, &request.type, &request.reqId, &request.subject,
                  &request.input);
    return request;
}

void RefuseType(GDBusMethodInvocation* invocation, const char* method, int type) {
    SIM_LOGE("%s refused request type %d", method, type);
    g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                          "%s does not serve request type %d", method, type);
}

void LogRequest(const char* method, const std::string& sender, const RequestTuple& request) {
    SIM_LOGI("%s from %s: pid:%d type:%d reqId:%d subject:%s input:%s", method, sender.c_str(), request.pid,
             request.type, request.reqId, request.subject, request.input);
}

// Reads and logs the tuple of a method that serves one request type; a call of
// another type gets an error answer and false.
bool AcceptRequest(const char* method, int type, const std::string& sender, GVariant* parameters,
                   GDBusMethodInvocation* invocation, RequestTuple& request) {
    request = ReadRequest(parameters);
    LogRequest(method, sender, request);
    if (request.type == type) return true;
    RefuseType(invocation, method, request.type);
    return false;
}

}  // namespace

void SimService::OnMethodCall(const char* sender, const char* /*objectPath*/, const char* /*interfaceName*/,
                              const char* methodName, GVariant* parameters, GDBusMethodInvocation* invocation,
                              void* self) {
    auto* service = static_cast<SimService*>(self);
    if (!service->m_answering) {
        // Kept without an answer: the caller waits, and times out, as with a
        // service that hangs.
        service->m_held.push_back({sender, methodName, g_variant_ref(parameters), invocation});
        service->m_state.Changed();
        SIM_LOGI("%s from %s held (answering stopped)", methodName, sender);
        return;
    }
    service->Dispatch(sender, methodName, parameters, invocation);
}

void SimService::Dispatch(const std::string& sender, const std::string& method, GVariant* parameters,
                          GDBusMethodInvocation* invocation) {
    guint32 callerPid = 0;
    if (method == contract::kMethodServiceEnable && m_state.RecordingCalls()) callerPid = CallerPid(sender);
    m_state.RecordCall(sender, method, parameters, callerPid);
    if (method == contract::kMethodServiceEnable) {
        OnServiceEnable(invocation);
    } else if (method == contract::kMethodRequestSync) {
        OnRequestSync(sender, parameters, invocation);
    } else if (method == contract::kMethodRequestAsync) {
        OnRequestAsync(sender, parameters, invocation);
    } else if (method == contract::kMethodWrite) {
        OnWrite(sender, parameters, invocation);
    } else {
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD, "no method %s",
                                              method.c_str());
    }
}

void SimService::OnServiceEnable(GDBusMethodInvocation* invocation) {
    std::string whiteList = m_state.WhiteList();
    SIM_LOGI("ServiceEnable: enabled:%d whitelist:%s", m_state.Enabled(), whiteList.c_str());
    Lumora_DIPC_SendData(invocation,
                         g_variant_new(contract::kServiceEnableReply, m_state.Enabled(), whiteList.c_str()));
}

void SimService::OnRequestSync(const std::string& sender, GVariant* parameters, GDBusMethodInvocation* invocation) {
    RequestTuple request = ReadRequest(parameters);
    LogRequest(contract::kMethodRequestSync, sender, request);
    std::string subject = request.subject;
    switch (request.type) {
        case contract::kRequestRead: {
            std::string value;
            if (subject != kReorderSubject || !ReorderCandidates(request.input, value)) value = m_state.Value(subject);
            Answer(subject, invocation,
                   g_variant_new(contract::kRequestSyncReply, m_state.ResultCode(subject), value.c_str()));
            return;
        }
        case contract::kRequestSubscribe:
            m_state.Subscribe(subject, sender, request.pid);
            break;
        case contract::kRequestUnsubscribe:
            m_state.Unsubscribe(subject, sender);
            break;
        default:
            RefuseType(invocation, contract::kMethodRequestSync, request.type);
            return;
    }
    Answer(subject, invocation, g_variant_new(contract::kRequestSyncReply, 0, contract::kEmptyJson));
}

void SimService::OnRequestAsync(const std::string& sender, GVariant* parameters, GDBusMethodInvocation* invocation) {
    RequestTuple request;
    if (!AcceptRequest(contract::kMethodRequestAsync, contract::kRequestAsync, sender, parameters, invocation,
                       request)) {
        return;
    }
    std::string subject = request.subject;
    const contract::StatisticsKind* kind = FindStatisticsKind(subject);
    GVariant* payload = kind != nullptr ? BuildStatisticsArray(*kind, m_state.Statistics(subject))
                                        : g_variant_new(contract::kTextPayload, m_state.Value(subject).c_str());
    // The reply names the subject it answers: that is how the client picks
    // the record type of a statistics array.
    Answer(subject, invocation,
           g_variant_new(contract::kRequestAsyncReply, m_state.ResultCode(subject), subject.c_str(), payload));
}

void SimService::OnWrite(const std::string& sender, GVariant* parameters, GDBusMethodInvocation* invocation) {
    RequestTuple request;
    if (!AcceptRequest(contract::kMethodWrite, contract::kRequestWrite, sender, parameters, invocation, request))
        return;
    std::string subject = request.subject;
    std::string input = request.input;
    m_state.SetValue(subject, input);
    // The list changes before the reply, so that a caller that waits for it
    // reads the shorter list.
    bool listChanged = IsChannelRemoval(subject) && ApplyChannelRemoval(subject, input);
    // Clients do not wait for this reply; it is sent for callers that do.
    Lumora_DIPC_SendData(invocation, nullptr);
    EmitResponse(subject, input);
    // The television tells the list's subscribers that it changed.
    if (listChanged) EmitResponse(kChannelListSubject, m_state.Value(kChannelListSubject));
}

bool SimService::ApplyChannelRemoval(const std::string& subject, const std::string& input) {
    ChannelRemoval removal = RemoveChannels(subject, input, m_state.Value(kChannelListSubject));
    m_state.RecordChannelRemoval(subject, removal.request, removal.removed);
    SIM_LOGI("%s %s: %u channel(s) removed from %s", subject.c_str(), input.c_str(), removal.removed,
             kChannelListSubject);
    if (removal.removed == 0) return false;
    m_state.SetValue(kChannelListSubject, removal.list);
    return true;
}

}  // namespace lumora::sim
