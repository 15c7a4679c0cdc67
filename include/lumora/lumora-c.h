/* The plain-function interface of liblumora-api: enumerations, records,
 * callback types and the exported C functions. Usable from C and C++.
 *
 * Ownership: every char* returned by a function here is allocated with malloc
 * (strdup) and released by the caller with free. Callbacks run on the thread
 * that iterates the default GLib main context; the application must run a
 * GLib main loop for them to fire. */
#ifndef LUMORA_C_H
#define LUMORA_C_H

#include <lumora/lumora-export.h>

#ifndef __cplusplus
#include <stdbool.h>
#endif

LUMORA_EXTERN_C_BEGIN

/* Outcome of starting the service connection. */
typedef enum {
    LMF_INIT_OK = 0,                /* connected, the service is enabled */
    LMF_INIT_CONNECTION_FAILED = 1, /* no bus connection; retried every 2 s */
    LMF_INIT_SERVICE_NOT_READY = 2  /* connected, the service is not ready yet */
} LMF_INIT_RESULT;

/* Which channel-list entries an application sees (by their "SrcType"). */
typedef enum {
    LMF_SRC_RF = 0,  /* "RF" entries only */
    LMF_SRC_STB = 1, /* "STB" entries only */
    LMF_SRC_ALL = 2  /* every entry (the default) */
} LMF_SRC_TYPE;

/* The device model declared with the source type; its meaning is the
 * service's. 2 is the default. */
typedef enum {
    LMF_MODEL_0 = 0,
    LMF_MODEL_1 = 1,
    LMF_MODEL_DEFAULT = 2
} LMF_MODEL_TYPE;

/* Callback of subscriptions and asynchronous requests. data belongs to the
 * library and is valid only during the call. */
typedef void (*LumoraSubjectCb)(const char* subject, char* data, void* userData);

/* Callback of Lumora_InitServiceWithResponse; data is always NULL. */
typedef void (*LumoraInitCb)(char* data, void* userData);

LUMORA_EXTERN_C_END

#endif /* LUMORA_C_H */
