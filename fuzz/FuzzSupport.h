// Helpers shared by the fuzz targets: the invariant check, UTF-8 tests, the
// splitting of an input into C strings, and a private scratch folder.
#ifndef LUMORA_FUZZ_FUZZSUPPORT_H
#define LUMORA_FUZZ_FUZZSUPPORT_H

#include <glib.h>
#include <glib/gstdio.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace fuzz {

// An invariant that does not hold is a finding: stop at once, so that
// libFuzzer keeps the input.
inline void Check(bool condition) {
    if (!condition) __builtin_trap();
}

inline bool IsUtf8(const std::string& text) {
    return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

inline bool IsUtf8(const char* text) { return text != nullptr && g_utf8_validate(text, -1, nullptr); }

// A value of any type read from "TYPE\0BYTES": a definite type string, then
// its serialised data, taken as untrusted (GLib checks it as it reads). A new
// reference, or null when the type is not a definite one.
inline GVariant* UntrustedVariant(const char* input, size_t size) {
    const void* nul = memchr(input, '\0', size);
    if (nul == nullptr) return nullptr;
    std::string typeString(input, static_cast<size_t>(static_cast<const char*>(nul) - input));
    if (!g_variant_type_string_is_valid(typeString.c_str())) return nullptr;
    const GVariantType* type = G_VARIANT_TYPE(typeString.c_str());
    if (!g_variant_type_is_definite(type)) return nullptr;
    size_t bodySize = size - typeString.size() - 1;
    void* bytes = g_memdup2(static_cast<const char*>(nul) + 1, bodySize);
    return g_variant_ref_sink(g_variant_new_from_data(type, bytes, bodySize, FALSE /* not trusted */, g_free, bytes));
}

// The input as the C strings it holds, NUL-separated; the last one runs to the
// end of the input. Always at least `count` strings (missing ones are empty).
inline std::vector<std::string> SplitAtNul(const uint8_t* data, size_t size, size_t count) {
    std::vector<std::string> parts;
    const char* text = reinterpret_cast<const char*>(data);
    size_t start = 0;
    while (parts.size() + 1 < count) {
        const void* nul = memchr(text + start, '\0', size - start);
        if (nul == nullptr) break;
        size_t end = static_cast<size_t>(static_cast<const char*>(nul) - text);
        parts.emplace_back(text + start, end - start);
        start = end + 1;
    }
    // The rest, itself cut at a NUL: every part is handed on as a C string.
    std::string rest(text + start, size - start);
    rest.resize(strnlen(rest.c_str(), rest.size()));
    parts.push_back(rest);
    while (parts.size() < count) parts.emplace_back();
    return parts;
}

// A folder of this process for the run's files, on tmpfs when there is one
// (the settings store syncs every write), removed with its files at exit.
inline const std::string& ScratchFolder() {
    static const std::string folder = [] {
        std::string base = "/dev/shm";
        if (access(base.c_str(), W_OK) != 0) base = g_get_tmp_dir();
        std::string pattern = base + "/lumora-fuzz-XXXXXX";
        std::vector<char> path(pattern.begin(), pattern.end());
        path.push_back('\0');
        if (g_mkdtemp(path.data()) == nullptr) abort();
        std::string made(path.data());
        static std::string removed = made;
        atexit([] {
            GDir* dir = g_dir_open(removed.c_str(), 0, nullptr);
            if (dir != nullptr) {
                while (const gchar* name = g_dir_read_name(dir)) {
                    std::string file = removed + "/" + name;
                    g_remove(file.c_str());
                }
                g_dir_close(dir);
            }
            g_rmdir(removed.c_str());
        });
        return made;
    }();
    return folder;
}

// Writes size bytes of data to path whole, as a file the loader under test
// reads as the tool would; returns them as text.
inline std::string WriteScratchFile(const std::string& path, const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    FILE* file = fopen(path.c_str(), "wb");
    Check(file != nullptr);
    Check(fwrite(text.data(), 1, text.size(), file) == text.size());
    Check(fclose(file) == 0);
    return text;
}

}  // namespace fuzz

#endif  // LUMORA_FUZZ_FUZZSUPPORT_H
