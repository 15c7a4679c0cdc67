// The library's log lines: tag "LMF_API" and the prefix
// "<source file>: <function>(<line>) > " before the event's own text.
#ifndef LUMORA_INTERNAL_LOG_H
#define LUMORA_INTERNAL_LOG_H

#include <lumora/lumora-platform.h>

namespace lumora::internal {

constexpr const char* kLogTag = "LMF_API";

constexpr const char* BaseName(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') base = p + 1;
    }
    return base;
}

}  // namespace lumora::internal

#ifdef __FILE_NAME__
#define LMF_SOURCE_FILE __FILE_NAME__
#else
#define LMF_SOURCE_FILE ::lumora::internal::BaseName(__FILE__)
#endif

#define LMF_LOG_AT(prio, fmt, ...)                                                                    \
    ::log_print((prio), ::lumora::internal::kLogTag, "%s: %s(%d) > " fmt, LMF_SOURCE_FILE, __func__, \
                __LINE__, ##__VA_ARGS__)

#define LMF_LOGD(fmt, ...) LMF_LOG_AT(LUMORA_PRIO_DEBUG, fmt, ##__VA_ARGS__)
#define LMF_LOGI(fmt, ...) LMF_LOG_AT(LUMORA_PRIO_INFO, fmt, ##__VA_ARGS__)
#define LMF_LOGW(fmt, ...) LMF_LOG_AT(LUMORA_PRIO_WARN, fmt, ##__VA_ARGS__)
#define LMF_LOGE(fmt, ...) LMF_LOG_AT(LUMORA_PRIO_ERROR, fmt, ##__VA_ARGS__)

#endif  // LUMORA_INTERNAL_LOG_H
