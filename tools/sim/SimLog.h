// The simulator's records in the platform log, under a tag of its own.
#ifndef LUMORA_SIM_SIMLOG_H
#define LUMORA_SIM_SIMLOG_H

#include <lumora/lumora-platform.h>

#define LUMORA_SIM_TAG "LUMORA_SIM"
#define SIM_LOGD(fmt, ...) log_print(LUMORA_PRIO_DEBUG, LUMORA_SIM_TAG, fmt, ##__VA_ARGS__)
#define SIM_LOGI(fmt, ...) log_print(LUMORA_PRIO_INFO, LUMORA_SIM_TAG, fmt, ##__VA_ARGS__)
#define SIM_LOGW(fmt, ...) log_print(LUMORA_PRIO_WARN, LUMORA_SIM_TAG, fmt, ##__VA_ARGS__)
#define SIM_LOGE(fmt, ...) log_print(LUMORA_PRIO_ERROR, LUMORA_SIM_TAG, fmt, ##__VA_ARGS__)

#endif  // LUMORA_SIM_SIMLOG_H
