/* Sizes and field offsets of the statistics records, as record_layout.c (a C
 * application built with a 64-bit time_t) computes them. */
#ifndef LUMORA_TESTS_RECORD_LAYOUT_H
#define LUMORA_TESTS_RECORD_LAYOUT_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct LumoraRecordLayout {
    const char* name;
    size_t size;
    size_t fields;
    size_t offsets[11];
};

extern const struct LumoraRecordLayout kLumoraCRecordLayout[];
extern const size_t kLumoraCRecordLayoutCount;

#ifdef __cplusplus
}
#endif

#endif
