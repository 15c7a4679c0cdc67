// DBusClient: the subscribe and unsubscribe messages sent for the whole
// table, when the service comes back ("HELLO", a reconnection, a service
// found again) and at Finalize.
//
// They are the messages that one blocking "RequestSync" after another would
// send, in the same order, with fresh ids, the same input and the same log
// lines; but they go out as a window of calls in flight, the next as each
// one is answered. Neither the main loop nor the client mutex waits for an
// answer, so a return of the service under a thousand subscriptions does
// not freeze the screen, a service that says "HELLO" and then hangs holds up
// nobody, and a stock system bus (128 replies pending per connection) never
// refuses one of them.
#define LMF_LOG_UNIT "DBusClient.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <map>
#include <string>

#include "DBusClientInternal.h"
#include "internal/Boundary.h"
#include "internal/DefaultContext.h"
#include "internal/Events.h"
#include "internal/Log.h"
#include "internal/ServiceContract.h"

namespace contract = lumora::contract;

namespace {

// Well under the bus's 128, leaving room for the current values being
// caught up at the same time and for the application's own requests.
constexpr size_t kWindow = 32;
// The lines of each message are those of the blocking call they replace.
constexpr const char* kRequestSync = "__RequestSync";
constexpr const char* kOnAnswer = "OnRegistrationAnswer";

struct Message {
    uint64_t job;
    int type;
    std::string subject;
};

// One batch: a return of the service, or a Finalize.
struct Job {
    DBusClientInternal::Batch batch;
    const char* caller;  // whose lines the follow-up steps write
    size_t unsent;
    size_t unanswered;
};

// What a call in flight carries to its answer.
struct Call {
    uint64_t job;
    int reqId;
};

// All guarded by the client mutex: every path that queues, sends or answers
// holds it, so the messages leave in queue order. It is held only while
// messages are queued with GIO, never while an answer is awaited.
std::deque<Message> g_queue;
std::map<uint64_t, Job> g_jobs;
uint64_t g_nextJob = 1;
size_t g_inFlight = 0;

const char* ReasonOf(DBusClientInternal::Batch batch) {
    switch (batch) {
        case DBusClientInternal::Batch::kHello:
            return "hello";
        case DBusClientInternal::Batch::kReconnected:
            return "reconnected";
        case DBusClientInternal::Batch::kReady:
            return "ready";
        case DBusClientInternal::Batch::kFinalize:
            break;
    }
    return nullptr;
}

bool IsReturn(DBusClientInternal::Batch batch) { return batch != DBusClientInternal::Batch::kFinalize; }

// A subscribe message whose subject has no record left (removed since the
// batch began) is not sent: the service would notify a subject that nobody
// here holds. An unsubscribe always goes.
bool StillWanted(const DBusClient& client, const Message& message) {
    return message.type != contract::kRequestSubscribe || DBusClientInternal::HasSubscription(client, message.subject);
}

void Send(DBusClient& client, const Message& message) {
    const char* name = DBusClientInternal::ProcessName(client);
    GDBusConnection* connection = DBusClientInternal::Connection(client);
    if (connection == nullptr) {
        LMF_LOGE_IN(kRequestSync, "[%s] m_connection is null", name);
        return;
    }
    int reqId = client.__GenerateSeqId();
    GVariant* parameters = g_variant_new(contract::kRequestTuple, static_cast<gint32>(getpid()), message.type, reqId,
                                         message.subject.c_str(), contract::kEmptyJson);
    LMF_LOGE_IN(kRequestSync, "[%s] type:%d, reqId:%d, szSubject:%s, input:%s", name, message.type, reqId,
                message.subject.c_str(), contract::kEmptyJson);
    lumora::internal::OnDefaultContext onDefault;
    g_dbus_connection_call(connection, contract::kBusName, contract::kObjectPath, contract::kInterface,
                           contract::kMethodRequestSync, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE,
                           contract::kRequestSyncTimeoutMs, nullptr, &DBusClientInternal::OnRegistrationAnswer,
                           new Call{message.job, reqId});
    ++g_inFlight;
}

// What is left to do once every message of a batch went out: the unsent
// requests follow the subscriptions, as they always did; and the current
// values can be asked, since the service takes a connection's calls in
// order: each answer is the value of a subject it has registered.
void AllSent(DBusClient& client, const Job& job) {
    if (!IsReturn(job.batch)) return;
    DBusClientInternal::ResendPendingRequests(client, job.caller);
    lumora::internal::ReportServiceReturning(ReasonOf(job.batch));
}

// Once every message of a return was answered, the application hears that
// the service is back: reads from that callback reach a service that knows
// the subscriptions.
void AllAnswered(const Job& job) {
    if (const char* reason = ReasonOf(job.batch)) lumora::internal::ReportServiceAvailable(reason);
}

void CountSent(DBusClient& client, uint64_t id) {
    auto it = g_jobs.find(id);
    if (it == g_jobs.end()) return;
    if (--it->second.unsent == 0) AllSent(client, it->second);
}

void CountAnswered(uint64_t id) {
    auto it = g_jobs.find(id);
    if (it == g_jobs.end()) return;
    if (it->second.unanswered > 0) --it->second.unanswered;
    if (it->second.unsent != 0 || it->second.unanswered != 0) return;
    Job job = it->second;
    g_jobs.erase(it);
    AllAnswered(job);
}

// Sends from the front of the queue while the window has room; a message
// not sent counts as answered at once.
void Pump(DBusClient& client) {
    while (g_inFlight < kWindow && !g_queue.empty()) {
        Message message = std::move(g_queue.front());
        g_queue.pop_front();
        size_t before = g_inFlight;
        if (StillWanted(client, message)) Send(client, message);
        CountSent(client, message.job);
        if (g_inFlight == before) CountAnswered(message.job);
    }
}

// A batch with nothing to send is done at once.
void StartJob(DBusClient& client, uint64_t id, Job job) {
    if (job.unsent == 0) {
        AllSent(client, job);
        AllAnswered(job);
        return;
    }
    g_jobs.emplace(id, job);
    Pump(client);
}

void DropQueued(const std::function<bool(const Message&)>& drop) {
    for (auto it = g_queue.begin(); it != g_queue.end();) {
        if (!drop(*it)) {
            ++it;
            continue;
        }
        auto job = g_jobs.find(it->job);
        if (job != g_jobs.end()) {
            --job->second.unsent;
            --job->second.unanswered;
        }
        it = g_queue.erase(it);
    }
}

}  // namespace

