// lumora: the subscribe command, one JSON line per change notification until
// SIGINT or SIGTERM.
#include <glib-unix.h>
#include <lumora/lumora-api.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Cli.h"
#include "RestartWatch.h"
#include "internal/ServiceContract.h"

namespace lumora::cli {

namespace {

using Args = std::vector<std::string>;
namespace contract = lumora::contract;

Args Distinct(const Args& subjects) {
    Args distinct;
    for (const std::string& subject : subjects) {
        if (std::find(distinct.begin(), distinct.end(), subject) == distinct.end()) distinct.push_back(subject);
    }
    return distinct;
}

// The service's own announcements come on the same signal as subjects; a
// subscription to them would take them away from the library's restart
// handling.
bool IsServiceAnnouncement(const std::string& subject) {
    return subject == contract::kHello || subject == contract::kBye;
}

void OnNotification(const char* subject, char* data, void*) { PrintEvent(subject, data != nullptr ? data : ""); }

void PrintCurrentValues(const Args& subjects) {
    for (const std::string& subject : subjects) {
        char* text = nullptr;
        int code = LMFServiceAPI::m_pDbusClient->Read(subject.c_str(), nullptr, &text);
        std::unique_ptr<char, decltype(&free)> value(text, free);
        if (code == 0 && value) {
            PrintEvent(subject, value.get());
        } else {
            Warn(ReadFailure(subject, code));
        }
    }
}

std::string SubscribeRefusal(const std::string& subject) {
    if (subject.size() <= 2) return "the library takes no subject of two characters or fewer (" + subject + ")";
    return "the library refused the subscription to " + subject;
}

void UnsubscribeAll(const Args& subjects) {
    for (const std::string& subject : subjects) Lumora_Unsubscribe(subject.c_str(), OnNotification, nullptr);
}

bool Subscribe(const std::string& subject) {
    if (!MayUseSubject(subject)) return false;
    if (Lumora_Subscribe(subject.c_str(), OnNotification, nullptr)) return true;
    Fail(SubscribeRefusal(subject));
    return false;
}

// All or none.
bool SubscribeAll(const Args& subjects) {
    for (size_t i = 0; i < subjects.size(); ++i) {
        if (Subscribe(subjects[i])) continue;
        UnsubscribeAll(Args(subjects.begin(), subjects.begin() + static_cast<long>(i)));
        return false;
    }
    return true;
}

gboolean OnStopSignal(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

// Subscribes, prints, and waits for the loop to be stopped.
int Follow(const Options& options, const Args& subjects, GMainLoop* loop) {
    if (!StartService()) return kFailed;
    // Watched before the first read, so that no restart after it goes unseen.
    std::unique_ptr<RestartWatch> restarts;
    if (options.initial) {
        restarts = std::make_unique<RestartWatch>(subjects[0], [&subjects] { PrintCurrentValues(subjects); });
        if (!restarts->Start()) {
            restarts.reset();
            StopService();
            return kFailed;
        }
    }
    if (!SubscribeAll(subjects)) {
        restarts.reset();
        StopService();
        return kFailed;
    }
    // Read only once every subscription is in place: a change after the read
    // is then notified, while one between an earlier read and the
    // subscription would be lost.
    if (options.initial) PrintCurrentValues(subjects);
    g_main_loop_run(loop);
    UnsubscribeAll(subjects);
    restarts.reset();
    StopService();
    return kOk;
}

}  // namespace

int RunSubscribe(const Options& options, const Args& args) {
    Args subjects = Distinct(args);
    for (const std::string& subject : subjects) {
        if (!IsServiceAnnouncement(subject)) continue;
        fprintf(stderr, "lumora: %s is the service's own announcement, not a subject\n", subject.c_str());
        fprintf(stderr, "usage: lumora subscribe [--initial] SUBJECT...\n");
        return kUsage;
    }
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    // From the start, so that a signal while subscribing still ends the
    // command in order.
    guint interrupt = g_unix_signal_add(SIGINT, OnStopSignal, loop);
    guint terminate = g_unix_signal_add(SIGTERM, OnStopSignal, loop);
    int status = Follow(options, subjects, loop);
    g_source_remove(interrupt);
    g_source_remove(terminate);
    g_main_loop_unref(loop);
    return status;
}

}  // namespace lumora::cli
