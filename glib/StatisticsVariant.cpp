// The records of a statistics answer as a GVariant: one tuple per record,
// the fields in the order of the C header's record type. The two fields that
// travel as unsigned 32-bit values are given back as such: the C record
// holds them sign-extended from 32 bits, so their low 32 bits are the
// service's value.
#include <lumora/lumora-c.h>

#include <cstring>

#include "ClientInternal.h"
#include "internal/ServiceContract.h"

namespace {

guint32 Unsigned(int64_t field) { return static_cast<guint32>(field); }
const char* Text(const char* field) { return field != nullptr ? field : ""; }

void AddOnoff(GVariantBuilder* builder, const void* record) {
    const auto& item = *static_cast<const OnoffDurationItem*>(record);
    g_variant_builder_add(builder, "(uu)", Unsigned(item.field1), Unsigned(item.field2));
}

void AddApp(GVariantBuilder* builder, const void* record) {
    const auto& item = *static_cast<const AppDurationItem*>(record);
    g_variant_builder_add(builder, "(uussis)", Unsigned(item.field1), Unsigned(item.field2), Text(item.field3),
                          Text(item.field4), item.field5, Text(item.field6));
}

void AddChannel(GVariantBuilder* builder, const void* record) {
    const auto& item = *static_cast<const ChannelDurationItem*>(record);
    g_variant_builder_add(builder, "(uusiiss)", Unsigned(item.field1), Unsigned(item.field2), Text(item.field3),
                          item.field4, item.field5, Text(item.field6), Text(item.field7));
}

void AddGenre(GVariantBuilder* builder, const void* record) {
    const auto& item = *static_cast<const GenreDurationItem*>(record);
    g_variant_builder_add(builder, "(uuss)", Unsigned(item.field1), Unsigned(item.field2), Text(item.field3),
                          Text(item.field4));
}

void AddContent(GVariantBuilder* builder, const void* record) {
    const auto& item = *static_cast<const ContentDurationItem*>(record);
    g_variant_builder_add(builder, "(uusssssssii)", Unsigned(item.field1), Unsigned(item.field2), Text(item.field3),
                          Text(item.field4), Text(item.field5), Text(item.field6), Text(item.field7),
                          Text(item.field8), Text(item.field9), item.field10, item.field11);
}

struct RecordKind {
    const char* subject;
    const char* arrayType;
    size_t size;
    void (*add)(GVariantBuilder*, const void*);
};

// In the order of the service's list of statistics subjects.
const RecordKind kKinds[] = {
    {lumora::contract::kStatisticsKinds[0].subject, "a(uu)", sizeof(OnoffDurationItem), AddOnoff},
    {lumora::contract::kStatisticsKinds[1].subject, "a(uussis)", sizeof(AppDurationItem), AddApp},
    {lumora::contract::kStatisticsKinds[2].subject, "a(uusiiss)", sizeof(ChannelDurationItem), AddChannel},
    {lumora::contract::kStatisticsKinds[3].subject, "a(uuss)", sizeof(GenreDurationItem), AddGenre},
    {lumora::contract::kStatisticsKinds[4].subject, "a(uusssssssii)", sizeof(ContentDurationItem), AddContent},
};

}  // namespace

namespace lumora::glib {

GVariant* StatisticsVariant(const char* subject, const void* data) {
    for (const RecordKind& kind : kKinds) {
        if (strcmp(kind.subject, subject) != 0) continue;
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE(kind.arrayType));
        const auto* result = static_cast<const StatisticsResult*>(data);
        if (result != nullptr && result->items != nullptr) {
            const char* items = static_cast<const char*>(result->items);
            for (int32_t i = 0; i < result->count; ++i) kind.add(&builder, items + static_cast<size_t>(i) * kind.size);
        }
        return g_variant_builder_end(&builder);
    }
    return nullptr;
}

}  // namespace lumora::glib
