// Taking a thread's own main contexts off its thread-default stack for the
// moment GIO captures one.
#include "internal/DefaultContext.h"

namespace lumora::internal {

OnDefaultContext::OnDefaultContext() {
    GMainContext* context = nullptr;
    // A null thread default is the global default (also when the thread
    // pushed that one explicitly): nothing below it needs to go.
    while ((context = g_main_context_get_thread_default()) != nullptr && context != g_main_context_default()) {
        // Owned by this thread since it pushed it; the extra acquisition
        // keeps it owned once the pop releases the stack's own.
        if (!g_main_context_acquire(context)) break;
        g_main_context_ref(context);
        g_main_context_pop_thread_default(context);
        m_taken.push_back(context);
    }
}

OnDefaultContext::~OnDefaultContext() {
    for (auto it = m_taken.rbegin(); it != m_taken.rend(); ++it) {
        g_main_context_push_thread_default(*it);
        g_main_context_release(*it);
        g_main_context_unref(*it);
    }
}

}  // namespace lumora::internal
