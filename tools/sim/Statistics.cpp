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

Json::Value ElementJson(GVariant* element) {
    if (g_variant_is_of_type(element, G_VARIANT_TYPE_UINT32)) return Json::Value(Json::UInt(g_variant_get_uint32(element)));
    if (g_variant_is_of_type(element, G_VARIANT_TYPE_INT32)) return Json::Value(Json::Int(g_variant_get_int32(element)));
    return Json::Value(g_variant_get_string(element, nullptr));
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

bool StatisticsTuples(const lumora::contract::StatisticsKind& kind, GVariant* array, Json::Value& tuples) {
    if (array == nullptr || !g_variant_is_of_type(array, G_VARIANT_TYPE(kind.arraySignature))) return false;
    Json::Value result(Json::arrayValue);
    const gsize count = g_variant_n_children(array);
    for (gsize i = 0; i < count; ++i) {
        GVariant* tuple = g_variant_get_child_value(array, i);
        Json::Value& elements = result.append(Json::Value(Json::arrayValue));
        const gsize width = g_variant_n_children(tuple);
        for (gsize j = 0; j < width; ++j) {
            GVariant* element = g_variant_get_child_value(tuple, j);
            elements.append(ElementJson(element));
            g_variant_unref(element);
        }
        g_variant_unref(tuple);
    }
    tuples = std::move(result);
    return true;
}

}  // namespace lumora::sim
