/* An application's process inside the command of `lumora-sim run`: starts
 * the library, reads each subject named on its command line and prints
 * "SUBJECT=VALUE". Exits non-zero when the service did not start or a read
 * gave nothing. */
#include <lumora/lumora-api.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
    if (!Lumora_InitService()) {
        fprintf(stderr, "run_client: the service did not start\n");
        return 1;
    }
    int failed = 0;
    for (int i = 1; i < argc; ++i) {
        char* value = Lumora_Read(argv[i], "");
        if (value == NULL) {
            fprintf(stderr, "run_client: no value of %s\n", argv[i]);
            failed = 1;
            continue;
        }
        printf("%s=%s\n", argv[i], value);
        free(value);
    }
    Lumora_FiniService();
    return failed;
}
