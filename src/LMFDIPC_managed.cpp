// DIPC: owns a bus name, exports one object and emits its signals, for the
// context service's own processes.
#include <lumora/ContextAutoLock.h>
#include <lumora/lumora-dipc.h>

#include <cstdlib>
#include <cstring>
#include <exception>

#include "internal/HandOff.h"
#include "internal/Log.h"

// The handle's layout is part of the publisher's format: the path is the first
// field, so the record's address doubles as the path string, and it holds at
// most 49 characters, cut without a warning.
struct LumoraDIPCHandle {
    char objectPath[50];
    guint32 ownerId;
    guint32 registrationId;       // 0 until the object is registered
    GDBusNodeInfo* nodeInfo;      // owned
    GDBusConnection* connection;  // set once registered; not owned
    LumoraDIPCCallbacks callbacks;
    void* userData;
};

namespace {

// Guards start, publish and stop. The GIO handlers run without it and write
// the registration id and connection unguarded: they run on the one thread
// that iterates the owning main context, before any publish can succeed.
GMutex g_dipcMutex;

bool IsPermittedProcess(const char* processName) {
    return processName != nullptr &&
           (strcmp(processName, "lumora-service") == 0 || strcmp(processName, "lumora-service-test") == 0);
}

// The callbacks are plain function pointers, but C++ code behind them could
// still throw; nothing may unwind through GIO's C frames. The lines belong to
// the handler that called, caller.
template <typename Fn>
void CallUserCallback(const char* caller, Fn&& fn) noexcept {
    try {
        fn();
    } catch (const std::exception& e) {
        LMF_LOGE_IN(caller, "callback threw: %s", e.what());
    } catch (...) {
        LMF_LOGE_IN(caller, "callback threw an unknown exception");
    }
}

void __OnMethodCall(GDBusConnection* /*connection*/, const gchar* sender, const gchar* objectPath,
                    const gchar* interfaceName, const gchar* methodName, GVariant* parameters,
                    GDBusMethodInvocation* invocation, gpointer userData) {
    auto* handle = static_cast<LumoraDIPCHandle*>(userData);
    if (handle == nullptr) {
        LMF_LOGE("user_data is NULL!!!");
        return;
    }
    LumoraDIPCMethodCallCb callback = handle->callbacks.onMethodCall;
    if (callback == nullptr) return;
    CallUserCallback(__func__, [&] {
        callback(sender, objectPath, interfaceName, methodName, parameters, invocation, handle->userData);
    });
}

const GDBusInterfaceVTable kMethodTable = {__OnMethodCall, nullptr, nullptr, {nullptr}};

// Whether every string, object path and signature inside value is what D-Bus
// can carry. A GVariant built with g_variant_new is, but one made from
// trusted serialised data is never checked by GLib, and GDBus aborts the
// process when it meets invalid UTF-8 while writing the message.
bool HoldsSendableText(GVariant* value) {
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING) || g_variant_is_of_type(value, G_VARIANT_TYPE_OBJECT_PATH) ||
        g_variant_is_of_type(value, G_VARIANT_TYPE_SIGNATURE)) {
        gsize length = 0;
        const gchar* text = g_variant_get_string(value, &length);
        if (!g_utf8_validate(text, static_cast<gssize>(length), nullptr)) return false;
        if (g_variant_is_of_type(value, G_VARIANT_TYPE_OBJECT_PATH)) return g_variant_is_object_path(text) != FALSE;
        if (g_variant_is_of_type(value, G_VARIANT_TYPE_SIGNATURE)) return g_variant_is_signature(text) != FALSE;
        return true;
    }
    if (!g_variant_is_container(value)) return true;
    GVariantIter children;
    g_variant_iter_init(&children, value);
    while (GVariant* child = g_variant_iter_next_value(&children)) {
        bool sendable = HoldsSendableText(child);
        g_variant_unref(child);
        if (!sendable) return false;
    }
    return true;
}

// Why parameters cannot be the body of a message (a signal or a reply), or
// null when they can. GIO would meet the first problem with a critical, the
// second with an abort.
const char* BodyProblem(GVariant* parameters) {
    if (parameters == nullptr) return nullptr;
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE_TUPLE)) return "the parameters are not a tuple";
    if (!HoldsSendableText(parameters)) return "the parameters hold a string that is not valid UTF-8";
    return nullptr;
}

