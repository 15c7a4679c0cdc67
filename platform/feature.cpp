// Off-target feature flags: "key=true" / "key=false" lines in a small file.
#include <lumora/lumora-platform.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "PlatformLog.h"

namespace {

constexpr const char* kDefaultFeatureFile = "/etc/lumora/features.conf";

struct DefaultFlag {
    const char* key;
    bool value;
};

// What a device without a feature file answers.
constexpr DefaultFlag kDefaults[] = {
    {"com.kaldor/featureconf/lumora.service_enable", true},
};

const char* FeatureFilePath() {
    const char* path = getenv("LUMORA_FEATURE_FILE");
    return (path != nullptr && *path != '\0') ? path : kDefaultFeatureFile;
}

int DefaultValue(const char* key, bool* value) {
    for (const DefaultFlag& flag : kDefaults) {
        if (strcmp(flag.key, key) == 0) {
            *value = flag.value;
            return 0;
        }
    }
    return 1;
}

std::string Trim(const std::string& text) {
    const char* blanks = " \t\r";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return std::string();
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

enum class ReadResult { kOk, kMissing, kUnreadable };

ReadResult ReadWholeFile(const char* path, std::string& out) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return ReadResult::kMissing;
        PLATFORM_LOGE("feature file %s cannot be read: %s", path, strerror(errno));
        return ReadResult::kUnreadable;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        PLATFORM_LOGE("feature file %s cannot be read: not a regular file", path);
        close(fd);
        return ReadResult::kUnreadable;
    }
    char buffer[4096];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            PLATFORM_LOGE("feature file %s cannot be read: %s", path, strerror(errno));
            close(fd);
            return ReadResult::kUnreadable;
        }
        out.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return ReadResult::kOk;
}

// Finds the value text of key; a later line for the same key overrides an
// earlier one, as in most configuration files.
bool FindRawValue(const std::string& content, const char* key, std::string& raw) {
    bool found = false;
    size_t start = 0;
    while (start <= content.size()) {
        size_t end = content.find('\n', start);
        if (end == std::string::npos) end = content.size();
        std::string line = content.substr(start, end - start);
        start = end + 1;
        size_t hash = line.find('#');
        if (hash != std::string::npos) line.erase(hash);
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        if (Trim(line.substr(0, eq)) == key) {
            raw = Trim(line.substr(eq + 1));
            found = true;
        }
    }
    return found;
}

}  // namespace

extern "C" int feature_get_custom_bool(const char* key, bool* value) {
    if (key == nullptr || value == nullptr) {
        PLATFORM_LOGE("feature_get_custom_bool: null %s", key == nullptr ? "key" : "value pointer");
        return -1;
    }
    const char* path = FeatureFilePath();
    std::string content;
    switch (ReadWholeFile(path, content)) {
        case ReadResult::kMissing:
            return DefaultValue(key, value);
        case ReadResult::kUnreadable:
            return -1;
        case ReadResult::kOk:
            break;
    }
    std::string raw;
    if (!FindRawValue(content, key, raw)) return 1;
    if (raw == "true" || raw == "false") {
        *value = (raw == "true");
        return 0;
    }
    PLATFORM_LOGE("feature file %s: %s has value \"%s\", expected true or false", path, key, raw.c_str());
    return 1;
}
