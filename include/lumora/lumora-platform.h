/**
 * @file
 * @brief The platform interfaces that the lumora libraries call.
 *
 * On the television these come from the platform's own libraries; everywhere
 * else liblumora-platform provides them, as described here:
 *  - log_print appends one line per record to $LUMORA_LOG_FILE (else standard
 *    error), filtered by $LUMORA_LOG_LEVEL;
 *  - feature_get_custom_bool reads $LUMORA_FEATURE_FILE (else
 *    /etc/lumora/features.conf);
 *  - settings_get_str / settings_set_str keep a SQLite file, $LUMORA_SETTINGS_DB
 *    (else $XDG_STATE_HOME/lumora/settings.db, else
 *    $HOME/.local/state/lumora/settings.db).
 *
 * All functions are safe to call from any thread and from several processes at
 * once; they take no lock of the client library. The platform's own failures
 * are logged with the tag "LUMORA_PLATFORM".
 */
#ifndef LUMORA_PLATFORM_H
#define LUMORA_PLATFORM_H

#include <lumora/lumora-export.h>

#ifndef __cplusplus
#include <stdbool.h>
#endif

LUMORA_EXTERN_C_BEGIN

/** Log priorities, lowest first. */
typedef enum {
    LUMORA_PRIO_DEBUG = 3, /**< Debug ("D"). */
    LUMORA_PRIO_INFO = 4,  /**< Information ("I"). */
    LUMORA_PRIO_WARN = 5,  /**< Warning ("W"). */
    LUMORA_PRIO_ERROR = 6  /**< Error ("E"). */
} lumora_log_priority;

/**
 * Formats one record and appends it as one line, `<L>/<TAG>(<pid>): <text>`,
 * with a single write(2), so that records of concurrent processes never
 * interleave. Line breaks inside the text are written as the two characters
 * `\n` (and `\r`). Records below $LUMORA_LOG_LEVEL (debug, info, warning,
 * error, none; default debug) are dropped before they are formatted.
 * A record is at most 4096 bytes, its newline included: a longer text is cut
 * on a UTF-8 character boundary and ends with `... [N bytes cut]`, N being
 * the number of bytes of the formatted text left out. A text that cannot be
 * formatted leaves the line `[the text of this record could not be
 * formatted: REASON]`.
 * Returns the number of bytes written, 0 for a dropped record (or a NULL
 * fmt), or -1.
 */
LUMORA_EXPORT int log_print(lumora_log_priority prio, const char* tag, const char* fmt, ...)
#if defined(__GNUC__) || defined(__clang__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

/**
 * Reads a boolean feature flag (a line "key=true" or "key=false") into
 * *value. Returns 0 on success; non-zero for a NULL argument, or when the
 * feature file exists but lacks the key, holds a value other than true/false,
 * or cannot be read (one error line is logged for an unreadable file).
 * Without a feature file the built-in defaults answer (non-zero for a key
 * without one). *value is written only on success.
 */
LUMORA_EXPORT int feature_get_custom_bool(const char* key, bool* value);

/**
 * Returns a copy of the value stored under key, allocated with malloc and
 * released by the caller with free, or NULL when key is NULL or absent, when
 * there is no store yet, or when the store cannot be opened or read (then one
 * error line with the reason is logged). The store is opened read-only, so a
 * process that may read but not write it can read it. Waits up to 5 s for a
 * connection that holds the store exclusively, then fails.
 */
LUMORA_EXPORT char* settings_get_str(const char* key);

/**
 * Stores value under key, replacing an earlier value. Returns 0 once the value
 * is durable on disk, non-zero on failure, a NULL argument included (one error
 * line is logged; the store is left as it was). The database and its folder
 * are created on first use. A file that is not a settings store (not a
 * database, a database without a table `settings` with the columns key and
 * value) is left unchanged and the call fails. Waits up to 5 s for another
 * connection's write lock, then fails.
 */
LUMORA_EXPORT int settings_set_str(const char* key, const char* value);

LUMORA_EXTERN_C_END

#endif /* LUMORA_PLATFORM_H */
