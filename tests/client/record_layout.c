/* The statistics records as a C application sees them, built as one built
 * for a 64-bit time_t and file offsets on 32-bit ARM would be
 * (_TIME_BITS=64, _FILE_OFFSET_BITS=64; CMake sets them for this file): the
 * figures of lumora-c.h's layout table, checked when this file compiles, and
 * handed to RecordLayoutTest.cpp, which compares them with its own. */
#include "record_layout.h"

#include <lumora/lumora-api.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#if !defined(_TIME_BITS) || _TIME_BITS != 64
#error "this file stands for an application built with a 64-bit time_t"
#endif
_Static_assert(sizeof(time_t) == 8, "_TIME_BITS=64 gives a 64-bit time_t");

#if defined(__arm__) && !defined(__aarch64__)
/* 32-bit ARM, EABI: 4-byte pointers, int64_t aligned to 8. */
_Static_assert(sizeof(void*) == 4 && _Alignof(int64_t) == 8, "armhf data model");
_Static_assert(sizeof(StatisticsResult) == 8 && offsetof(StatisticsResult, items) == 4, "StatisticsResult");
_Static_assert(sizeof(AppDurationItem) == 32 && offsetof(AppDurationItem, field4) == 20 &&
                   offsetof(AppDurationItem, field5) == 24 && offsetof(AppDurationItem, field6) == 28,
               "AppDurationItem");
_Static_assert(sizeof(ChannelDurationItem) == 40 && offsetof(ChannelDurationItem, field4) == 20 &&
                   offsetof(ChannelDurationItem, field7) == 32,
               "ChannelDurationItem");
_Static_assert(sizeof(GenreDurationItem) == 24 && offsetof(GenreDurationItem, field4) == 20, "GenreDurationItem");
_Static_assert(sizeof(ContentDurationItem) == 56 && offsetof(ContentDurationItem, field9) == 40 &&
                   offsetof(ContentDurationItem, field10) == 44 && offsetof(ContentDurationItem, field11) == 48,
               "ContentDurationItem");
#elif UINTPTR_MAX == UINT64_MAX
/* 64-bit (LP64): 8-byte pointers. */
_Static_assert(sizeof(StatisticsResult) == 16 && offsetof(StatisticsResult, items) == 8, "StatisticsResult");
_Static_assert(sizeof(AppDurationItem) == 48 && offsetof(AppDurationItem, field4) == 24 &&
                   offsetof(AppDurationItem, field5) == 32 && offsetof(AppDurationItem, field6) == 40,
               "AppDurationItem");
_Static_assert(sizeof(ChannelDurationItem) == 48 && offsetof(ChannelDurationItem, field4) == 24 &&
                   offsetof(ChannelDurationItem, field7) == 40,
               "ChannelDurationItem");
_Static_assert(sizeof(GenreDurationItem) == 32 && offsetof(GenreDurationItem, field4) == 24, "GenreDurationItem");
_Static_assert(sizeof(ContentDurationItem) == 80 && offsetof(ContentDurationItem, field9) == 64 &&
                   offsetof(ContentDurationItem, field10) == 72 && offsetof(ContentDurationItem, field11) == 76,
               "ContentDurationItem");
#else
#error "lumora-c.h states the records' layout for 32-bit ARM and 64-bit platforms only"
#endif
_Static_assert(sizeof(OnoffDurationItem) == 16 && offsetof(OnoffDurationItem, field2) == 8, "OnoffDurationItem");

#define FIELD(type, field) offsetof(type, field)
const struct LumoraRecordLayout kLumoraCRecordLayout[] = {
    {"StatisticsResult", sizeof(StatisticsResult), 2, {FIELD(StatisticsResult, count), FIELD(StatisticsResult, items)}},
    {"OnoffDurationItem",
     sizeof(OnoffDurationItem),
     2,
     {FIELD(OnoffDurationItem, field1), FIELD(OnoffDurationItem, field2)}},
    {"AppDurationItem",
     sizeof(AppDurationItem),
     6,
     {FIELD(AppDurationItem, field1), FIELD(AppDurationItem, field2), FIELD(AppDurationItem, field3),
      FIELD(AppDurationItem, field4), FIELD(AppDurationItem, field5), FIELD(AppDurationItem, field6)}},
    {"ChannelDurationItem",
     sizeof(ChannelDurationItem),
     7,
     {FIELD(ChannelDurationItem, field1), FIELD(ChannelDurationItem, field2), FIELD(ChannelDurationItem, field3),
      FIELD(ChannelDurationItem, field4), FIELD(ChannelDurationItem, field5), FIELD(ChannelDurationItem, field6),
      FIELD(ChannelDurationItem, field7)}},
    {"GenreDurationItem",
     sizeof(GenreDurationItem),
     4,
     {FIELD(GenreDurationItem, field1), FIELD(GenreDurationItem, field2), FIELD(GenreDurationItem, field3),
      FIELD(GenreDurationItem, field4)}},
    {"ContentDurationItem",
     sizeof(ContentDurationItem),
     11,
     {FIELD(ContentDurationItem, field1), FIELD(ContentDurationItem, field2), FIELD(ContentDurationItem, field3),
      FIELD(ContentDurationItem, field4), FIELD(ContentDurationItem, field5), FIELD(ContentDurationItem, field6),
      FIELD(ContentDurationItem, field7), FIELD(ContentDurationItem, field8), FIELD(ContentDurationItem, field9),
      FIELD(ContentDurationItem, field10), FIELD(ContentDurationItem, field11)}},
};
const size_t kLumoraCRecordLayoutCount = sizeof kLumoraCRecordLayout / sizeof kLumoraCRecordLayout[0];
