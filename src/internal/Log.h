// The library's log lines: tag "LMF_API" and the prefix
// "<source unit>: <function>(<line>) > " before the event's own text.
//
// The unit is the class's source file as a reader of the log knows it. A
// class split over several files names its first file: define LMF_LOG_UNIT
// (for example "DBusClient.cpp") before the first #include of such a file.
// Lines written from a helper or a lambda name the operation they belong to
// with LMF_LOGE_IN("OnResponseAsync", ...) and its siblings, since __func__
// would say "operator()" or the helper's own name.
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

#ifndef LMF_LOG_UNIT
#ifdef __FILE_NAME__
#define LMF_LOG_UNIT __FILE_NAME__
#else
#define LMF_LOG_UNIT ::lumora::internal::BaseName(__FILE__)
#endif
#endif

#define LMF_LOG_SITE(prio, unit, function, fmt, ...) \
    ::log_print((prio), ::lumora::internal::kLogTag, "%s: %s(%d) > " fmt, (unit), (function), __LINE__, ##__VA_ARGS__)

#define LMF_LOG_FULL(prio, function, fmt, ...) LMF_LOG_SITE(prio, LMF_LOG_UNIT, function, fmt, ##__VA_ARGS__)

#define LMF_LOG_AT(prio, fmt, ...) LMF_LOG_FULL(prio, __func__, fmt, ##__VA_ARGS__)

#define LMF_LOGD(fmt, ...) LMF_LOG_AT(LUMORA_PRIO_DEBUG, fmt, ##__VA_ARGS__)
#define LMF_LOGI(fmt, ...) LMF_LOG_AT(LUMORA_PRIO_INFO, fmt, ##__VA_ARGS__)
#define LMF_LOGW(fmt, ...) LMF_LOG_AT(LUMORA_PRIO_WARN, fmt, ##__VA_ARGS__)
#define LMF_LOGE(fmt, ...) LMF_LOG_AT(LUMORA_PRIO_ERROR, fmt, ##__VA_ARGS__)

// The same, for a line that belongs to the operation named by function.
#define LMF_LOGD_IN(function, fmt, ...) LMF_LOG_FULL(LUMORA_PRIO_DEBUG, function, fmt, ##__VA_ARGS__)
#define LMF_LOGI_IN(function, fmt, ...) LMF_LOG_FULL(LUMORA_PRIO_INFO, function, fmt, ##__VA_ARGS__)
#define LMF_LOGW_IN(function, fmt, ...) LMF_LOG_FULL(LUMORA_PRIO_WARN, function, fmt, ##__VA_ARGS__)
#define LMF_LOGE_IN(function, fmt, ...) LMF_LOG_FULL(LUMORA_PRIO_ERROR, function, fmt, ##__VA_ARGS__)

namespace lumora::internal {

// Where a line belongs, for a step shared by the operations of several
// classes: the unit and function of the operation it runs for.
struct LogSite {
    const char* unit;
    const char* function;
};

}  // namespace lumora::internal

// The site of function in this unit, and a line written for a site.
#define LMF_SITE(function) (::lumora::internal::LogSite{LMF_LOG_UNIT, (function)})
#define LMF_LOGE_FOR(site, fmt, ...) LMF_LOG_SITE(LUMORA_PRIO_ERROR, (site).unit, (site).function, fmt, ##__VA_ARGS__)

#endif  // LUMORA_INTERNAL_LOG_H
