// DBusClient: the request-id sequence, the blocking read and the
// fire-and-forget write.
#define LMF_LOG_UNIT "DBusClient.cpp"
#include <lumora/ContextAutoLock.h>
#include <lumora/DBusClient.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "DBusClientInternal.h"
#include "internal/Atomic.h"
#include "internal/Log.h"
#include "internal/Reentry.h"
#include "internal/ServiceContract.h"
#include "internal/TestSeams.h"

namespace contract = lumora::contract;
using lumora::internal::AtomicLoad;

namespace {

// One sequence for the whole process; advanced under the client mutex except
// by Write, which takes no lock, hence the atomic.
int g_nRequestId = 0;

GVariant* RequestTuple(int type, int reqId, const char* subject, const char* input) {
    return g_variant_new(contract::kRequestTuple, static_cast<gint32>(getpid()), type, reqId, subject,
                         input != nullptr ? input : "");
}

}  // namespace

// g_variant_new takes only valid UTF-8: anything else would raise a GLib
// critical and put "[Invalid UTF-8]" on the bus in place of the text. Such a
// text is refused like a missing one.
bool DBusClientInternal::IsSendable(const DBusClient& client, const char* function, const char* subject,
                                    const char* input) {
    if (subject != nullptr && !g_utf8_validate(subject, -1, nullptr)) {
        LMF_LOGE_IN(function, "[%s] szSubject is not valid UTF-8", ProcessName(client));
        return false;
    }
    if (input != nullptr && !g_utf8_validate(input, -1, nullptr)) {
        LMF_LOGE_IN(function, "[%s] input is not valid UTF-8", ProcessName(client));
        return false;
    }
    return true;
}

void lumora::internal::SetRequestIdCounterForTesting(int value) {
    __atomic_store_n(&g_nRequestId, value, __ATOMIC_SEQ_CST);
}

int DBusClient::__GenerateSeqId() {
    int current = __atomic_load_n(&g_nRequestId, __ATOMIC_RELAXED);
    int next;
    do {
        // From the largest int the sequence starts again at 1: ids are never 0
        // or negative.
        next = current == INT_MAX ? 1 : current + 1;
    } while (!__atomic_compare_exchange_n(&g_nRequestId, &current, next, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED));
    return next;
}

int DBusClient::__RequestSync(int type, int reqId, const char* subject, const char* input, char** output) {
    const char* name = m_strProcessName.c_str();
    GDBusConnection* connection = DBusClientInternal::Connection(*this);
    if (connection == nullptr) {
        LMF_LOGE("[%s] m_connection is null", name);
        return -6;
    }
    // g_variant_new refuses a null string; a read without input sends "".
    if (input == nullptr) input = "";
    if (!DBusClientInternal::IsSendable(*this, __func__, subject, input)) return -3;
    GVariant* parameters = RequestTuple(type, reqId, subject, input);
    LMF_LOGE("[%s] type:%d, reqId:%d, szSubject:%s, input:%s", name, type, reqId, subject, input);
    GError* error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        connection, contract::kBusName, contract::kObjectPath, contract::kInterface, contract::kMethodRequestSync,
        parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, contract::kRequestSyncTimeoutMs, nullptr, &error);
    if (reply == nullptr) {
        if (error != nullptr) {
            LMF_LOGE("%s, reqId:%d", error->message, reqId);
            g_error_free(error);
        }
        return -6;
    }
    // Checked, not assumed: a reply of another type would make g_variant_get
    // fail with a GLib critical; it counts as a failed call instead.
    if (!g_variant_is_of_type(reply, G_VARIANT_TYPE(contract::kRequestSyncReply))) {
        LMF_LOGE("unexpected reply %s, expected %s, reqId:%d", g_variant_get_type_string(reply),
                 contract::kRequestSyncReply, reqId);
        g_variant_unref(reply);
        return -6;
    }
    gint32 result = 0;
    const gchar* text = nullptr;
    g_variant_get(reply, "(i&s)", &result, &text);
    if (output != nullptr && text != nullptr) {
        // Exactly "{}" is the service's "no data"; its code is then ignored.
        if (strcmp(text, contract::kEmptyJson) == 0) {
            result = -4;
        } else {
            *output = strdup(text);
        }
    }
    g_variant_unref(reply);
    return result;
}

int DBusClient::Read(const char* subject, const char* input, char** output) {
    if (LMF_REFUSED_IN_CALLBACK(lumora::internal::kClientMutex)) return -6;
    ContextAutoLock lock(&m_clientMutex);
    const char* name = m_strProcessName.c_str();
    if (!m_bBusConnected) {
        LMF_LOGE("[%s] Dbus is not connected", name);
        return -5;
    }
    if (!m_bServiceAvailable) {
        LMF_LOGE("[%s] Service is not available", name);
        return -5;
    }
    if (subject == nullptr) {
        LMF_LOGE("[%s] szSubject is null", name);
        return -3;
    }
    return __RequestSync(contract::kRequestRead, __GenerateSeqId(), subject, input, output);
}

// No lock: a write only queues a message, and must not wait behind a read
// that holds the client mutex for up to a second.
int DBusClient::Write(const char* subject, const char* input) {
    const char* name = m_strProcessName.c_str();
    if (!AtomicLoad(m_bBusConnected)) {
        LMF_LOGE("[%s] Dbus is not connected", name);
        return -5;
    }
    if (!AtomicLoad(m_bServiceAvailable)) {
        LMF_LOGE("[%s] Service is not available", name);
        return -5;
    }
    if (subject == nullptr || input == nullptr) {
        if (subject == nullptr) {
            LMF_LOGE("[%s] szSubject is null", name);
        } else {
            LMF_LOGE("[%s] input is null", name);
        }
        return -3;
    }
    return __WriteAsync(contract::kRequestWrite, __GenerateSeqId(), subject, input);
}

int DBusClient::__WriteAsync(int type, int reqId, const char* subject, const char* input, char** /*output*/) {
    GDBusConnection* connection = DBusClientInternal::Connection(*this);
    if (connection == nullptr) {
        LMF_LOGE("m_connection is null");
        return -6;
    }
    if (!DBusClientInternal::IsSendable(*this, __func__, subject, input)) return -3;
    GVariant* parameters = RequestTuple(type, reqId, subject, input);
    LMF_LOGE("[%s] type:%d, reqId:%d, szSubject:%s, input:%s", m_strProcessName.c_str(), type, reqId, subject, input);
    // Sent without a completion callback: the service's answer and any
    // delivery error are dropped, so success means only "queued".
    g_dbus_connection_call(connection, contract::kBusName, contract::kObjectPath, contract::kInterface,
                           contract::kMethodWrite, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE,
                           contract::kDefaultTimeoutMs, nullptr, nullptr, nullptr);
    return 0;
}