// Why a signal cannot be emitted with these names and parameters, or null.
const char* SignalProblem(const char* destination, GVariant* parameters, const char* interfaceName,
                          const char* signalName) {
    if (destination != nullptr && !g_dbus_is_name(destination)) return "the destination is not a valid bus name";
    if (interfaceName == nullptr || !g_dbus_is_interface_name(interfaceName))
        return "the interface name is not a valid D-Bus interface name";
    if (signalName == nullptr || !g_dbus_is_member_name(signalName))
        return "the signal name is not a valid D-Bus member name";
    return BodyProblem(parameters);
}

// Why the publisher cannot own busName, or register objectPath as it will be
// cut, or null. Either would be a GLib critical, now or once the name is
// owned.
const char* StartProblem(const char* busName, const char* objectPath) {
    if (busName == nullptr || !g_dbus_is_name(busName) || g_dbus_is_unique_name(busName))
        return "the bus name is not a valid well-known bus name";
    char cut[sizeof(LumoraDIPCHandle::objectPath)];
    g_strlcpy(cut, objectPath != nullptr ? objectPath : "", sizeof cut);
    if (!g_variant_is_object_path(cut)) return "the object path (as cut to 49 characters) is not a valid object path";
    return nullptr;
}

void CallNameCallback(const char* caller, LumoraDIPCNameCb callback, const gchar* name, void* userData) {
    if (callback == nullptr) return;
    CallUserCallback(caller, [&] { callback(name, userData); });
}

void __OnBusAcquired(GDBusConnection* /*connection*/, const gchar* name, gpointer userData) {
    auto* handle = static_cast<LumoraDIPCHandle*>(userData);
    lumora::internal::HandOffReceive(handle);
    if (handle == nullptr) {
        LMF_LOGE("user_data is NULL!!!");
        return;
    }
    // The object is registered only once the name is ours.
    CallNameCallback(__func__, handle->callbacks.onBusAcquired, name, handle->userData);
}

void __OnNameAcquired(GDBusConnection* connection, const gchar* name, gpointer userData) {
    auto* handle = static_cast<LumoraDIPCHandle*>(userData);
    lumora::internal::HandOffReceive(handle);
    if (handle == nullptr) {
        LMF_LOGE("user_data is NULL!!!");
        return;
    }
    guint id = g_dbus_connection_register_object(connection, handle->objectPath, handle->nodeInfo->interfaces[0],
                                                 &kMethodTable, handle, nullptr, nullptr);
    if (id == 0) {
        LMF_LOGE("register object failed");
        return;
    }
    handle->registrationId = id;
    handle->connection = connection;
    CallNameCallback(__func__, handle->callbacks.onNameAcquired, name, handle->userData);
}

void __OnNameLost(GDBusConnection* /*connection*/, const gchar* name, gpointer userData) {
    auto* handle = static_cast<LumoraDIPCHandle*>(userData);
    lumora::internal::HandOffReceive(handle);
    if (handle == nullptr) {
        LMF_LOGE("user_data is NULL!!!");
        return;
    }
    // Nothing is released: whether to stop is the caller's decision.
    CallNameCallback(__func__, handle->callbacks.onNameLost, name, handle->userData);
}

}  // namespace

