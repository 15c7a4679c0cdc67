// DBusClient: asynchronous requests, the pending-request table and the reply
// handler.
#define LMF_LOG_UNIT "DBusClient.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "DBusClientInternal.h"
#include "internal/Boundary.h"
#include "internal/DefaultContext.h"
#include "internal/Events.h"
#include "internal/Log.h"
#include "internal/Reentry.h"
#include "internal/ServiceContract.h"

namespace contract = lumora::contract;

namespace {

// The reply path is split into helpers; all of its lines are the handler's.
constexpr const char* kOnResponseAsync = "OnResponseAsync";

char g_errorJson[] = "{\"Status\":\"Error\"}";

bool IsStatisticsSubject(const char* subject) {
    for (const contract::StatisticsKind& kind : contract::kStatisticsKinds) {
        if (strcmp(kind.subject, subject) == 0) return true;
    }
    return false;
}

// Steps 1 to 3 of OnResponseAsync: a reply with a record, a connection and a
// client. None of them can fail through GIO; nothing is freed on them.
bool ReplyIsWanted(GObject* source, DBusClientRequest* request, DBusClient*& client) {
    if (request == nullptr) {
        LMF_LOGE_IN(kOnResponseAsync, "CONTEXT_ERR_INVALID_PARAM");
        return false;
    }
    if (source == nullptr) {
        LMF_LOGE_IN(kOnResponseAsync, "CONTEXT_ERR_DBUS_CONNECTION");
        return false;
    }
    client = DBusClient::m_pInstance;
    if (client == nullptr) {
        LMF_LOGE_IN(kOnResponseAsync, "Memory Allocation Failed");
        lumora::internal::ReportUnansweredRequest(request->callback, request->userData);
        return false;
    }
    return true;
}

void FreeRequest(DBusClientRequest* request) { delete request; }

// A request freed without its callback: the library's own requests (the
// current values) keep count of what they have in flight.
void DropRequest(DBusClientRequest* request) {
    lumora::internal::ReportUnansweredRequest(request->callback, request->userData);
    FreeRequest(request);
}

// The application's callback, run with the client mutex held: the thread is
// marked so that a callback calling back into a locked operation is refused
// instead of hanging. A null callback is skipped with a line of its own
// rather than called: a request made without one is answered to nobody.
void Notify(const DBusClientRequest* request, const char* subject, char* data) {
    if (request->callback == nullptr) {
        LMF_LOGE_IN(kOnResponseAsync, "no callback for RequestID(%d) Subject(%s)", request->reqId,
                    request->subject.c_str());
        return;
    }
    lumora::internal::CallbackUnderLock marked(lumora::internal::kClientMutex);
    request->callback(subject, data, request->userData);
}

// Delivers a reply that carries a text (any subject but the statistics ones).
void DeliverText(DBusClientRequest* request, const char* subject, GVariant* data) {
    gchar* text = nullptr;
    // Checked, not assumed: a payload of another type would make g_variant_get
    // fail with a GLib critical; it is answered as an error instead.
    if (g_variant_is_of_type(data, G_VARIANT_TYPE(contract::kTextPayload))) {
        g_variant_get(data, "(s)", &text);
    } else {
        LMF_LOGE_IN(kOnResponseAsync, "unexpected payload %s, expected %s", g_variant_get_type_string(data),
                    contract::kTextPayload);
    }
    if (text != nullptr) LMF_LOGE_IN(kOnResponseAsync, "%s", text);
    if (text == nullptr) {
        Notify(request, subject, g_errorJson);
        LMF_LOGI_IN(kOnResponseAsync, "Calling cb with error json : RequestID(%d) Subject(%s)", request->reqId,
                    request->subject.c_str());
        return;
    }
    Notify(request, subject, text);
    LMF_LOGI_IN(kOnResponseAsync, "Calling cb success : RequestID(%d) Subject(%s)", request->reqId,
                request->subject.c_str());
    g_free(text);
}

void DeliverStatistics(DBusClient& client, DBusClientRequest* request, const char* subject, GVariant* data) {
    StatisticsResult result = {0, nullptr};
    client.__ResponseDataParsing(subject, data, result);
    Notify(request, subject, reinterpret_cast<char*>(&result));
    LMF_LOGI_IN(kOnResponseAsync, "Calling cb success : RequestID(%d) Subject(%s)", request->reqId,
                request->subject.c_str());
    client.__DataFree(subject, result);
}

void DeliverReply(DBusClient& client, DBusClientRequest* request, GVariant* reply) {
    // Checked, not assumed, for the same reason as the payload in DeliverText.
    if (!g_variant_is_of_type(reply, G_VARIANT_TYPE(contract::kRequestAsyncReply))) {
        LMF_LOGE_IN(kOnResponseAsync, "unexpected reply %s, expected %s, reqId:%d", g_variant_get_type_string(reply),
                    contract::kRequestAsyncReply, request->reqId);
        Notify(request, request->subject.c_str(), g_errorJson);
        return;
    }
    gint32 reqResult = 0;
    const gchar* subject = nullptr;
    GVariant* revData = nullptr;
    g_variant_get(reply, "(i&sv)", &reqResult, &subject, &revData);
    LMF_LOGI_IN(kOnResponseAsync, "reqResult=%d Subject=%s revData(%p) pRequest(%p)", reqResult, subject,
                static_cast<void*>(revData), static_cast<void*>(request));
    if (reqResult != 0 || revData == nullptr) {
        LMF_LOGE_IN(kOnResponseAsync, "ERROR!!! : Subejct=%s ret=%d", subject, reqResult);
        if (revData != nullptr) g_variant_unref(revData);
        Notify(request, subject, g_errorJson);
        LMF_LOGI_IN(kOnResponseAsync, "Calling cb with error json : RequestID(%d) Subject(%s)", request->reqId,
                    request->subject.c_str());
        return;
    }
    if (request->isStatistics) {
        DeliverStatistics(client, request, subject, revData);
    } else {
        DeliverText(request, subject, revData);
    }
    g_variant_unref(revData);
}

}  // namespace

