// The synchronous read and the write: the calling thread's own calls into
// the bus client, whose int results say why a call failed (the plain
// functions of lumora-c.h only say that it did).
#include <lumora/DBusClient.h>

#include <cstdlib>

#include "ClientInternal.h"

namespace {

using lumora::glib::CheckText;
using lumora::glib::Fail;
using lumora::glib::FailWithResult;
using lumora::internal::LogSite;

char* ReadSync(LumoraClient* client, const char* subject, const char* input, GCancellable* cancellable,
               GError** error, LogSite site) {
    if (g_cancellable_set_error_if_cancelled(cancellable, error)) return nullptr;
    if (!CheckText(error, site, "subject", subject, true) || !CheckText(error, site, "input", input, false))
        return nullptr;
    DBusClient* bus = lumora::glib::StartedBusClient(client, error, site);
    if (bus == nullptr || !lumora::glib::MayUseSubject(error, site, *bus, subject)) return nullptr;
    char* text = nullptr;
    lumora::glib::RefusalWatch watch;
    int result = bus->Read(subject, input, &text);
    if (result != 0) {
        free(text);  // a service code comes with the service's text, which is not the value
        FailWithResult(error, site, result, "read", subject, watch);
        return nullptr;
    }
    if (text == nullptr) {
        Fail(error, site, LUMORA_CLIENT_ERROR_FAILED, "the service answered the read of %s without a text", subject);
        return nullptr;
    }
    char* value = g_strdup(text);
    free(text);
    // The read could not be interrupted; its answer is dropped.
    if (g_cancellable_set_error_if_cancelled(cancellable, error)) {
        g_free(value);
        return nullptr;
    }
    return value;
}

gboolean Write(LumoraClient* client, const char* subject, const char* data, GError** error, LogSite site) {
    if (!CheckText(error, site, "subject", subject, true) || !CheckText(error, site, "data", data, true))
        return FALSE;
    DBusClient* bus = lumora::glib::StartedBusClient(client, error, site);
    if (bus == nullptr) return FALSE;
    // Writes are not checked against the whitelist: any process may write
    // any subject, as with the C interface.
    lumora::glib::RefusalWatch watch;
    int result = bus->Write(subject, data);
    if (result != 0) return FailWithResult(error, site, result, "write", subject, watch);
    return TRUE;
}

}  // namespace

char* lumora_client_read_sync(LumoraClient* client, const char* subject, const char* input,
                              GCancellable* cancellable, GError** error) {
    g_return_val_if_fail(LUMORA_IS_CLIENT(client), nullptr);
    g_return_val_if_fail(cancellable == nullptr || G_IS_CANCELLABLE(cancellable), nullptr);
    g_return_val_if_fail(error == nullptr || *error == nullptr, nullptr);
    LogSite site = LMF_SITE(__func__);
    return lumora::glib::Guard(error, site, static_cast<char*>(nullptr),
                               [&] { return ReadSync(client, subject, input, cancellable, error, site); });
}

gboolean lumora_client_write(LumoraClient* client, const char* subject, const char* data, GError** error) {
    g_return_val_if_fail(LUMORA_IS_CLIENT(client), FALSE);
    g_return_val_if_fail(error == nullptr || *error == nullptr, FALSE);
    LogSite site = LMF_SITE(__func__);
    return lumora::glib::Guard(error, site, FALSE, [&] { return Write(client, subject, data, error, site); });
}
