// Fuzzes the text that CS_ReorderChannelList takes: any text is parsed and
// turned into candidates. No service is started here, so every call must end
// in NULL, whatever the input, once the request would go out.
#include <lumora/lumora-c.h>

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("LUMORA_LOG_LEVEL", "none", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The function takes a C string: the text ends at the first NUL.
    std::string text(reinterpret_cast<const char*>(data), size);
    text.resize(text.find('\0') == std::string::npos ? text.size() : text.find('\0'));
    int source = size > 0 ? static_cast<int>(data[size - 1] % 4) : LMF_SRC_ALL;

    char* order = CS_ReorderChannelList(text.c_str(), source);
    if (order != nullptr) {
        free(order);
        __builtin_trap();  // an answer without a service
    }
    return 0;
}
