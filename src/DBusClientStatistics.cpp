// DBusClient: decoding of the five usage-statistics replies into plain records.
#define LMF_LOG_UNIT "DBusClient.cpp"
#include <lumora/DBusClient.h>

#include <cstdlib>
#include <cstring>

#include "internal/Log.h"
#include "internal/ServiceContract.h"

namespace {

// Unsigned wire values are kept as signed 32-bit values widened to 64 bits, so
// that 2^31 and more read negative, as applications have always seen them.
int64_t Widen(guint32 value) { return static_cast<int64_t>(static_cast<int32_t>(value)); }

char* Copy(const gchar* text) { return text != nullptr ? strdup(text) : nullptr; }

void FillOnoff(GVariant* tuple, void* record) {
    auto* item = static_cast<OnoffDurationItem*>(record);
    guint32 u1 = 0, u2 = 0;
    g_variant_get(tuple, "(uu)", &u1, &u2);
    item->field1 = Widen(u1);
    item->field2 = Widen(u2);
}

void FillApp(GVariant* tuple, void* record) {
    auto* item = static_cast<AppDurationItem*>(record);
    guint32 u1 = 0, u2 = 0;
    const gchar *s3 = nullptr, *s4 = nullptr, *s5 = nullptr;
    gint32 i6 = 0;
    g_variant_get(tuple, "(uu&s&s&si)", &u1, &u2, &s3, &s4, &s5, &i6);
    item->field1 = Widen(u1);
    item->field2 = Widen(u2);
    item->field3 = Copy(s4);
    item->field4 = Copy(s3);
    item->field5 = i6;
    item->field6 = Copy(s5);
}

void FillChannel(GVariant* tuple, void* record) {
    auto* item = static_cast<ChannelDurationItem*>(record);
    guint32 u1 = 0, u2 = 0;
    gint32 i3 = 0, i4 = 0;
    const gchar *s5 = nullptr, *s6 = nullptr, *s7 = nullptr;
    g_variant_get(tuple, "(uuii&s&s&s)", &u1, &u2, &i3, &i4, &s5, &s6, &s7);
    item->field1 = Widen(u1);
    item->field2 = Widen(u2);
    item->field3 = Copy(s5);
    item->field4 = i3;
    item->field5 = i4;
    item->field6 = Copy(s6);
    item->field7 = Copy(s7);
}

void FillGenre(GVariant* tuple, void* record) {
    auto* item = static_cast<GenreDurationItem*>(record);
    guint32 u1 = 0, u2 = 0;
    const gchar *s3 = nullptr, *s4 = nullptr;
    g_variant_get(tuple, "(uu&s&s)", &u1, &u2, &s3, &s4);
    item->field1 = Widen(u1);
    item->field2 = Widen(u2);
    item->field3 = Copy(s3);
    item->field4 = Copy(s4);
}

void FillContent(GVariant* tuple, void* record) {
    auto* item = static_cast<ContentDurationItem*>(record);
    guint32 u1 = 0, u2 = 0;
    const gchar *s3 = nullptr, *s4 = nullptr, *s5 = nullptr, *s6 = nullptr, *s7 = nullptr;
    gint32 i8 = 0, i9 = 0;
    const gchar *s10 = nullptr, *s11 = nullptr;
    g_variant_get(tuple, "(uu&s&s&s&s&sii&s&s)", &u1, &u2, &s3, &s4, &s5, &s6, &s7, &i8, &i9, &s10, &s11);
    item->field1 = Widen(u1);
    item->field2 = Widen(u2);
    item->field3 = Copy(s6);
    item->field4 = Copy(s5);
    item->field5 = Copy(s3);
    item->field6 = Copy(s4);
    item->field7 = Copy(s7);
    item->field8 = Copy(s11);
    item->field9 = Copy(s10);
    item->field10 = i8;
    item->field11 = i9;
}

void FreeOnoff(void*) {}

void FreeApp(void* record) {
    auto* item = static_cast<AppDurationItem*>(record);
    free(item->field3);
    free(item->field4);
    free(item->field6);
}

void FreeChannel(void* record) {
    auto* item = static_cast<ChannelDurationItem*>(record);
    free(item->field3);
    free(item->field6);
    free(item->field7);
}

void FreeGenre(void* record) {
    auto* item = static_cast<GenreDurationItem*>(record);
    free(item->field3);
    free(item->field4);
}

void FreeContent(void* record) {
    auto* item = static_cast<ContentDurationItem*>(record);
    for (char* text : {item->field3, item->field4, item->field5, item->field6, item->field7, item->field8,
                       item->field9})
        free(text);
}

struct RecordKind {
    const char* subject;
    const char* arraySignature;
    size_t size;
    void (*fill)(GVariant* tuple, void* record);
    void (*release)(void* record);
};

// In the order the subjects are tried; the signatures are the wire contract's.
const RecordKind kKinds[] = {
    {lumora::contract::kStatisticsKinds[0].subject, lumora::contract::kStatisticsKinds[0].arraySignature,
     sizeof(OnoffDurationItem), FillOnoff, FreeOnoff},
    {lumora::contract::kStatisticsKinds[1].subject, lumora::contract::kStatisticsKinds[1].arraySignature,
     sizeof(AppDurationItem), FillApp, FreeApp},
    {lumora::contract::kStatisticsKinds[2].subject, lumora::contract::kStatisticsKinds[2].arraySignature,
     sizeof(ChannelDurationItem), FillChannel, FreeChannel},
    {lumora::contract::kStatisticsKinds[3].subject, lumora::contract::kStatisticsKinds[3].arraySignature,
     sizeof(GenreDurationItem), FillGenre, FreeGenre},
    {lumora::contract::kStatisticsKinds[4].subject, lumora::contract::kStatisticsKinds[4].arraySignature,
     sizeof(ContentDurationItem), FillContent, FreeContent},
};

const RecordKind* KindOf(const char* subject) {
    if (subject == nullptr) return nullptr;
    for (const RecordKind& kind : kKinds) {
        if (strcmp(kind.subject, subject) == 0) return &kind;
    }
    return nullptr;
}

}  // namespace