void DBusClientInternal::RegisterAgain(DBusClient& client, Batch batch, const char* caller) {
    CancelReturns();
    RegistrationOwed() = false;
    uint64_t id = g_nextJob++;
    size_t queued = 0;
    for (DBusClientSubscribe* record : client.m_vSubscribeList) {
        if (record == nullptr) {
            LMF_LOGE_IN(caller, "vector item is NULL, abnormal state ..");
            continue;
        }
        g_queue.push_back({id, contract::kRequestSubscribe, record->subject});
        ++queued;
    }
    StartJob(client, id, {batch, caller, queued, queued});
}

void DBusClientInternal::QueueUnsubscribeAll(DBusClient& client) {
    uint64_t id = g_nextJob++;
    size_t queued = 0;
    for (DBusClientSubscribe* record : client.m_vSubscribeList) {
        if (record == nullptr) continue;
        g_queue.push_back({id, contract::kRequestUnsubscribe, record->subject});
        ++queued;
    }
    StartJob(client, id, {Batch::kFinalize, "Finalize", queued, queued});
}

void DBusClientInternal::DropQueuedUnsubscribe(const std::string& subject) {
    DropQueued([&subject](const Message& message) {
        return message.type == contract::kRequestUnsubscribe && message.subject == subject;
    });
}

void DBusClientInternal::CancelReturns() {
    for (auto it = g_jobs.begin(); it != g_jobs.end();) {
        it = IsReturn(it->second.batch) ? g_jobs.erase(it) : std::next(it);
    }
    DropQueued([](const Message& message) { return g_jobs.count(message.job) == 0; });
}

void DBusClientInternal::ClearRegistrations() {
    g_jobs.clear();
    g_queue.clear();
}

size_t DBusClientInternal::RegistrationsInFlight() { return g_inFlight; }

// The call's record was made under the client mutex on the thread that sent
// it: it is read here under the same mutex.
void DBusClientInternal::OnRegistrationAnswer(GObject* source, GAsyncResult* result, gpointer userData) {
    auto* call = static_cast<Call*>(userData);
    lumora::internal::GuardedVoid(kOnAnswer, [&] {
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
        ContextAutoLock lock(Mutex());
        // The lines of a failed blocking call; the result itself is ignored,
        // as it always was.
        if (reply == nullptr) {
            if (error != nullptr) LMF_LOGE_IN(kRequestSync, "%s, reqId:%d", error->message, call->reqId);
        } else if (!g_variant_is_of_type(reply, G_VARIANT_TYPE(contract::kRequestSyncReply))) {
            LMF_LOGE_IN(kRequestSync, "unexpected reply %s, expected %s, reqId:%d", g_variant_get_type_string(reply),
                        contract::kRequestSyncReply, call->reqId);
        }
        if (reply != nullptr) g_variant_unref(reply);
        if (error != nullptr) g_error_free(error);
        if (g_inFlight > 0) --g_inFlight;
        CountAnswered(call->job);
        if (DBusClient* client = DBusClient::m_pInstance) Pump(*client);
        delete call;
    });
}
