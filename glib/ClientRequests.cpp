// Asynchronous reads and requests: GTasks over the bus client's request,
// each completed exactly once, whichever comes first of the service's
// answer, the application's cancellation and the service going away.
//
// The C library holds on to the user data of a request until it answers,
// and may never answer (an answer that comes while the service is away is
// dropped). So it gets no pointer: it gets the call's id in the table below,
// and whoever takes a call out of the table completes it. An answer that
// finds no call (it was cancelled, or failed when the service went away) is
// dropped, and nothing of the call is left behind.
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>

#include <atomic>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "ClientInternal.h"
#include "internal/HandOff.h"

namespace {

using lumora::glib::CheckText;
using lumora::glib::Fail;
using lumora::internal::LogSite;

// The source tags of the two kinds of task.
const char kReadTag[] = "lumora_client_read";
const char kRequestTag[] = "lumora_client_request";
// What the C library hands a request's callback when the service failed or
// did not answer in time; for a statistics subject in place of the records,
// whose count (the first four bytes) could never be that large.
constexpr char kErrorAnswer[] = "{\"Status\":\"Error\"}";

// One read or request from its call to the return of its task.
struct Call {
    std::atomic<int> refs{1};
    GTask* task = nullptr;  // owned
    std::string subject;
    bool read = false;        // read: a text; request: a GVariant
    bool statistics = false;  // the answer is a StatisticsResult
    LogSite site{};
    // Guarded by g_lock. The handler of the task's cancellable while
    // connected; whoever finds it set once the task returned disconnects it.
    gulong cancelHandler = 0;
    bool returned = false;
    // The outcome, set by the one who took the call out of the table.
    GError* error = nullptr;
    char* text = nullptr;
    GVariant* variant = nullptr;
};

// Guards g_calls, g_nextId and the fields of Call marked so. A leaf: only
// GLib's own context lock (posting) is taken while it is held.
GMutex g_lock;
std::map<guint, Call*> g_calls;  // each holds one reference
guint g_nextId = 1;

void Release(Call* call) {
    if (call->refs.fetch_sub(1) != 1) return;
    g_clear_error(&call->error);
    g_free(call->text);
    if (call->variant != nullptr) g_variant_unref(call->variant);
    g_object_unref(call->task);
    delete call;
}

guint Enter(Call* call) {
    ContextAutoLock lock(&g_lock);
    guint id = g_nextId;
    do {
        if (++g_nextId == 0) g_nextId = 1;
    } while (g_calls.count(g_nextId) != 0);
    call->refs.fetch_add(1);
    g_calls[id] = call;
    return id;
}

// The call of id taken out of the table with its reference, or null.
Call* TakeOut(guint id) {
    ContextAutoLock lock(&g_lock);
    auto found = g_calls.find(id);
    if (found == g_calls.end()) return nullptr;
    Call* call = found->second;
    g_calls.erase(found);
    return call;
}

// In the task's main context: the outcome goes to the task, whose callback
// runs from here with no library lock held.
gboolean ReturnCall(gpointer data) {
    auto* call = static_cast<Call*>(data);
    lumora::internal::HandOffReceive(call);
    gulong handler = 0;
    {
        ContextAutoLock lock(&g_lock);
        call->returned = true;
        handler = call->cancelHandler;
        call->cancelHandler = 0;
    }
    if (handler != 0) g_cancellable_disconnect(g_task_get_cancellable(call->task), handler);
    if (call->error != nullptr) {
        g_task_return_error(call->task, call->error);
        call->error = nullptr;
    } else if (call->read) {
        g_task_return_pointer(call->task, call->text, g_free);
        call->text = nullptr;
    } else {
        g_task_return_pointer(call->task, call->variant, reinterpret_cast<GDestroyNotify>(g_variant_unref));
        call->variant = nullptr;
    }
    return G_SOURCE_REMOVE;
}

void ReleaseCall(gpointer data) { Release(static_cast<Call*>(data)); }

// Hands a call taken out of the table, its outcome set, to its task's
// context. The table's reference goes with it.
void Complete(Call* call) {
    lumora::glib::PostTo(g_task_get_context(call->task), "lumora-glib answer", ReturnCall, call, ReleaseCall);
}

void OnCancelled(GCancellable*, gpointer id) {
    Call* call = TakeOut(GPOINTER_TO_UINT(id));
    if (call == nullptr) return;
    LMF_LOG_SITE(LUMORA_PRIO_INFO, call->site.unit, call->site.function, "the %s of %s was cancelled",
                 call->read ? "read" : "request", call->subject.c_str());
    g_set_error_literal(&call->error, G_IO_ERROR, G_IO_ERROR_CANCELLED, "Operation was cancelled");
    Complete(call);
}

// The answer of a statistics subject: records, or the error text.
void SetStatisticsOutcome(Call* call, const char* subject, const char* data) {
    const auto* result = reinterpret_cast<const StatisticsResult*>(data);
    if (result->count > 0 && result->items == nullptr) {
        Fail(&call->error, call->site, LUMORA_CLIENT_ERROR_FAILED,
             "the library could not store the %d records of %s", static_cast<int>(result->count),
             call->subject.c_str());
        return;
    }
    GVariant* records = lumora::glib::StatisticsVariant(subject, result);
    // An answer that names another subject has no records of ours.
    if (records == nullptr) records = lumora::glib::StatisticsVariant(call->subject.c_str(), nullptr);
    call->variant = g_variant_ref_sink(records);
}

// What the C library handed the request's callback, as the call's outcome.
// data is valid only during the callback: it is copied or decoded here.
void SetOutcome(Call* call, const char* subject, const char* data) {
    const char* what = call->read ? "read" : "request";
    bool error = data == nullptr || (call->statistics ? memcmp(data, kErrorAnswer, sizeof(int32_t)) == 0
                                                      : strcmp(data, kErrorAnswer) == 0);
    if (error) {
        Fail(&call->error, call->site, LUMORA_CLIENT_ERROR_SERVICE,
             "the service answered the %s of %s with an error, or gave no answer within the bus time-out "
             "(no result code is known)",
             what, call->subject.c_str());
    } else if (call->statistics) {
        SetStatisticsOutcome(call, subject, data);
    } else if (!call->read) {
        call->variant = g_variant_ref_sink(g_variant_new_string(data));
    } else if (strcmp(data, "{}") == 0) {
        // As a synchronous read reports it.
        Fail(&call->error, call->site, LUMORA_CLIENT_ERROR_NO_DATA, "the service has no value for %s",
             call->subject.c_str());
    } else {
        call->text = g_strdup(data);
    }
}

// The request's callback: on the thread that iterates the global default
// main context, with the bus client's mutex held. Nothing here calls the
// library or the application.
void OnAnswer(const char* subject, char* data, void* id) {
    Call* call = TakeOut(GPOINTER_TO_UINT(id));
    if (call == nullptr) return;  // cancelled, or failed when the service went away
    lumora::glib::Guard(&call->error, call->site, 0, [&] {
        SetOutcome(call, subject != nullptr ? subject : call->subject.c_str(), data);
        return 0;
    });
    Complete(call);
}

// Connects the cancellable after the call entered the table: a cancellable
// cancelled meanwhile runs OnCancelled at once, which completes the call.
void WatchCancellable(Call* call, guint id) {
    GCancellable* cancellable = g_task_get_cancellable(call->task);
    if (cancellable == nullptr) return;
    gulong handler = g_cancellable_connect(cancellable, G_CALLBACK(OnCancelled), GUINT_TO_POINTER(id), nullptr);
    bool returned;
    {
        ContextAutoLock lock(&g_lock);
        returned = call->returned;
        if (!returned) call->cancelHandler = handler;
    }
    if (returned && handler != 0) g_cancellable_disconnect(cancellable, handler);
}

// The checks of a read or request; false with *error set when it must not
// be sent.
bool MaySend(LumoraClient* client, const Call& call, const char* subject, const char* input, GError** error,
             DBusClient** bus) {
    LogSite site = call.site;
    if (!CheckText(error, site, "subject", subject, true) || !CheckText(error, site, "input", input, false))
        return false;
    if (call.read && lumora::glib::IsStatisticsSubject(subject))
        return Fail(error, site, LUMORA_CLIENT_ERROR_INVALID_ARGUMENT,
                    "%s answers records, not a value to read: request it with lumora_client_request()", subject);
    *bus = lumora::glib::StartedBusClient(client, error, site);
    return *bus != nullptr && lumora::glib::MayUseSubject(error, site, **bus, subject);
}

void Start(LumoraClient* client, const char* subject, const char* input, Call* call) {
    GError* error = nullptr;
    DBusClient* bus = nullptr;
    if (g_task_return_error_if_cancelled(call->task)) return;
    if (!MaySend(client, *call, subject, input, &error, &bus)) {
        g_task_return_error(call->task, error);
        return;
    }
    call->subject = subject;
    call->statistics = !call->read && lumora::glib::IsStatisticsSubject(subject);
    guint id = Enter(call);
    WatchCancellable(call, id);
    lumora::glib::RefusalWatch watch;
    int result = bus->Request(subject, input, OnAnswer, GUINT_TO_POINTER(id));
    if (result == 0) return;
    Call* failed = TakeOut(id);
    if (failed == nullptr) return;  // cancelled meanwhile: that outcome stands
    lumora::glib::FailWithResult(&failed->error, failed->site, result, call->read ? "read" : "request", subject,
                                 watch);
    Complete(failed);
}

void StartCall(LumoraClient* client, const char* subject, const char* input, GCancellable* cancellable,
               GAsyncReadyCallback callback, gpointer userData, bool read, LogSite site) {
    auto* call = new Call;
    call->task = g_task_new(client, cancellable, callback, userData);
    g_task_set_name(call->task, read ? kReadTag : kRequestTag);
    g_task_set_source_tag(call->task, const_cast<char*>(read ? kReadTag : kRequestTag));
    call->read = read;
    call->site = site;
    GError* error = nullptr;
    lumora::glib::Guard(&error, site, 0, [&] {
        Start(client, subject, input, call);
        return 0;
    });
    if (error != nullptr) g_task_return_error(call->task, error);
    Release(call);
}

}  // namespace

