// LMFServiceAPI's own helpers, shared by the files it is split over; never
// exported. Their lines belong to the operation named by function.
#ifndef LUMORA_SRC_LMFSERVICEAPIINTERNAL_H
#define LUMORA_SRC_LMFSERVICEAPIINTERNAL_H

#include <lumora/DBusClient.h>

namespace lumora::internal {

// The shared bus client, or null after "dbus not created!".
DBusClient* ServiceClient(const char* function);

// Whether this process may use subject: any subject that is not internal, an
// internal one only when the service's whitelist admits the process.
// "This subject is not for external apps .. " when not.
bool MayUseSubject(const char* function, DBusClient& client, const char* subject);

}  // namespace lumora::internal

#endif  // LUMORA_SRC_LMFSERVICEAPIINTERNAL_H
