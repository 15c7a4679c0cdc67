// The simulator's state, asked over its control interface.
#ifndef LUMORA_TEST_SIMSTATUS_H
#define LUMORA_TEST_SIMSTATUS_H

#include <gio/gio.h>
#include <json/json.h>

#include <sstream>

#include "ControlContract.h"
#include "SimProcess.h"

namespace lumora::test {

/// The simulator's state as "lumora-sim ctl status" shows it, asked over
/// control; null when it could not be had.
inline Json::Value SimStatusOver(GDBusConnection* control) {
    Json::Value root;
    CallResult status = CallControl(control, lumora::sim::kCtlGetStatus);
    if (!status.Ok()) return root;
    const gchar* text = nullptr;
    g_variant_get(status.reply.get(), "(&s)", &text);
    std::istringstream in(text);
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &root, nullptr)) root = Json::Value();
    return root;
}

}  // namespace lumora::test

#endif  // LUMORA_TEST_SIMSTATUS_H
