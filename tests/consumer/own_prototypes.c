/* An application that declares the functions it uses itself, without the
 * library's headers, and links with `pkg-config --libs lumora-api` alone. */
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>

bool Is_LMFSupported(void);
char* Lumora_ReadCurrentSourceInfo(const char* input);
char* Lumora_ReadCurrentVideoStatus(void);
bool CS_SetSourceAndModel(int source, int model);
bool CS_GetSourceAndModel(int* source, int* model);
bool Lumora_FiniService(void);
typedef void (*AvailabilityCb)(int available, const char* reason, void* userData);
typedef void (*SubjectCb)(const char* subject, char* data, void* userData);
bool Lumora_AddAvailabilityCallback(AvailabilityCb callback, void* userData);
bool Lumora_RemoveAvailabilityCallback(AvailabilityCb callback, void* userData);
bool Lumora_SubscribeWithValue(const char* subject, SubjectCb callback, void* userData);

static void OnAvailability(int available, const char* reason, void* userData) {
    (void)available;
    (void)reason;
    (void)userData;
}

static void OnValue(const char* subject, char* data, void* userData) {
    (void)subject;
    (void)data;
    (void)userData;
}

int main(void) {
    int source = -1;
    int model = -1;
    if (!CS_GetSourceAndModel(&source, &model) || source != 2 || model != 2) return 1;
    if (!CS_SetSourceAndModel(0, 1) || !CS_GetSourceAndModel(&source, &model) || source != 0 || model != 1) return 2;
    /* Not started: nothing to read, nothing to stop. */
    char* value = Lumora_ReadCurrentSourceInfo(NULL);
    if (value != NULL) return 3;
    if (Lumora_ReadCurrentVideoStatus() != NULL || Lumora_FiniService()) return 4;
    if (Lumora_AddAvailabilityCallback(OnAvailability, NULL) || Lumora_RemoveAvailabilityCallback(OnAvailability, NULL))
        return 5;
    if (Lumora_SubscribeWithValue("Ctx/App/Info/Current", OnValue, NULL)) return 6;
    printf("own prototypes ok (service supported: %s)\n", Is_LMFSupported() ? "yes" : "no");
    return 0;
}