LumoraDIPCHandle* Lumora_DIPC_Start(const char* processName, int systemBus, const char* busName, const char* objectPath,
                                    const char* introspectionXml, void* userData, LumoraDIPCCallbacks callbacks) {
    if (!IsPermittedProcess(processName)) {
        LMF_LOGE("the process name(%s) is not permitted", processName != nullptr ? processName : "(null)");
        return nullptr;
    }
    if (const char* problem = StartProblem(busName, objectPath)) {
        LMF_LOGE("%s", problem);
        return nullptr;
    }
    ContextAutoLock lock(&g_dipcMutex);
    // GMarkup refuses text that is not UTF-8 with an error, but reads a null
    // text with strlen.
    GDBusNodeInfo* nodeInfo =
        introspectionXml != nullptr ? g_dbus_node_info_new_for_xml(introspectionXml, nullptr) : nullptr;
    // XML without an interface parses, but would leave nothing to register;
    // one whose interface name is not valid could never be registered.
    if (nodeInfo == nullptr || nodeInfo->interfaces == nullptr || nodeInfo->interfaces[0] == nullptr ||
        !g_dbus_is_interface_name(nodeInfo->interfaces[0]->name)) {
        if (nodeInfo != nullptr) g_dbus_node_info_unref(nodeInfo);
        LMF_LOGE("get node failed");
        return nullptr;
    }
    auto* handle = static_cast<LumoraDIPCHandle*>(calloc(1, sizeof(LumoraDIPCHandle)));
    if (handle == nullptr) {
        // The node info is deliberately left unreleased on this path: a record
        // this small is not expected to fail to allocate.
        LMF_LOGE("memory allocation failed!!!");
        return nullptr;
    }
    // Filled before the name is asked for: the name's handlers may run on
    // another thread (the one that iterates this thread's main context) as
    // soon as it is, and read the handle without the mutex.
    g_strlcpy(handle->objectPath, objectPath != nullptr ? objectPath : "", sizeof handle->objectPath);
    handle->nodeInfo = nodeInfo;
    handle->callbacks = callbacks;
    handle->userData = userData;
    lumora::internal::HandOffSend(handle);
    guint ownerId =
        g_bus_own_name(systemBus != 0 ? G_BUS_TYPE_SYSTEM : G_BUS_TYPE_SESSION, busName, G_BUS_NAME_OWNER_FLAGS_NONE,
                       __OnBusAcquired, __OnNameAcquired, __OnNameLost, handle, nullptr);
    if (ownerId == 0) {
        LMF_LOGE("bus own name failed");
        g_dbus_node_info_unref(nodeInfo);
        free(handle);
        return nullptr;
    }
    handle->ownerId = ownerId;  // read under the mutex only (Stop)
    return handle;
}

bool Lumora_DIPC_Stop(LumoraDIPCHandle** handlePtr) {
    ContextAutoLock lock(&g_dipcMutex);
    if (handlePtr == nullptr || *handlePtr == nullptr) {
        LMF_LOGE("handle is NULL!!!");
        return false;
    }
    LumoraDIPCHandle* handle = *handlePtr;
    if (handle->connection != nullptr && handle->registrationId != 0) {
        g_dbus_connection_unregister_object(handle->connection, handle->registrationId);
        handle->connection = nullptr;
    }
    g_bus_unown_name(handle->ownerId);
    g_dbus_node_info_unref(handle->nodeInfo);
    free(handle);
    *handlePtr = nullptr;
    return true;
}

bool Lumora_DIPC_Publish(LumoraDIPCHandle* handle, const char* destination, GVariant* parameters,
                         const char* interfaceName, const char* signalName) {
    // Owned here on every path, so that a floating tuple never leaks when the
    // signal cannot be sent.
    if (parameters != nullptr) g_variant_ref_sink(parameters);
    bool sent = false;
    {
        ContextAutoLock lock(&g_dipcMutex);
        if (handle == nullptr) {
            LMF_LOGE("handle is NULL!!!");
        } else if (handle->connection == nullptr) {
            LMF_LOGE("connection is not valid!!!");
        } else if (const char* problem = SignalProblem(destination, parameters, interfaceName, signalName)) {
            LMF_LOGE("%s", problem);
        } else {
            GError* error = nullptr;
            sent = g_dbus_connection_emit_signal(handle->connection, destination, handle->objectPath, interfaceName,
                                                 signalName, parameters, &error) != FALSE;
            if (!sent && error != nullptr) {
                LMF_LOGE("Error: %s", error->message);
                g_error_free(error);
            }
        }
    }
    if (parameters != nullptr) g_variant_unref(parameters);
    return sent;
}

void Lumora_DIPC_SendData(GDBusMethodInvocation* invocation, GVariant* parameters) {
    if (invocation == nullptr) {
        LMF_LOGE("Error: %p %p", static_cast<void*>(invocation), static_cast<void*>(parameters));
        if (parameters != nullptr) g_variant_unref(g_variant_ref_sink(parameters));
        return;
    }
    if (parameters != nullptr) g_variant_ref_sink(parameters);
    if (const char* problem = BodyProblem(parameters)) {
        LMF_LOGE("%s", problem);
        // The caller still hears at once that the call failed, instead of
        // waiting out its time-out; the invocation is released either way.
        g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, G_DBUS_ERROR_FAILED, problem);
    } else {
        g_dbus_method_invocation_return_value(invocation, parameters);
    }
    if (parameters != nullptr) g_variant_unref(parameters);
}
