#include "TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace lumora::test {

TempDir::TempDir() {
    char name[] = "/tmp/lumora-test-XXXXXX";
    if (mkdtemp(name) != nullptr) m_path = name;
}

TempDir::~TempDir() {
    std::error_code ignored;
    if (!m_path.empty()) std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::Write(const std::string& name, const std::string& content) const {
    std::string path = File(name);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    return path;
}

ScopedEnv::ScopedEnv(const char* name, const std::string& value) : m_name(name) {
    const char* previous = getenv(name);
    m_hadPrevious = previous != nullptr;
    if (previous != nullptr) m_previous = previous;
    setenv(name, value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
    if (m_hadPrevious) {
        setenv(m_name.c_str(), m_previous.c_str(), 1);
    } else {
        unsetenv(m_name.c_str());
    }
}

}  // namespace lumora::test