void lumora_client_read(LumoraClient* client, const char* subject, const char* input, GCancellable* cancellable,
                        GAsyncReadyCallback callback, gpointer user_data) {
    g_return_if_fail(LUMORA_IS_CLIENT(client));
    g_return_if_fail(cancellable == nullptr || G_IS_CANCELLABLE(cancellable));
    StartCall(client, subject, input, cancellable, callback, user_data, true, LMF_SITE(__func__));
}

char* lumora_client_read_finish(LumoraClient* client, GAsyncResult* result, GError** error) {
    g_return_val_if_fail(g_task_is_valid(result, client), nullptr);
    g_return_val_if_fail(g_task_get_source_tag(G_TASK(result)) == kReadTag, nullptr);
    return static_cast<char*>(g_task_propagate_pointer(G_TASK(result), error));
}

void lumora_client_request(LumoraClient* client, const char* subject, const char* input, GCancellable* cancellable,
                           GAsyncReadyCallback callback, gpointer user_data) {
    g_return_if_fail(LUMORA_IS_CLIENT(client));
    g_return_if_fail(cancellable == nullptr || G_IS_CANCELLABLE(cancellable));
    StartCall(client, subject, input, cancellable, callback, user_data, false, LMF_SITE(__func__));
}

GVariant* lumora_client_request_finish(LumoraClient* client, GAsyncResult* result, GError** error) {
    g_return_val_if_fail(g_task_is_valid(result, client), nullptr);
    g_return_val_if_fail(g_task_get_source_tag(G_TASK(result)) == kRequestTag, nullptr);
    return static_cast<GVariant*>(g_task_propagate_pointer(G_TASK(result), error));
}

namespace lumora::glib {

void FailPendingCalls(const char* reason) {
    std::vector<Call*> calls;
    {
        ContextAutoLock lock(&g_lock);
        for (auto& entry : g_calls) calls.push_back(entry.second);
        g_calls.clear();
    }
    for (Call* call : calls) {
        Fail(&call->error, call->site, LUMORA_CLIENT_ERROR_NOT_AVAILABLE,
             "the service went away (%s) before it answered the %s of %s", reason, call->read ? "read" : "request",
             call->subject.c_str());
        Complete(call);
    }
}

}  // namespace lumora::glib
