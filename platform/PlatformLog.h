// The platform layer's own diagnostics, under one tag.
#ifndef LUMORA_PLATFORM_PLATFORMLOG_H
#define LUMORA_PLATFORM_PLATFORMLOG_H

#include <lumora/lumora-platform.h>

#define LUMORA_PLATFORM_TAG "LUMORA_PLATFORM"
#define PLATFORM_LOGE(fmt, ...) log_print(LUMORA_PRIO_ERROR, LUMORA_PLATFORM_TAG, fmt, ##__VA_ARGS__)

#endif
