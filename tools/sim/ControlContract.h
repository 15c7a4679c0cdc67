// The simulator's control interface: a second object on the service's own
// connection, through which tests, demos and developers change the simulated
// television while clients talk to it. `lumora-sim ctl` and the tests use
// these names; nothing else spells them.
#ifndef LUMORA_SIM_CONTROLCONTRACT_H
#define LUMORA_SIM_CONTROLCONTRACT_H

#include <cstring>

#include "internal/ServiceContract.h"

namespace lumora::sim {

constexpr const char* kControlPath = "/org/verdin/tv/lumora2/control";
constexpr const char* kControlInterface = "org.verdin.tv.lumora2.SimControl";

// Methods, with their arguments and results.
constexpr const char* kCtlEmit = "Emit";                        // (s subject, s data) -> (u signals sent)
constexpr const char* kCtlSetValue = "SetValue";                // (s subject, s data)
constexpr const char* kCtlClearValue = "ClearValue";            // (s subject)
constexpr const char* kCtlSetResultCode = "SetResultCode";      // (s subject, i code)
constexpr const char* kCtlSetDelay = "SetDelay";                // (s subject, u milliseconds; 0 = none)
constexpr const char* kCtlSetStatistics = "SetStatistics";      // (s subject, s tuples as JSON)
constexpr const char* kCtlStopAnswering = "StopAnswering";      // ()
constexpr const char* kCtlResumeAnswering = "ResumeAnswering";  // () -> (u held calls answered)
constexpr const char* kCtlSetEnabled = "SetEnabled";            // (b enabled)
constexpr const char* kCtlSetWhiteList = "SetWhiteList";        // (as process names)
constexpr const char* kCtlRestart = "Restart";                  // (u pause in milliseconds)
constexpr const char* kCtlGetStatus = "GetStatus";              // () -> (s status as JSON)
constexpr const char* kCtlEmitEvent = "EmitEvent";              // (s kind, s data; "" = as stored) -> (u signals sent)

// The kinds of EmitEvent: what an application's channel callbacks hear, as
// the subjects whose "Response" is sent, in this order. A programme change
// comes with the current programme, which changes with it.
struct EventKind {
    const char* name;
    const char* subjects[2];  // the second is null for a kind of one subject
};
constexpr EventKind kEventKinds[] = {
    {"list", {lumora::contract::subjects::kChannelList, nullptr}},
    {"current", {lumora::contract::subjects::kChannelListCurrent, nullptr}},
    {"program", {lumora::contract::subjects::kProgramChanged, lumora::contract::subjects::kProgramCurrent}},
    {"stb", {lumora::contract::subjects::kStbStatus, nullptr}},
};

/// The kind named name, or null.
inline const EventKind* FindEventKind(const char* name) {
    for (const EventKind& kind : kEventKinds) {
        if (strcmp(kind.name, name) == 0) return &kind;
    }
    return nullptr;
}

// Introspection data of the control object.
constexpr const char* kControlXml =
    "<node>"
    " <interface name='org.verdin.tv.lumora2.SimControl'>"
    "  <method name='Emit'><arg name='subject' type='s' direction='in'/>"
    "   <arg name='data' type='s' direction='in'/><arg name='sent' type='u' direction='out'/></method>"
    "  <method name='SetValue'><arg name='subject' type='s' direction='in'/>"
    "   <arg name='data' type='s' direction='in'/></method>"
    "  <method name='ClearValue'><arg name='subject' type='s' direction='in'/></method>"
    "  <method name='SetResultCode'><arg name='subject' type='s' direction='in'/>"
    "   <arg name='code' type='i' direction='in'/></method>"
    "  <method name='SetDelay'><arg name='subject' type='s' direction='in'/>"
    "   <arg name='milliseconds' type='u' direction='in'/></method>"
    "  <method name='SetStatistics'><arg name='subject' type='s' direction='in'/>"
    "   <arg name='tuples' type='s' direction='in'/></method>"
    "  <method name='StopAnswering'/>"
    "  <method name='ResumeAnswering'><arg name='answered' type='u' direction='out'/></method>"
    "  <method name='SetEnabled'><arg name='enabled' type='b' direction='in'/></method>"
    "  <method name='SetWhiteList'><arg name='names' type='as' direction='in'/></method>"
    "  <method name='Restart'><arg name='pause' type='u' direction='in'/></method>"
    "  <method name='GetStatus'><arg name='status' type='s' direction='out'/></method>"
    "  <method name='EmitEvent'><arg name='kind' type='s' direction='in'/>"
    "   <arg name='data' type='s' direction='in'/><arg name='sent' type='u' direction='out'/></method>"
    " </interface>"
    "</node>";

}  // namespace lumora::sim

#endif  // LUMORA_SIM_CONTROLCONTRACT_H