int DBusClient::Request(const char* subject, const char* input, LumoraSubjectCb callback, void* userData) {
    if (LMF_REFUSED_IN_CALLBACK(lumora::internal::kClientMutex)) return -6;
    ContextAutoLock lock(&m_clientMutex);
    const char* name = m_strProcessName.c_str();
    if (!m_bBusConnected) {
        LMF_LOGE("[%s] Dbus is not connected", name);
        return -5;
    }
    if (subject == nullptr) {
        LMF_LOGE("[%s] szSubject is null", name);
        return -3;
    }
    // Refused before a record exists, and only here: every text that reaches
    // __RequestAsync, at once or from the pending table, passed this check.
    if (!DBusClientInternal::IsSendable(*this, __func__, subject, input)) return -3;
    int reqId = __GenerateSeqId();
    DBusClientRequest* request = new (std::nothrow) DBusClientRequest;
    if (request == nullptr) {
        LMF_LOGE("new DBusClientRequest failed ..");
        return -2;
    }
    request->subject = subject;
    request->input = input != nullptr ? input : "";
    request->reqId = reqId;
    request->callback = callback;
    request->isStatistics = IsStatisticsSubject(subject);
    request->userData = userData;
    request->initCount = m_nInitCnt;
    if (!m_bServiceAvailable) {
        // Not kept for later: only requests that failed at the bus are.
        LMF_LOGE("[%s] Service is not available yet, you can get result after starting LMF", name);
        FreeRequest(request);
        return -5;
    }
    m_vRequestList.push_back(request);
    int result = __RequestAsync(contract::kRequestAsync, reqId, subject, input, request);
    if (result != 0) {
        LMF_LOGE("__RequestAsync failed .. ");
        return result;
    }
    EraseRequest(reqId);  // the record now travels with the call
    return 0;
}

int DBusClient::__RequestAsync(int type, int reqId, const char* subject, const char* input,
                               DBusClientRequest* pRequest) {
    GDBusConnection* connection = DBusClientInternal::Connection(*this);
    if (connection == nullptr) {
        LMF_LOGE("m_connection is null");
        return -6;
    }
    if (input == nullptr) input = "";
    GVariant* parameters =
        g_variant_new(contract::kRequestTuple, static_cast<gint32>(getpid()), type, reqId, subject, input);
    LMF_LOGE("[%s] type:%d, reqId:%d, szSubject:%s, input:%s, pRequest:%p", m_strProcessName.c_str(), type, reqId,
             subject, input, static_cast<void*>(pRequest));
    // The answer reaches the default main context, whatever thread asks.
    lumora::internal::OnDefaultContext onDefault;
    g_dbus_connection_call(connection, contract::kBusName, contract::kObjectPath, contract::kInterface,
                           contract::kMethodRequestAsync, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE,
                           contract::kDefaultTimeoutMs, nullptr, &DBusClient::OnResponseAsync, pRequest);
    return 0;
}

