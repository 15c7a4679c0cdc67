// LMFServiceAPI's own helpers, shared by the files it is split over (and the
// read and write steps, by LumoraAPI too); never exported. Their lines belong
// to the operation named by function or site.
#ifndef LUMORA_SRC_LMFSERVICEAPIINTERNAL_H
#define LUMORA_SRC_LMFSERVICEAPIINTERNAL_H

#include <lumora/ContextData.h>
#include <lumora/DBusClient.h>

#include <initializer_list>
#include <string>

#include "internal/Log.h"
#include "internal/Text.h"

namespace lumora::internal {

// Whether every text of the operation function may be sent (null ones pass).
// When one is not valid UTF-8: false after the one line "[process] <name> is
// not valid UTF-8", before anything is built or sent.
bool AreSendable(const char* function, std::initializer_list<NamedText> texts);

// LMFServiceAPI::Subscribe's steps, with m_mutex held; its lines belong to
// function.
bool SubscribeLocked(const char* function, const char* subject, LumoraSubjectCb callback, void* userData);

// The shared bus client, or null after "dbus not created!".
DBusClient* ServiceClient(const char* function);

// Whether this process may use subject: any subject that is not internal, an
// internal one only when the service's whitelist admits the process.
// "This subject is not for external apps .. " when not.
bool MayUseSubject(const char* function, DBusClient& client, const char* subject);

// The bus-client read of Read, after its checks: the value into output, or
// false after "error %d" or "error output is null", logged for site. Also for
// the operations that read a subject of their own (the channel reads) and for
// LumoraAPI::Read.
bool ReadValue(LogSite site, DBusClient& client, const char* subject, const char* input, std::string& output);

// The bus-client write of Write (and LumoraAPI::Write): false after
// "error %d", logged for site.
bool WriteValue(LogSite site, DBusClient& client, const char* subject, const char* input);

// WriteValue of document's text (the channel removals, the actions).
bool WriteDocument(LogSite site, DBusClient& client, const char* subject, ContextData& document);

}  // namespace lumora::internal

#endif  // LUMORA_SRC_LMFSERVICEAPIINTERNAL_H
