/* An application written in C against the installed library: the umbrella
 * header must compile as C and the library must link with pkg-config's flags
 * alone. */
#include <lumora/lumora-api.h>
#include <stdio.h>

int main(void) {
    LMF_INIT_RESULT result = LMF_INIT_SERVICE_NOT_READY;
    LMF_SRC_TYPE source = LMF_SRC_ALL;
    if (result != 2 || source != 2 || LMF_INIT_OK != 0 || LMF_INIT_CONNECTION_FAILED != 1) {
        fprintf(stderr, "enumeration values differ\n");
        return 1;
    }
    /* The publisher's exports link from C; stopping nothing is refused. */
    LumoraDIPCHandle* handle = NULL;
    if (Lumora_DIPC_Stop(&handle)) {
        fprintf(stderr, "Lumora_DIPC_Stop accepted a null handle\n");
        return 1;
    }
    puts("c consumer ok");
    return 0;
}
