// GIO hands a call's answer, a signal subscription's signals and a
// connection's "closed" signal to the thread-default main context of the
// thread that made the call, the subscription or the connection. The library
// promises every callback on the global default main context, whatever
// thread the application calls from; a thread that pushed a context of its
// own (g_main_context_push_thread_default) would otherwise have the
// library's callbacks sent to a context that it may never iterate.
//
// For the life of an OnDefaultContext, the calling thread's own contexts are
// taken off its thread-default stack, so that GIO captures the global
// default; they are put back, in order, when it ends. The thread keeps
// owning each of them meanwhile, so that no other thread can acquire one in
// between. Costs one thread-local read on a thread that pushed nothing.
#ifndef LUMORA_INTERNAL_DEFAULTCONTEXT_H
#define LUMORA_INTERNAL_DEFAULTCONTEXT_H

#include <glib.h>

#include <vector>

namespace lumora::internal {

class OnDefaultContext {
public:
    OnDefaultContext();
    ~OnDefaultContext();
    OnDefaultContext(const OnDefaultContext&) = delete;
    OnDefaultContext& operator=(const OnDefaultContext&) = delete;

private:
    std::vector<GMainContext*> m_taken;  // top of the stack first
};

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_DEFAULTCONTEXT_H
