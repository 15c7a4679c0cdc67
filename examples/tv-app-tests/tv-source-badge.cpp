// tv-source-badge: prints the badge of the source the television shows now.
// Exits 0, or 1 when the context service could not be reached.
#include <lumora/lumora-api.h>

#include <cstdio>

#include "source_badge.h"

int main() {
    if (!Lumora_InitService()) {
        fprintf(stderr, "tv-source-badge: the context service is not available\n");
        return 1;
    }
    printf("%s\n", SourceBadge().c_str());
    Lumora_FiniService();
    return 0;
}
