// Fuzzes the decoding of the five statistics replies: the bytes after the
// first are taken, untrusted, as the serialised payload of one of the five
// array types, and decoded for a subject; the records must be exactly those
// the payload holds, and freeing them must release everything.
//
// First byte b: payload type = the statistics kind b % 5; subject by
// (b / 5) % 8: 0-2 the same kind, 3-6 each of the four other kinds, 7 a
// subject that is none of them (or null, by the next bit).
#include <lumora/DBusClient.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "FuzzSupport.h"
#include "StatisticsCheck.h"

using fuzz::Check;
using fuzz::kStatisticsLayouts;

namespace {

const char* PickSubject(uint8_t selector, int type) {
    int choice = (selector / 5) % 8;
    if (choice <= 2) return kStatisticsLayouts[type].subject;
    if (choice <= 6) return kStatisticsLayouts[(type + choice - 2) % 5].subject;
    return (selector / 40) % 2 == 0 ? "I/TallyDB/Other/Duration" : nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("LUMORA_LOG_LEVEL", "none", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    int type = data[0] % 5;
    const char* subject = PickSubject(data[0], type);

    // A copy of our own: GVariant may keep the bytes as they are.
    size_t payloadSize = size - 1;
    void* bytes = g_memdup2(data + 1, payloadSize);
    GVariant* payload =
        g_variant_ref_sink(g_variant_new_from_data(G_VARIANT_TYPE(kStatisticsLayouts[type].signature), bytes,
                                                   payloadSize, FALSE /* not trusted */, g_free, bytes));

    DBusClient* client = DBusClient::GetInstance();
    StatisticsResult result = {-1, reinterpret_cast<void*>(1)};  // must be overwritten
    client->__ResponseDataParsing(subject, payload, result);
    fuzz::CheckStatistics(subject, payload, result, payloadSize);
    client->__DataFree(subject, result);
    Check(result.count == 0 && result.items == nullptr);

    // The normal form of the same payload gives the same records.
    GVariant* normal = g_variant_get_normal_form(payload);
    client->__ResponseDataParsing(subject, normal, result);
    fuzz::CheckStatistics(subject, normal, result, 0);
    client->__DataFree(subject, result);
    g_variant_unref(normal);

    // No payload at all decodes to nothing.
    client->__ResponseDataParsing(subject, nullptr, result);
    Check(result.count == 0 && result.items == nullptr);

    g_variant_unref(payload);
    return 0;
}