DBusClientRequest* DBusClient::FindRequest(int reqId) {
    auto it = std::find_if(m_vRequestList.begin(), m_vRequestList.end(),
                           [reqId](const DBusClientRequest* r) { return r != nullptr && r->reqId == reqId; });
    return it != m_vRequestList.end() ? *it : nullptr;
}

void DBusClient::EraseRequest(int reqId) {
    auto end = std::remove_if(m_vRequestList.begin(), m_vRequestList.end(),
                              [reqId](const DBusClientRequest* r) { return r != nullptr && r->reqId == reqId; });
    bool erased = end != m_vRequestList.end();
    m_vRequestList.erase(end, m_vRequestList.end());
    if (erased) {
        LMF_LOGI("EraseRequest success(%d)", reqId);
    } else {
        LMF_LOGI("EraseRequest fail .. cannot find this request (%d)", reqId);
    }
}

void DBusClient::__DeleteAllRequests() {
    for (DBusClientRequest* request : m_vRequestList) {
        if (request != nullptr) DropRequest(request);
    }
    m_vRequestList.clear();
}

void DBusClientInternal::ResendPendingRequests(DBusClient& client, const char* caller) {
    auto& pending = client.m_vRequestList;
    size_t i = 0;
    while (i < pending.size()) {
        DBusClientRequest* request = pending[i];
        if (request == nullptr) {
            LMF_LOGE_IN(caller, "vector item is NULL, abnormal state ..");
            ++i;
            continue;
        }
        // A re-sent request keeps its first id; an empty input goes as null.
        const char* input = request->input.empty() ? nullptr : request->input.c_str();
        if (client.__RequestAsync(lumora::contract::kRequestAsync, request->reqId, request->subject.c_str(), input,
                                  request) == 0) {
            pending.erase(pending.begin() + static_cast<long>(i));
        } else {
            LMF_LOGE_IN(caller, "__RequestAsync falied .. ");
            ++i;
        }
    }
}

void DBusClient::OnResponseAsync(GObject* source, GAsyncResult* result, gpointer userData) {
    lumora::internal::GuardedVoid("OnResponseAsync", [&] {
        ContextAutoLock lock(DBusClientInternal::Mutex());
        auto* request = static_cast<DBusClientRequest*>(userData);
        DBusClient* client = nullptr;
        if (!ReplyIsWanted(source, request, client)) return;
        // The two silent drops: no callback. The record is freed all the same:
        // once sent it belongs to this call alone (it left the pending table),
        // so keeping it would only leak it. A call cut off by a lost bus is
        // not one of them while the service counts as available: GIO ends it
        // with an error before the connection's "closed" signal, and its
        // callback gets the error text below.
        if (!client->IsAvailable()) {
            LMF_LOGE_IN(kOnResponseAsync, "Service is not Available");
            DropRequest(request);
            return;
        }
        LMF_LOGI_IN(kOnResponseAsync, "DbusClient AccessCnt is [%d] and pRequest AccessCnt is [%d]", client->m_nInitCnt,
                    request->initCount);
        if (client->m_nInitCnt != request->initCount) {
            LMF_LOGE_IN(kOnResponseAsync, "Callback of previous init encountered hence returned");
            DropRequest(request);
            return;
        }
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
        if (error != nullptr) {
            LMF_LOGE_IN(kOnResponseAsync, "g_dbus_connection_call_finish failed ..[message:%s code:%d] ",
                        error->message, error->code);
            Notify(request, request->subject.c_str(), g_errorJson);
            g_error_free(error);
            if (reply != nullptr) g_variant_unref(reply);
        } else if (reply == nullptr) {
            LMF_LOGE_IN(kOnResponseAsync, "Error state : Error Callback RequestID(%d) Subject(%s)", request->reqId,
                        request->subject.c_str());
            Notify(request, request->subject.c_str(), g_errorJson);
        } else {
            DeliverReply(*client, request, reply);
            g_variant_unref(reply);
        }
        FreeRequest(request);
    });
}
