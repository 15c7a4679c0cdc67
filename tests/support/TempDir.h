// A temporary folder removed with everything in it when the object goes.
#ifndef LUMORA_TESTS_TEMPDIR_H
#define LUMORA_TESTS_TEMPDIR_H

#include <string>

namespace lumora::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }
    /// Writes content to name inside the folder and returns the full path.
    std::string Write(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
};

/// Sets an environment variable for the life of the object, then restores it.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string m_name;
    std::string m_previous;
    bool m_hadPrevious;
};

}  // namespace lumora::test

#endif
