/* What liblumora-platform's settings store found out about itself, for the
 * tools that must tell "the key is not set" from "the store cannot be used":
 * settings_get_str returns NULL and settings_set_str non-zero in both cases.
 *
 * Only the off-target liblumora-platform has this function; the television's
 * platform libraries do not. It is therefore declared here, inside the
 * project, and never installed: the tools use it when they are built against
 * liblumora-platform (LUMORA_PLATFORM_SETTINGS_STATUS is defined then). */
#ifndef LUMORA_PLATFORM_SETTINGSSTATUS_H
#define LUMORA_PLATFORM_SETTINGSSTATUS_H

#include <lumora/lumora-export.h>
#include <stddef.h>

LUMORA_EXTERN_C_BEGIN

typedef enum {
    /* The store answered: the value was read or stored, or the key is absent. */
    LUMORA_SETTINGS_OK = 0,
    /* A read found no store file: nothing has been set on this device yet. */
    LUMORA_SETTINGS_NO_STORE = 1,
    /* The store could not be opened, read or written (not a database, a
     * folder, a table missing or of another shape, no permission, locked by
     * another connection past the busy time-out, ...), or the call had a NULL
     * argument. */
    LUMORA_SETTINGS_FAILED = 2
} lumora_settings_status;

/* The outcome of the calling thread's last settings_get_str or
 * settings_set_str as far as the store is concerned. Its one-line reason
 * (empty for LUMORA_SETTINGS_OK), the text of the error line that call
 * logged, is copied into reason: at most size - 1 bytes and a NUL. reason
 * may be NULL when size is 0. A thread that has not used the store yet gets
 * LUMORA_SETTINGS_OK. */
LUMORA_EXPORT lumora_settings_status settings_last_status(char* reason, size_t size);

LUMORA_EXTERN_C_END

#endif /* LUMORA_PLATFORM_SETTINGSSTATUS_H */
