/**
 * @file
 * @brief DIPC: the in-process publisher with which the context service's own
 * processes own a well-known bus name, export one object and emit signals.
 *
 * It is independent of the client side of the library: its own handle, its own
 * process-wide mutex, GIO directly. Only the processes "lumora-service" and
 * "lumora-service-test" may start it (they name themselves to
 * Lumora_DIPC_Start()).
 *
 * Threads: the four callbacks run on the thread that iterates the GLib main
 * context that was the thread-default one when Lumora_DIPC_Start() was called;
 * the caller must run a main loop on it. Start, Publish and Stop take the
 * publisher mutex, which is not recursive; the callbacks run without it, so
 * they may call Lumora_DIPC_Publish() and Lumora_DIPC_SendData().
 *
 * Memory: the handle is the caller's from Lumora_DIPC_Start() until
 * Lumora_DIPC_Stop(); every text and GVariant handed to a callback is
 * borrowed for the call; a floating GVariant handed to the library is
 * consumed.
 *
 * Every failure is logged once at error priority (tag "LMF_API").
 */
#ifndef LUMORA_DIPC_H
#define LUMORA_DIPC_H

#include <gio/gio.h>
#include <lumora/lumora-export.h>

#ifndef __cplusplus
#include <stdbool.h>
#endif

LUMORA_EXTERN_C_BEGIN

/** Callback of the name events: the bus connection is up, the name is owned
 *  (and the object registered), or the name was lost or could not be owned.
 *  name is the bus name, borrowed for the call; userData is the pointer given
 *  to Lumora_DIPC_Start(). */
typedef void (*LumoraDIPCNameCb)(const char* name, void* userData);

/** Callback of a method call: a client called a method of the published
 *  object. Every pointer is borrowed for the call; to answer later, keep a
 *  reference to invocation (g_object_ref). The answer is the callback's
 *  business, normally through Lumora_DIPC_SendData(); a GIO error return
 *  works as well. */
typedef void (*LumoraDIPCMethodCallCb)(const char* sender, const char* objectPath, const char* interfaceName,
                                       const char* methodName, GVariant* parameters, GDBusMethodInvocation* invocation,
                                       void* userData);

/** The callback set, copied into the handle by Lumora_DIPC_Start(). Any member
 *  may be NULL; a NULL member is skipped. */
typedef struct {
    LumoraDIPCNameCb onBusAcquired;      /**< The bus connection is up (the name is not owned yet). */
    LumoraDIPCNameCb onNameLost;         /**< The name was lost, or could not be owned; nothing is released. */
    LumoraDIPCNameCb onNameAcquired;     /**< The name is owned and the object registered. */
    LumoraDIPCMethodCallCb onMethodCall; /**< A client called a method of the object. */
} LumoraDIPCCallbacks;

/** A started publisher. Opaque; owned by the caller from Lumora_DIPC_Start()
 *  until Lumora_DIPC_Stop(). */
typedef struct LumoraDIPCHandle LumoraDIPCHandle;

/** Requests busName on the system bus (systemBus non-zero) or the session bus
 *  and, once it is owned, registers objectPath with the first interface of
 *  introspectionXml. objectPath is copied, cut to its first 49 characters.
 *  userData is handed back to every callback.
 *
 *  Returns the new handle, or NULL when processName is not permitted, the XML
 *  does not parse or declares no interface, or the name cannot be requested.
 *  A returned handle only means that the name was requested: owning it is
 *  reported through onNameAcquired or onNameLost. When the object cannot be
 *  registered once the name is owned, only an error line is logged and
 *  onNameAcquired is not called.
 *  NULL also, with one error line, for a busName that is no well-known bus
 *  name, an objectPath not an object path as cut, or a NULL or invalid XML. */
LUMORA_EXPORT LumoraDIPCHandle* Lumora_DIPC_Start(const char* processName, int systemBus, const char* busName,
                                                  const char* objectPath, const char* introspectionXml, void* userData,
                                                  LumoraDIPCCallbacks callbacks);

/** Unregisters the object, gives up the name, frees the handle and sets
 *  `*handlePtr` to NULL. Returns false (and does nothing) when handlePtr or
 *  `*handlePtr` is NULL, so stopping twice through the same pointer is safe;
 *  true otherwise. */
LUMORA_EXPORT bool Lumora_DIPC_Stop(LumoraDIPCHandle** handlePtr);

/** Emits signalName of interfaceName from the handle's object path, to
 *  destination (a unique or well-known name) or to every listener when
 *  destination is NULL. A floating parameters is consumed whatever the result;
 *  a reference the caller holds stays the caller's. Returns true when the
 *  signal was queued; false when handle is NULL, when the name is not owned
 *  yet (no object registered), or when GIO refuses the signal.
 *  false also, nothing sent, for names D-Bus would refuse, and parameters
 *  that are not a tuple or hold text that is not UTF-8 (one error line). */
LUMORA_EXPORT bool Lumora_DIPC_Publish(LumoraDIPCHandle* handle, const char* destination, GVariant* parameters,
                                       const char* interfaceName, const char* signalName);

/** Answers a method call with parameters (a tuple of the method's out
 *  arguments, or NULL for none) and releases invocation. A floating parameters
 *  is consumed. A NULL invocation is only logged. Takes no lock; may be called
 *  from any thread.
 *  Parameters that are not a tuple or hold text that is not UTF-8 are not
 *  sent: the caller gets org.freedesktop.DBus.Error.Failed (one error line). */
LUMORA_EXPORT void Lumora_DIPC_SendData(GDBusMethodInvocation* invocation, GVariant* parameters);

LUMORA_EXTERN_C_END

#endif /* LUMORA_DIPC_H */