void DBusClient::__ResponseDataParsing(const char* subject, GVariant* data, StatisticsResult& out) {
    out.count = 0;
    out.items = nullptr;
    const RecordKind* kind = KindOf(subject);
    // A payload of another type than the subject's array yields no records.
    if (kind == nullptr || data == nullptr || !g_variant_is_of_type(data, G_VARIANT_TYPE(kind->arraySignature)))
        return;
    int count = static_cast<int>(g_variant_n_children(data));
    LMF_LOGE("[R] NUM =%d", count);
    if (count == 0) {
        LMF_LOGE("num is null ..");
        return;
    }
    out.count = count;
    char* records = static_cast<char*>(calloc(static_cast<size_t>(count), kind->size));
    if (records == nullptr) {
        // The announced count stays: callers must test items.
        LMF_LOGE("Memory Allocation Fail !!!!!");
        return;
    }
    for (int i = 0; i < count; ++i) {
        GVariant* tuple = g_variant_get_child_value(data, static_cast<gsize>(i));
        kind->fill(tuple, records + static_cast<size_t>(i) * kind->size);
        g_variant_unref(tuple);
    }
    out.items = records;
}

void DBusClient::__DataFree(const char* subject, StatisticsResult& out) {
    if (out.count <= 0 || out.items == nullptr) return;
    if (subject == nullptr) {
        LMF_LOGE("Subject is NULL");
        return;
    }
    const RecordKind* kind = KindOf(subject);
    if (kind == nullptr) {
        LMF_LOGE("Subject %s", subject);
        return;
    }
    char* records = static_cast<char*>(out.items);
    for (int i = 0; i < out.count; ++i) kind->release(records + static_cast<size_t>(i) * kind->size);
    free(out.items);
    out.count = 0;
    out.items = nullptr;
}
