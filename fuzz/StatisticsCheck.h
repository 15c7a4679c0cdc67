// The records that __ResponseDataParsing must make of a statistics payload,
// worked out here on their own from the record types' documented element
// numbers, and compared field by field with what the library made.
#ifndef LUMORA_FUZZ_STATISTICSCHECK_H
#define LUMORA_FUZZ_STATISTICSCHECK_H

#include <gio/gio.h>
#include <lumora/lumora-c.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "FuzzSupport.h"

namespace fuzz {

// One field of a record: its type on the wire, where it sits in the record,
// and which element of the tuple (counted from 0) fills it.
struct Field {
    char wire;  // 'u', 'i' or 's'
    size_t offset;
    int element;
};

struct StatisticsLayout {
    const char* subject;
    const char* signature;
    size_t recordSize;
    size_t smallestRecord;  // bytes that one serialised tuple takes at least
    const Field* fields;
    size_t fieldCount;
};

#define LUMORA_FIELD(type, wire, field, element) \
    { wire, offsetof(type, field), (element)-1 }
constexpr Field kOnoffFields[] = {
    LUMORA_FIELD(OnoffDurationItem, 'u', field1, 1),
    LUMORA_FIELD(OnoffDurationItem, 'u', field2, 2),
};
constexpr Field kAppFields[] = {
    LUMORA_FIELD(AppDurationItem, 'u', field1, 1), LUMORA_FIELD(AppDurationItem, 'u', field2, 2),
    LUMORA_FIELD(AppDurationItem, 's', field3, 4), LUMORA_FIELD(AppDurationItem, 's', field4, 3),
    LUMORA_FIELD(AppDurationItem, 'i', field5, 6), LUMORA_FIELD(AppDurationItem, 's', field6, 5),
};
constexpr Field kChannelFields[] = {
    LUMORA_FIELD(ChannelDurationItem, 'u', field1, 1), LUMORA_FIELD(ChannelDurationItem, 'u', field2, 2),
    LUMORA_FIELD(ChannelDurationItem, 's', field3, 5), LUMORA_FIELD(ChannelDurationItem, 'i', field4, 3),
    LUMORA_FIELD(ChannelDurationItem, 'i', field5, 4), LUMORA_FIELD(ChannelDurationItem, 's', field6, 6),
    LUMORA_FIELD(ChannelDurationItem, 's', field7, 7),
};
constexpr Field kGenreFields[] = {
    LUMORA_FIELD(GenreDurationItem, 'u', field1, 1),
    LUMORA_FIELD(GenreDurationItem, 'u', field2, 2),
    LUMORA_FIELD(GenreDurationItem, 's', field3, 3),
    LUMORA_FIELD(GenreDurationItem, 's', field4, 4),
};
constexpr Field kContentFields[] = {
    LUMORA_FIELD(ContentDurationItem, 'u', field1, 1),  LUMORA_FIELD(ContentDurationItem, 'u', field2, 2),
    LUMORA_FIELD(ContentDurationItem, 's', field3, 6),  LUMORA_FIELD(ContentDurationItem, 's', field4, 5),
    LUMORA_FIELD(ContentDurationItem, 's', field5, 3),  LUMORA_FIELD(ContentDurationItem, 's', field6, 4),
    LUMORA_FIELD(ContentDurationItem, 's', field7, 7),  LUMORA_FIELD(ContentDurationItem, 's', field8, 11),
    LUMORA_FIELD(ContentDurationItem, 's', field9, 10), LUMORA_FIELD(ContentDurationItem, 'i', field10, 8),
    LUMORA_FIELD(ContentDurationItem, 'i', field11, 9),
};
#undef LUMORA_FIELD

// The five subjects with their payload signatures, as lumora-c.h lists them.
// A tuple of strings takes at least one byte (its NUL) per string; an array
// of variable-sized tuples adds at least one offset byte per tuple.
constexpr StatisticsLayout kStatisticsLayouts[] = {
    {"I/TallyDB/Onoff/Duration", "a(uu)", sizeof(OnoffDurationItem), 8, kOnoffFields, 2},
    {"I/TallyDB/App/Duration", "a(uusssi)", sizeof(AppDurationItem), 1, kAppFields, 6},
    {"I/TallyDB/Channel/Duration", "a(uuiisss)", sizeof(ChannelDurationItem), 1, kChannelFields, 7},
    {"I/TallyDB/Genre/Duration", "a(uuss)", sizeof(GenreDurationItem), 1, kGenreFields, 4},
    {"I/TallyDB/Content/Duration", "a(uusssssiiss)", sizeof(ContentDurationItem), 1, kContentFields, 11},
};

inline const StatisticsLayout* FindStatisticsLayout(const char* subject) {
    if (subject == nullptr) return nullptr;
    for (const StatisticsLayout& layout : kStatisticsLayouts) {
        if (strcmp(layout.subject, subject) == 0) return &layout;
    }
    return nullptr;
}

inline void CheckField(const Field& field, GVariant* tuple, const char* record) {
    GVariant* element = g_variant_get_child_value(tuple, static_cast<gsize>(field.element));
    const char* at = record + field.offset;
    switch (field.wire) {
        case 'u': {
            int64_t stored = 0;
            memcpy(&stored, at, sizeof stored);
            // Kept as a signed 32-bit value widened to 64 bits.
            Check(stored == static_cast<int64_t>(static_cast<int32_t>(g_variant_get_uint32(element))));
            break;
        }
        case 'i': {
            int32_t stored = 0;
            memcpy(&stored, at, sizeof stored);
            Check(stored == g_variant_get_int32(element));
            break;
        }
        default: {
            const char* stored = nullptr;
            memcpy(&stored, at, sizeof stored);
            Check(stored != nullptr);
            Check(strcmp(stored, g_variant_get_string(element, nullptr)) == 0);
            Check(IsUtf8(stored));
            break;
        }
    }
    g_variant_unref(element);
}

// Checks what __ResponseDataParsing made of payload for subject (payload may
// be null). payloadBytes bounds the number of records it can hold; pass 0
// when unknown.
inline void CheckStatistics(const char* subject, GVariant* payload, const StatisticsResult& result,
                            size_t payloadBytes) {
    const StatisticsLayout* layout = FindStatisticsLayout(subject);
    if (layout == nullptr || payload == nullptr || !g_variant_is_of_type(payload, G_VARIANT_TYPE(layout->signature))) {
        Check(result.count == 0 && result.items == nullptr);
        return;
    }
    // The records are read back from the normal form, which is what any
    // reader of the untrusted bytes must see.
    GVariant* normal = g_variant_get_normal_form(payload);
    gsize count = g_variant_n_children(normal);
    Check(result.count >= 0 && static_cast<gsize>(result.count) == count);
    if (payloadBytes > 0) Check(count * layout->smallestRecord <= payloadBytes);
    if (count == 0) {
        Check(result.items == nullptr);
    } else {
        Check(result.items != nullptr);  // calloc of a few records does not fail here
        for (gsize i = 0; i < count; ++i) {
            GVariant* tuple = g_variant_get_child_value(normal, i);
            const char* record = static_cast<const char*>(result.items) + i * layout->recordSize;
            for (size_t f = 0; f < layout->fieldCount; ++f) CheckField(layout->fields[f], tuple, record);
            g_variant_unref(tuple);
        }
    }
    g_variant_unref(normal);
}

}  // namespace fuzz

#endif  // LUMORA_FUZZ_STATISTICSCHECK_H
