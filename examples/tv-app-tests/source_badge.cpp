// The source badge: one read of the current source, through the library.
#include "source_badge.h"

#include <lumora/lumora-api.h>

#include <cstdlib>

std::string BadgeText(const char* sourceJson) {
    ContextData source;
    if (sourceJson == nullptr || !source.MakeData(sourceJson)) return "no signal";
    std::string label = source.GetValueStr("Label");
    if (label.empty()) label = source.GetValueStr("Source");
    return label.empty() ? "no signal" : label;
}

std::string SourceBadge() {
    char* source = Lumora_ReadCurrentSourceInfo("");
    std::string badge = BadgeText(source);
    free(source);  // the library's copy, ours to free
    return badge;
}
