// Emulator: target programs through LUMORA_TEST_EMULATOR, by a link named
// like each program.
#include "Emulator.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace lumora::test {

namespace {

// The machine this test program was built for, as ELF files name it.
constexpr uint16_t kOwnMachine =
#if defined(__aarch64__)
    EM_AARCH64;
#elif defined(__arm__)
    EM_ARM;
#elif defined(__x86_64__)
    EM_X86_64;
#elif defined(__i386__)
    EM_386;
#elif defined(__riscv)
    EM_RISCV;
#elif defined(__powerpc64__)
    EM_PPC64;
#else
#error "the ELF machine of this architecture is not known here"
#endif

// An ELF file of kOwnMachine: a program built for the target.
bool IsTargetProgram(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    unsigned char header[EI_NIDENT + 4] = {};
    ssize_t n = read(fd, header, sizeof header);
    close(fd);
    if (n != static_cast<ssize_t>(sizeof header) || memcmp(header, ELFMAG, SELFMAG) != 0) return false;
    // e_machine follows e_ident and e_type, in the file's byte order.
    unsigned low = header[EI_NIDENT + 2];
    unsigned high = header[EI_NIDENT + 3];
    unsigned machine = header[EI_DATA] == ELFDATA2MSB ? (low << 8 | high) : (high << 8 | low);
    return machine == kOwnMachine;
}

// A folder of this process's own for the links and scripts, removed when the
// process that made it ends (a forked child leaves it alone).
class LinkFolder {
public:
    ~LinkFolder() {
        if (!m_path.empty() && getpid() == m_owner) {
            std::error_code ignored;
            std::filesystem::remove_all(m_path, ignored);
        }
    }
    const std::string& Path() {
        if (m_path.empty()) {
            // Under /tmp unless LUMORA_TEST_LINK_DIR names a folder: a test
            // whose programs run with a /tmp of their own (lumora-sim run)
            // keeps its links where they can still reach them.
            const char* base = getenv("LUMORA_TEST_LINK_DIR");
            std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/lumora-emulated-XXXXXX";
            char* name = pattern.data();
            if (mkdtemp(name) == nullptr) {
                fprintf(stderr, "emulator: no folder for the links: %s\n", strerror(errno));
                abort();
            }
            // Tests run programs as another user too.
            chmod(name, 0755);
            m_path = name;
            m_owner = getpid();
        }
        return m_path;
    }

private:
    std::string m_path;
    pid_t m_owner = -1;
};

LinkFolder g_folder;

std::string BaseName(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The link to the emulator named like the program.
std::string EmulatorLink(const std::string& executable) {
    std::string link = g_folder.Path() + "/" + BaseName(executable);
    if (symlink(EmulatorCommand()[0].c_str(), link.c_str()) != 0 && errno != EEXIST) {
        fprintf(stderr, "emulator: no link %s: %s\n", link.c_str(), strerror(errno));
        abort();
    }
    return link;
}

std::string ShellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

}  // namespace

std::vector<char*> Launch::Argv() {
    std::vector<char*> pointers;
    for (std::string& arg : argv) pointers.push_back(arg.data());
    pointers.push_back(nullptr);
    return pointers;
}

const std::vector<std::string>& EmulatorCommand() {
    static const std::vector<std::string> command = [] {
        std::vector<std::string> words;
        const char* value = getenv("LUMORA_TEST_EMULATOR");
        std::istringstream stream(value != nullptr ? value : "");
        std::string word;
        while (stream >> word) words.push_back(word);
        return words;
    }();
    return command;
}

Launch LaunchOf(const std::string& executable, const std::vector<std::string>& args) {
    Launch launch;
    if (EmulatorCommand().empty() || !IsTargetProgram(executable)) {
        launch.file = executable;
        launch.argv.push_back(executable);
    } else {
        launch.file = EmulatorLink(executable);
        launch.argv.push_back(launch.file);
        launch.argv.insert(launch.argv.end(), EmulatorCommand().begin() + 1, EmulatorCommand().end());
        launch.argv.push_back(executable);
    }
    launch.argv.insert(launch.argv.end(), args.begin(), args.end());
    return launch;
}

std::string ShellProgram(const std::string& executable) {
    if (EmulatorCommand().empty() || !IsTargetProgram(executable)) return executable;
    std::string scripts = g_folder.Path() + "/path";
    mkdir(scripts.c_str(), 0755);
    Launch launch = LaunchOf(executable, {});
    std::string script = "#!/bin/sh\nexec";
    for (const std::string& word : launch.argv) script += " " + ShellQuoted(word);
    script += " \"$@\"\n";
    std::string path = scripts + "/" + BaseName(executable);
    std::ofstream(path) << script;
    chmod(path.c_str(), 0755);
    return path;
}

std::string ShellToolsPath(const std::string& toolsPath) {
    if (EmulatorCommand().empty()) return toolsPath;
    std::string scripts;
    std::istringstream folders(toolsPath);
    std::string folder;
    while (std::getline(folders, folder, ':')) {
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
            std::string program = entry.path().string();
            if (!entry.is_regular_file() || !IsTargetProgram(program)) continue;
            std::string script = ShellProgram(program);
            scripts = script.substr(0, script.rfind('/'));
        }
    }
    return scripts.empty() ? toolsPath : scripts;
}

}  // namespace lumora::test
