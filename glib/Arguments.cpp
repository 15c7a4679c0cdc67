// The checks every operation makes before it reaches the C library, so that
// what the library would refuse with a bare false or NULL comes back as a
// GError that says why.
#include <lumora/DBusClient.h>
#include <lumora/LMFServiceAPI.h>

#include <cstring>

#include "ClientInternal.h"
#include "internal/ServiceContract.h"

namespace lumora::glib {

// A message of a GError must be UTF-8 itself: the text that failed the check
// is named, never quoted.
bool CheckText(GError** error, internal::LogSite site, const char* name, const char* text, bool required) {
    if (text == nullptr) {
        if (!required) return true;
        return Fail(error, site, LUMORA_CLIENT_ERROR_INVALID_ARGUMENT, "%s is NULL", name);
    }
    if (g_utf8_validate(text, -1, nullptr)) return true;
    return Fail(error, site, LUMORA_CLIENT_ERROR_INVALID_UTF8, "%s is not valid UTF-8", name);
}

bool IsStatisticsSubject(const char* subject) {
    for (const contract::StatisticsKind& kind : contract::kStatisticsKinds) {
        if (strcmp(kind.subject, subject) == 0) return true;
    }
    return false;
}

// The same test as the C library's: it needs the process's name, which the
// service API caches at its first start and keeps while any start holds.
bool MayUseSubject(GError** error, internal::LogSite site, DBusClient& bus, const char* subject) {
    if (!LMFServiceAPI::_CheckInternalSubject(subject) || bus.CheckWhiteListProcess()) return true;
    char* name = g_utf8_make_valid(LMFServiceAPI::_GetProcessName(), -1);
    Fail(error, site, LUMORA_CLIENT_ERROR_NOT_ALLOWED,
         "%s is an internal subject, and this process (%s) is not on the service's whitelist", subject, name);
    g_free(name);
    return false;
}

}  // namespace lumora::glib
