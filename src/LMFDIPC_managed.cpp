// DIPC: owns a bus name, exports one object and emits its signals, for the
// context service's own processes.
#include <lumora/ContextAutoLock.h>
#include <lumora/lumora-dipc.h>

#include <cstdlib>
#include <cstring>
#include <exception>

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

void CallNameCallback(const char* caller, LumoraDIPCNameCb callback, const gchar* name, void* userData) {
    if (callback == nullptr) return;
    CallUserCallback(caller, [&] { callback(name, userData); });
}

void __OnBusAcquired(GDBusConnection* /*connection*/, const gchar* name, gpointer userData) {
    auto* handle = static_cast<LumoraDIPCHandle*>(userData);
    if (handle == nullptr) {
        LMF_LOGE("user_data is NULL!!!");
        return;
    }
    // The object is registered only once the name is ours.
    CallNameCallback(__func__, handle->callbacks.onBusAcquired, name, handle->userData);
}

void __OnNameAcquired(GDBusConnection* connection, const gchar* name, gpointer userData) {
    auto* handle = static_cast<LumoraDIPCHandle*>(userData);
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
    ContextAutoLock lock(&g_dipcMutex);
    GDBusNodeInfo* nodeInfo = g_dbus_node_info_new_for_xml(introspectionXml, nullptr);
    // XML without an interface parses, but would leave nothing to register.
    if (nodeInfo == nullptr || nodeInfo->interfaces == nullptr || nodeInfo->interfaces[0] == nullptr) {
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
    guint ownerId =
        g_bus_own_name(systemBus != 0 ? G_BUS_TYPE_SYSTEM : G_BUS_TYPE_SESSION, busName, G_BUS_NAME_OWNER_FLAGS_NONE,
                       __OnBusAcquired, __OnNameAcquired, __OnNameLost, handle, nullptr);
    if (ownerId == 0) {
        LMF_LOGE("bus own name failed");
        g_dbus_node_info_unref(nodeInfo);
        free(handle);
        return nullptr;
    }
    g_strlcpy(handle->objectPath, objectPath != nullptr ? objectPath : "", sizeof handle->objectPath);
    handle->ownerId = ownerId;
    handle->nodeInfo = nodeInfo;
    handle->callbacks = callbacks;
    handle->userData = userData;
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
    g_dbus_method_invocation_return_value(invocation, parameters);
}
