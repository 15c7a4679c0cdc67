// lumora: noticing that the context service has started again.
#ifndef LUMORA_TOOLS_CLI_RESTARTWATCH_H
#define LUMORA_TOOLS_CLI_RESTARTWATCH_H

#include <gio/gio.h>

#include <functional>
#include <string>

namespace lumora::cli {

/**
 * Calls onRestart from the main loop after each "HELLO" of the service, once
 * the library has taken that HELLO up itself (re-registered its
 * subscriptions), so that a value read then is not older than the
 * notifications that follow it.
 *
 * The HELLO is seen on a bus connection of our own: subscribing to "HELLO"
 * through the library would take the signal away from the library's own
 * restart handling. Our connection may see it before the library's does, so
 * a read through the library is tried every 50 ms until the library no longer
 * refuses it as "service not available" (after a BYE it refuses reads until
 * it has handled HELLO). A read that went out over the library's connection
 * was answered after that connection received the HELLO, so the library's
 * handling of it is queued on the default main context by then; onRestart
 * runs from an idle source of lower priority, after that handling.
 */
class RestartWatch {
public:
    // probeSubject is read to find out whether the library has caught up.
    RestartWatch(std::string probeSubject, std::function<void()> onRestart);
    ~RestartWatch();
    RestartWatch(const RestartWatch&) = delete;
    RestartWatch& operator=(const RestartWatch&) = delete;

    // False with the reason printed when the bus cannot be watched.
    bool Start();

private:
    static void OnResponse(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                           GVariant* parameters, gpointer self);
    static gboolean OnPoll(gpointer self);
    static gboolean OnCaughtUp(gpointer self);
    void OnHello();
    bool LibraryCaughtUp();
    void ScheduleRestart();

    std::string m_probeSubject;
    std::function<void()> m_onRestart;
    GDBusConnection* m_bus = nullptr;
    guint m_subscription = 0;
    guint m_poll = 0;       // the timer of the reads that wait for the library
    gint64 m_deadline = 0;  // when the waiting is given up (monotonic clock)
    guint m_restart = 0;    // the idle source that calls onRestart
};

}  // namespace lumora::cli

#endif
