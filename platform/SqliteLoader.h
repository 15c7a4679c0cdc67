// SQLite, loaded when the settings store is first used rather than when a
// program starts: most programs that link the platform library never touch
// the store, and SQLite binds its ~1,600 symbols eagerly at load.
#ifndef LUMORA_PLATFORM_SQLITELOADER_H
#define LUMORA_PLATFORM_SQLITELOADER_H

#include <sqlite3.h>

namespace lumora::platform {

struct SqliteApi {
    decltype(&sqlite3_open_v2) open_v2;
    decltype(&sqlite3_close_v2) close_v2;
    decltype(&sqlite3_busy_timeout) busy_timeout;
    decltype(&sqlite3_exec) exec;
    decltype(&sqlite3_prepare_v2) prepare_v2;
    decltype(&sqlite3_bind_text) bind_text;
    decltype(&sqlite3_step) step;
    decltype(&sqlite3_column_text) column_text;
    decltype(&sqlite3_finalize) finalize;
    decltype(&sqlite3_errmsg) errmsg;
    decltype(&sqlite3_errstr) errstr;
};

// The loaded functions, or null (with one log line per call) when SQLite
// cannot be loaded. Thread-safe; the library is loaded once per process.
const SqliteApi* Sqlite();

}  // namespace lumora::platform

#endif
