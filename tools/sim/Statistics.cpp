// Statistics arrays: one GVariant tuple per scenario tuple, in wire order.
#include "Statistics.h"

#include <cstring>
#include <vector>

#include "JsonInput.h"

namespace lumora::sim {

namespace {

// The tuples passed CheckStatistics; the reads fall back all the same, since
// this runs in the service's GDBus handlers, where nothing may throw.
GVariant* BuildElement(char type, const tools::JsonField& element) {
    switch (type) {
        case 'u':
            return g_variant_new_uint32(static_cast<guint32>(element.IntOr(0)));
        case 'i':
            return g_variant_new_int32(static_cast<gint32>(element.IntOr(0)));
        default:
            return g_variant_new_string(element.TextOr("").c_str());
    }
}

GVariant* BuildTuple(const std::string& types, const tools::JsonField& tuple) {
    std::vector<GVariant*> children;
    for (size_t i = 0; i < types.size(); ++i) {
        children.push_back(BuildElement(types[i], tuple[static_cast<Json::ArrayIndex>(i)]));
    }
    return g_variant_new_tuple(children.data(), children.size());
}

}  // namespace

const lumora::contract::StatisticsKind* FindStatisticsKind(const std::string& subject) {
    for (const auto& kind : lumora::contract::kStatisticsKinds) {
        if (subject == kind.subject) return &kind;
    }
    return nullptr;
}

std::string TupleTypes(const lumora::contract::StatisticsKind& kind) {
    // "a(" ... ")"
    return std::string(kind.arraySignature + 2, strlen(kind.arraySignature) - 3);
}

GVariant* BuildStatisticsArray(const lumora::contract::StatisticsKind& kind, const Json::Value& tuples) {
    const std::string types = TupleTypes(kind);
    std::vector<GVariant*> items;
    const tools::JsonField array(tuples);
    for (Json::ArrayIndex i = 0; i < array.Size(); ++i) items.push_back(BuildTuple(types, array[i]));
    // The element type is given so that an empty array still has the subject's signature.
    const GVariantType* elementType = G_VARIANT_TYPE(kind.arraySignature + 1);
    return g_variant_new_array(elementType, items.data(), items.size());
}

}  // namespace lumora::sim
