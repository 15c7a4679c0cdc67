#include "MainLoopThread.h"

#include <condition_variable>
#include <mutex>

#include "internal/HandOff.h"

namespace lumora::test {

MainLoopThread::MainLoopThread(bool ownContext)
    : m_context(ownContext ? g_main_context_new() : g_main_context_ref(g_main_context_default())),
      m_loop(g_main_loop_new(m_context, FALSE)) {
    m_thread = std::thread([this] {
        g_main_context_push_thread_default(m_context);
        g_main_loop_run(m_loop);
        g_main_context_pop_thread_default(m_context);
    });
}

MainLoopThread::~MainLoopThread() {
    Stop();
    g_main_loop_unref(m_loop);
    g_main_context_unref(m_context);
}

void MainLoopThread::Stop() {
    if (!m_thread.joinable()) return;
    Invoke([this] { g_main_loop_quit(m_loop); });
    m_thread.join();
}

void MainLoopThread::Invoke(const std::function<void()>& fn) {
    struct Call {
        const std::function<void()>* fn;
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
    } call{&fn, {}, {}, false};
    // What the caller did before, fn and everything it captures included,
    // reaches the loop's thread through the context's lock; the way back is
    // the mutex below.
    internal::HandOffSend(&call);
    g_main_context_invoke(
        m_context,
        [](gpointer data) -> gboolean {
            internal::HandOffReceive(data);
            auto* c = static_cast<Call*>(data);
            (*c->fn)();
            std::lock_guard<std::mutex> lock(c->mutex);
            c->finished = true;
            c->done.notify_one();
            return G_SOURCE_REMOVE;
        },
        &call);
    std::unique_lock<std::mutex> lock(call.mutex);
    call.done.wait(lock, [&call] { return call.finished; });
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
    gint64 deadline = g_get_monotonic_time() + static_cast<gint64>(timeoutMs) * 1000;
    while (!done()) {
        if (g_get_monotonic_time() >= deadline) return false;
        g_usleep(10 * 1000);
    }
    return true;
}

}  // namespace lumora::test
