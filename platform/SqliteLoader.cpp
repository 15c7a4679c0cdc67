#include "SqliteLoader.h"

#include <dlfcn.h>

#include <mutex>
#include <string>

#include "PlatformLog.h"

namespace lumora::platform {

namespace {

struct Loaded {
    SqliteApi api{};
    bool ok = false;
    std::string error;
};

template <typename Fn>
bool Bind(void* handle, const char* name, Fn& fn, std::string& error) {
    fn = reinterpret_cast<Fn>(dlsym(handle, name));
    if (fn == nullptr) error = std::string("no symbol ") + name;
    return fn != nullptr;
}

void Load(Loaded& loaded) {
    // Kept for the life of the process, never closed.
    void* handle = dlopen(LUMORA_SQLITE_SONAME, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* why = dlerror();
        loaded.error = why != nullptr ? why : "unknown error";
        return;
    }
    SqliteApi& api = loaded.api;
    std::string& error = loaded.error;
    loaded.ok = Bind(handle, "sqlite3_open_v2", api.open_v2, error) &&
                Bind(handle, "sqlite3_close_v2", api.close_v2, error) &&
                Bind(handle, "sqlite3_busy_timeout", api.busy_timeout, error) &&
                Bind(handle, "sqlite3_exec", api.exec, error) &&
                Bind(handle, "sqlite3_prepare_v2", api.prepare_v2, error) &&
                Bind(handle, "sqlite3_bind_text", api.bind_text, error) &&
                Bind(handle, "sqlite3_step", api.step, error) &&
                Bind(handle, "sqlite3_column_text", api.column_text, error) &&
                Bind(handle, "sqlite3_finalize", api.finalize, error) &&
                Bind(handle, "sqlite3_errmsg", api.errmsg, error) &&
                Bind(handle, "sqlite3_errstr", api.errstr, error);
}

}  // namespace

const SqliteApi* Sqlite() {
    static Loaded loaded;
    static std::once_flag once;
    std::call_once(once, [] { Load(loaded); });
    if (loaded.ok) return &loaded.api;
    PLATFORM_LOGE("settings: cannot load %s: %s", LUMORA_SQLITE_SONAME, loaded.error.c_str());
    return nullptr;
}

}  // namespace lumora::platform
