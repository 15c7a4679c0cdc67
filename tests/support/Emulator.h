// Programs of the target machine started from a test that itself runs under
// an emulator (a cross build's tests under qemu-user).
#ifndef LUMORA_TESTS_EMULATOR_H
#define LUMORA_TESTS_EMULATOR_H

#include <string>
#include <vector>

namespace lumora::test {

/// What execv is given to start a program: the file and the whole argv.
struct Launch {
    std::string file;
    std::vector<std::string> argv;  // argv[0] included

    /// argv as execv takes it; valid while this Launch lives.
    std::vector<char*> Argv();
};

/**
 * How to start executable with args. A cross build's tests run under the
 * emulator named by LUMORA_TEST_EMULATOR (CMake sets it on every test, from
 * CMAKE_CROSSCOMPILING_EMULATOR: the emulator's path, then its options,
 * separated by spaces), and nothing registered with the kernel runs a
 * program of the target: such a program (an ELF file of the machine this
 * test was built for: lumora-sim, lumora, the C programs) is started through
 * the emulator, while the build machine's own (dbus-daemon, sh, bash) and
 * scripts start as they are. Without the variable every program starts as
 * it is.
 *
 * Through the emulator, the file executed is a link to it named like the
 * program, in a folder of this process's own: the kernel names a process
 * after the file it executes (/proc/PID/comm), so the program keeps its
 * name where the service or the monitor reads it. The program itself sees
 * its own path as argv[0], as when started directly.
 *
 * Call it before fork(): it may create the link.
 */
Launch LaunchOf(const std::string& executable, const std::vector<std::string>& args);

/// The emulator's command words from LUMORA_TEST_EMULATOR; empty when the
/// tests do not run under one.
const std::vector<std::string>& EmulatorCommand();

/// What a shell of the build machine runs to start executable: executable
/// itself, or under an emulator a script of this process's own, named like
/// it, that starts it through the emulator (with the link LaunchOf uses).
std::string ShellProgram(const std::string& executable);

/// A PATH for a shell of the build machine in which the programs of the
/// folders in toolsPath (colon-separated) can be run by name: the folders
/// themselves without an emulator, else a folder of this process's own with
/// a script per program of theirs that runs it through the emulator.
std::string ShellToolsPath(const std::string& toolsPath);

}  // namespace lumora::test

#endif
