// The hop from the C library's thread to an application's main context.
#include "ClientInternal.h"
#include "internal/HandOff.h"

namespace lumora::glib {

// An idle source, not g_main_context_invoke(): invoke runs the function at
// once when the calling thread owns the context, and the C library calls us
// on the thread that owns the global default context, with its client mutex
// held during a request's answer. Application code must never run there.
void PostTo(GMainContext* context, const char* name, GSourceFunc fn, gpointer data, GDestroyNotify destroy) {
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_callback(source, fn, data, destroy);
    g_source_set_static_name(source, name);
    internal::HandOffSend(data);
    g_source_attach(source, context);
    g_source_unref(source);
}

}  // namespace lumora::glib
