// Runs a GLib main context on a thread of its own for the life of the object.
#ifndef LUMORA_TESTS_MAINLOOPTHREAD_H
#define LUMORA_TESTS_MAINLOOPTHREAD_H

#include <glib.h>

#include <functional>
#include <thread>

namespace lumora::test {

/**
 * Iterates a main context (by default the global default one) on a thread.
 * With a fresh context, Invoke() runs a function on that thread, which makes
 * the context thread-default there first, so that GIO objects created by the
 * function deliver their callbacks on this thread.
 */
class MainLoopThread {
public:
    explicit MainLoopThread(bool ownContext = false);
    ~MainLoopThread();
    MainLoopThread(const MainLoopThread&) = delete;
    MainLoopThread& operator=(const MainLoopThread&) = delete;

    GMainContext* Context() const { return m_context; }
    /// Runs fn on the loop's thread and waits for it to return.
    void Invoke(const std::function<void()>& fn);
    void Stop();

private:
    GMainContext* m_context;
    GMainLoop* m_loop;
    std::thread m_thread;
};

/// Polls done() every 10 ms until it holds or timeoutMs pass, for use while
/// another thread runs the main loop.
bool WaitUntil(const std::function<bool()>& done, int timeoutMs);

}  // namespace lumora::test

#endif
