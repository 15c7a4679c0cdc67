// `lumora-sim run` as a developer or a CI job runs it: the real program
// starting a real dbus-daemon and simulator, with a shell command inside.
#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "BusCalls.h"
#include "ChildProcess.h"
#include "Emulator.h"
#include "LogCapture.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"
#include "internal/ServiceContract.h"

namespace lumora::test {
namespace {

namespace contract = lumora::contract;

constexpr int kRunTimeoutMs = 60000;
constexpr const char* kLockFile = "/tmp/lmf_service_ready.lock";
// The command holds still, in a shell, until the test sends it SIGUSR1: the
// trap is set first, before the command prints the line the test waits for.
constexpr const char* kTrapGo = "trap 'go=1' USR1; go=0; ";
constexpr const char* kWaitForGo = "while [ $go = 0 ]; do sleep 0.05; done";

std::string Folder(const std::string& path) { return path.substr(0, path.rfind('/')); }

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// NAME=VALUE lines, as env prints them.
std::map<std::string, std::string> Variables(const std::string& text) {
    std::map<std::string, std::string> variables;
    for (const std::string& line : Lines(text)) {
        size_t equals = line.find('=');
        if (equals != std::string::npos) variables[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return variables;
}

bool ProcessGone(pid_t pid) { return pid > 0 && kill(pid, 0) != 0 && errno == ESRCH; }

// The socket file an address "unix:path=FILE,guid=..." names.
std::string SocketPath(const std::string& address) {
    const std::string prefix = "unix:path=";
    if (address.rfind(prefix, 0) != 0) return "";
    return address.substr(prefix.size(), address.find(',') - prefix.size());
}

// The first line of an HTTP/1.1 GET of path from 127.0.0.1:port.
std::string HttpStatusLine(int port, const std::string& path) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        std::string request = "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                              "\r\nConnection: close\r\n\r\n";
        if (write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) answer = ReadToEnd(fd);
        fd = -1;  // ReadToEnd closed it
    }
    if (fd >= 0) close(fd);
    return answer.substr(0, answer.find("\r\n"));
}

// A TCP port of 127.0.0.1 that a listening socket of this test holds.
class HeldPort {
public:
    HeldPort() {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(m_fd, 1) == 0 &&
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            m_port = ntohs(address.sin_port);
    }
    ~HeldPort() { close(m_fd); }
    int Port() const { return m_port; }

private:
    int m_fd = -1;
    int m_port = 0;
};

class SimRunTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Links to an emulator stay reachable from a run's own /tmp.
        setenv("LUMORA_TEST_LINK_DIR", LUMORA_TEST_BINARY_DIR, 0);
        // The command's shell finds the built lumora and run_client by name.
        std::string tools = Folder(CliExecutable()) + ":" + Folder(LUMORA_RUN_CLIENT);
        m_path = std::make_unique<ScopedEnv>("PATH", ShellToolsPath(tools) + ":" + getenv("PATH"));
    }

    static std::vector<std::string> RunArgs(std::vector<std::string> options, const std::string& script) {
        options.insert(options.begin(), "run");
        options.insert(options.end(), {"--", "sh", "-c", script});
        return options;
    }
    static RunResult Run(const std::vector<std::string>& options, const std::string& script) {
        return SimProcess::Run(RunArgs(options, script), kRunTimeoutMs);
    }
    static bool Start(ChildProcess& run, const std::vector<std::string>& options, const std::string& script) {
        return run.Start(SimExecutable(), RunArgs(options, script));
    }
    /// Waits for the command's line "PID" (its shell's $$) and returns it.
    static pid_t CommandPid(ChildProcess& run) {
        std::string line;
        return run.ReadLine(line, kRunTimeoutMs) ? static_cast<pid_t>(std::stol(line)) : -1;
    }

    /// The pid a line of the run's log gives after marker ("dbus-daemon pid ",
    /// "simulator started (pid "), or -1.
    pid_t LoggedPid(const std::string& marker) const {
        for (const LogRecord& record : m_log.Records()) {
            size_t at = record.text.find(marker);
            if (record.tag == "LUMORA_SIM" && at != std::string::npos)
                return static_cast<pid_t>(std::stol(record.text.substr(at + marker.size())));
        }
        return -1;
    }
    bool Logged(const std::string& text) const {
        for (const LogRecord& record : m_log.Records()) {
            if (record.tag == "LUMORA_SIM" && record.text.find(text) != std::string::npos) return true;
        }
        return false;
    }
    /// Whether this machine gave the run a /tmp of its own (else the test
    /// of that path is skipped).
    bool RanInPrivateTmp() const { return Logged("run: a /tmp of its own"); }

    TempDir m_dir;
    LogCapture m_log;  // the run's and its simulator's lines
    std::unique_ptr<ScopedEnv> m_path;
};

TEST_F(SimRunTest, TheCommandsExitStatusIsTheRunsExitStatus) {
    RunResult ok = Run({}, "exit 0");
    EXPECT_EQ(0, ok.exitStatus) << ok.err;
    RunResult three = Run({}, "exit 3");
    EXPECT_EQ(3, three.exitStatus) << three.err;
    EXPECT_TRUE(Logged("run: command ended (exit status 3)"));
}

TEST_F(SimRunTest, ACommandEndedByASignalEndsTheRunWith128PlusTheSignal) {
    RunResult killed = Run({}, "kill -KILL $$");
    EXPECT_EQ(128 + SIGKILL, killed.exitStatus) << killed.err;
    RunResult terminated = Run({}, "kill -TERM $$");
    EXPECT_EQ(128 + SIGTERM, terminated.exitStatus) << terminated.err;
    EXPECT_TRUE(Logged("run: command ended (killed by signal 9 (SIGKILL))"));
}

TEST_F(SimRunTest, TheCommandSeesThePrivateBusTheSimulatorsPidAndTheRestOfItsEnvironment) {
    ScopedEnv staleBus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus");
    ScopedEnv staleUrl("LUMORA_SIM_HTTP_URL", "http://127.0.0.1:1/");
    ScopedEnv own("LUMORA_RUN_TEST_OWN", "kept as it was");
    std::string runLog = m_dir.File("run.log");
    RunResult run = Run({"--log", runLog}, "env");
    ASSERT_EQ(0, run.exitStatus) << run.err;
    std::map<std::string, std::string> seen = Variables(run.out);
    std::string address = seen["DBUS_SYSTEM_BUS_ADDRESS"];
    EXPECT_EQ(0u, address.find("unix:path=")) << address;
    EXPECT_EQ(std::string::npos, address.find("/nonexistent")) << address;
    EXPECT_EQ(address, seen["LUMORA_SIM_BUS_ADDRESS"]);
    EXPECT_EQ(0u, seen.count("LUMORA_SIM_HTTP_URL")) << "no panel was asked for";
    EXPECT_EQ("kept as it was", seen["LUMORA_RUN_TEST_OWN"]);
    // --log took the run's lines; the command's own log file is as it was.
    EXPECT_EQ(m_log.Path(), seen["LUMORA_LOG_FILE"]);
    std::ifstream logFile(runLog);
    std::string logText((std::istreambuf_iterator<char>(logFile)), std::istreambuf_iterator<char>());
    std::string started = "run: simulator started (pid " + seen["LUMORA_SIM_PID"] + ")";
    EXPECT_NE(std::string::npos, logText.find(started)) << logText;
    EXPECT_NE(std::string::npos, logText.find("run: bus at " + address)) << logText;
}

TEST_F(SimRunTest, LumoraAndAnApplicationInsideTheCommandReadTheScenariosValues) {
    std::string scenario = m_dir.Write(
        "scenario.json", R"({"values": {"Ctx/Test/Run": {"Value": 42}, "Ctx/Sound/Volume/Level/Current": {"Level": 17}}})");
    RunResult run = Run({"--scenario", scenario},
                        "lumora read Ctx/Test/Run && run_client Ctx/Sound/Volume/Level/Current Ctx/Test/Run");
    ASSERT_EQ(0, run.exitStatus) << run.err;
    EXPECT_EQ((std::vector<std::string>{R"({"Value":42})", R"(Ctx/Sound/Volume/Level/Current={"Level":17})",
                                        R"(Ctx/Test/Run={"Value":42})"}),
              Lines(run.out))
        << run.err;
}

TEST_F(SimRunTest, AfterARunWithTheMachinesTmpNoSimulatorDaemonMarkerOrSocketIsLeftAndTheSimulatorSaidBye) {
    ChildProcess run;
    ASSERT_TRUE(Start(run, {"--shared-tmp"}, std::string(kTrapGo) + "echo $$; echo \"$LUMORA_SIM_BUS_ADDRESS\"; " + kWaitForGo));
    pid_t command = CommandPid(run);
    std::string address;
    ASSERT_TRUE(run.ReadLine(address, kRunTimeoutMs)) << run.Err();
    // This test's /tmp is the run's: its bus and marker are here to see.
    EXPECT_TRUE(ReadyMarkerExists());
    SignalRecorder listener(address, nullptr, contract::kInterface, contract::kSignalResponse, contract::kObjectPath);
    pid_t simulator = LoggedPid("run: simulator started (pid ");
    pid_t daemon = LoggedPid("(dbus-daemon pid ");
    ASSERT_GT(simulator, 0);
    ASSERT_GT(daemon, 0);

    ASSERT_EQ(0, kill(command, SIGUSR1));
    EXPECT_EQ(0, run.Wait(kRunTimeoutMs)) << run.Err();
    // The BYE is the sentinel: it arrives before the bus goes.
    ASSERT_TRUE(listener.WaitForCount(1, 5000));
    std::vector<ReceivedSignal> heard = listener.Signals();
    ASSERT_EQ(1u, heard.size());
    EXPECT_EQ("(0, 'BYE', '')", PrintVariant(heard[0].parameters.get()));
    EXPECT_TRUE(ProcessGone(simulator));
    EXPECT_TRUE(ProcessGone(daemon));
    EXPECT_FALSE(ReadyMarkerExists());
    std::string socket = SocketPath(address);
    ASSERT_FALSE(socket.empty()) << address;
    EXPECT_NE(0, access(socket.c_str(), F_OK)) << socket;
    EXPECT_NE(0, access(Folder(socket).c_str(), F_OK)) << Folder(socket);
    // The lock file stays for the next run, naming no pid.
    std::ifstream lock(kLockFile);
    ASSERT_TRUE(lock.good());
    EXPECT_EQ(std::string(), std::string((std::istreambuf_iterator<char>(lock)), std::istreambuf_iterator<char>()));
}

TEST_F(SimRunTest, ATmpOfItsOwnHidesTheMachinesMarkerKeepsTheMachinesFilesAndLeavesNothingBehind) {
    // A marker of this machine's /tmp, of a live process, which the run's
    // command must not see; and a folder of files the command uses.
    std::ofstream(contract::kReadyMarkerFile) << getpid() << "\n";
    m_dir.Write("in.txt", "from the machine\n");
    std::string top = "/tmp/lumora-run-test-top-" + std::to_string(getpid());
    RunResult run = Run({}, "cat /tmp/lmf_service_ready; cat " + m_dir.File("in.txt") + "; echo from the command > " +
                                m_dir.File("out.txt") + "; echo only in the run > " + top + "; cat " + top);
    ASSERT_EQ(0, run.exitStatus) << run.err;
    if (!RanInPrivateTmp()) GTEST_SKIP() << "this machine gives no run a /tmp of its own";
    pid_t simulator = LoggedPid("run: simulator started (pid ");
    EXPECT_EQ((std::vector<std::string>{std::to_string(simulator), "from the machine", "only in the run"}),
              Lines(run.out));
    std::ifstream out(m_dir.File("out.txt"));
    EXPECT_EQ("from the command\n", std::string((std::istreambuf_iterator<char>(out)), std::istreambuf_iterator<char>()));
    EXPECT_NE(0, access(top.c_str(), F_OK)) << "made at the top of the run's /tmp, gone with it";
    std::ifstream marker(contract::kReadyMarkerFile);
    EXPECT_EQ(std::to_string(getpid()) + "\n",
              std::string((std::istreambuf_iterator<char>(marker)), std::istreambuf_iterator<char>()));
    unlink(contract::kReadyMarkerFile);
    EXPECT_TRUE(ProcessGone(simulator));
    EXPECT_TRUE(ProcessGone(LoggedPid("(dbus-daemon pid ")));
}

TEST_F(SimRunTest, TwoRunsSideBySideEachServeTheirOwnSimulator) {
    std::string first = m_dir.Write("first.json", R"({"values": {"Ctx/Test/Name": "first"}})");
    std::string second = m_dir.Write("second.json", R"({"values": {"Ctx/Test/Name": "second"}})");
    const std::string script = std::string(kTrapGo) + "echo $$; lumora read Ctx/Test/Name; " + kWaitForGo +
                               "; lumora read Ctx/Test/Name";
    ChildProcess one;
    ChildProcess two;
    ASSERT_TRUE(Start(one, {"--scenario", first}, script));
    ASSERT_TRUE(Start(two, {"--scenario", second}, script));
    pid_t commandOne = CommandPid(one);
    pid_t commandTwo = CommandPid(two);
    std::string valueOne;
    std::string valueTwo;
    ASSERT_TRUE(one.ReadLine(valueOne, kRunTimeoutMs)) << one.Err();
    ASSERT_TRUE(two.ReadLine(valueTwo, kRunTimeoutMs)) << two.Err();
    if (!RanInPrivateTmp()) GTEST_SKIP() << "this machine gives no run a /tmp of its own";
    // Both simulators run now, each in its own /tmp; none in this test's.
    EXPECT_EQ("first", valueOne);
    EXPECT_EQ("second", valueTwo);
    EXPECT_FALSE(ReadyMarkerExists());
    ASSERT_EQ(0, kill(commandOne, SIGUSR1));
    ASSERT_EQ(0, kill(commandTwo, SIGUSR1));
    ASSERT_TRUE(one.ReadLine(valueOne, kRunTimeoutMs)) << one.Err();
    ASSERT_TRUE(two.ReadLine(valueTwo, kRunTimeoutMs)) << two.Err();
    EXPECT_EQ("first", valueOne);
    EXPECT_EQ("second", valueTwo);
    EXPECT_EQ(0, one.Wait(kRunTimeoutMs)) << one.Err();
    EXPECT_EQ(0, two.Wait(kRunTimeoutMs)) << two.Err();
}

TEST_F(SimRunTest, WithoutATmpOfItsOwnASecondRunIsRefusedWithOneLineSayingWhy) {
    ChildProcess holder;
    ASSERT_TRUE(Start(holder, {"--shared-tmp"}, std::string(kTrapGo) + "echo $$; " + kWaitForGo));
    pid_t command = CommandPid(holder);
    ASSERT_GT(command, 0) << holder.Err();

    RunResult refused = Run({"--shared-tmp"}, "echo must not run");
    EXPECT_EQ(125, refused.exitStatus);
    EXPECT_EQ("", refused.out);
    std::string line = "lumora-sim run: another run (pid " + std::to_string(holder.Pid()) + ") holds " + kLockFile +
                       "; without a /tmp of their own runs take turns (--shared-tmp)\n";
    EXPECT_NE(std::string::npos, refused.err.find(line)) << refused.err;
    EXPECT_EQ(1u, Lines(refused.err).size()) << refused.err;

    ASSERT_EQ(0, kill(command, SIGUSR1));
    EXPECT_EQ(0, holder.Wait(kRunTimeoutMs)) << holder.Err();
    // The lock went with the first run.
    RunResult next = Run({"--shared-tmp"}, "exit 4");
    EXPECT_EQ(4, next.exitStatus) << next.err;
}

TEST_F(SimRunTest, WithoutATmpOfItsOwnARunLeavesALiveSimulatorsMarkerAloneAndRemovesAStaleOne) {
    TestBus bus;
    ASSERT_TRUE(bus.Start());
    SimProcess standalone;
    ASSERT_TRUE(standalone.Start());
    RunResult refused = Run({"--shared-tmp"}, "echo must not run");
    EXPECT_EQ(125, refused.exitStatus);
    EXPECT_NE(std::string::npos, refused.err.find("lumora-sim run: a simulator (pid " +
                                                  std::to_string(standalone.Pid()) + ") serves " +
                                                  contract::kReadyMarkerFile))
        << refused.err;
    EXPECT_TRUE(ReadyMarkerExists());

    // A marker whose process is gone, as a simulator killed with SIGKILL leaves it.
    standalone.Stop();
    pid_t gone = fork();
    if (gone == 0) _exit(0);
    waitpid(gone, nullptr, 0);
    std::ofstream(contract::kReadyMarkerFile) << gone << "\n";
    RunResult run = Run({"--shared-tmp"}, "cat /tmp/lmf_service_ready");
    EXPECT_EQ(0, run.exitStatus) << run.err;
    EXPECT_EQ(std::to_string(LoggedPid("run: simulator started (pid ")) + "\n", run.out);
    EXPECT_TRUE(Logged("run: removing /tmp/lmf_service_ready, left by a process that is gone"));
}

TEST_F(SimRunTest, TheControlPanelIsServedAndItsUrlIsInTheCommandsEnvironmentNotItsOutput) {
    std::string scenario = m_dir.Write("scenario.json", R"({"values": {"Ctx/Test/Panel": "on"}})");
    ChildProcess run;
    ASSERT_TRUE(Start(run, {"--scenario", scenario, "--http", "127.0.0.1:0"},
                      std::string(kTrapGo) + "echo $$; echo \"$LUMORA_SIM_HTTP_URL\"; lumora read Ctx/Test/Panel; " +
                          kWaitForGo));
    pid_t command = CommandPid(run);
    std::string url;
    std::string value;
    ASSERT_TRUE(run.ReadLine(url, kRunTimeoutMs)) << run.Err();
    ASSERT_TRUE(run.ReadLine(value, kRunTimeoutMs)) << run.Err();
    EXPECT_EQ("on", value);
    const std::string prefix = "http://127.0.0.1:";
    ASSERT_EQ(0u, url.find(prefix)) << url;
    int port = std::stoi(url.substr(prefix.size()));
    EXPECT_EQ("HTTP/1.1 200 OK", HttpStatusLine(port, "/"));
    EXPECT_TRUE(Logged("run: control panel at " + url));
    ASSERT_EQ(0, kill(command, SIGUSR1));
    EXPECT_EQ(0, run.Wait(kRunTimeoutMs)) << run.Err();
    EXPECT_EQ("", run.Out()) << "the simulator printed nothing of its own";
}

TEST_F(SimRunTest, SigtermAndSigintSentToTheRunArePassedToTheCommand) {
    for (int sig : {SIGTERM, SIGINT}) {
        ChildProcess run;
        std::string name = sig == SIGTERM ? "TERM" : "INT";
        ASSERT_TRUE(Start(run, {}, std::string(kTrapGo) + "trap 'echo got " + name + "; exit 7' " + name + "; echo $$; " + kWaitForGo));
        ASSERT_GT(CommandPid(run), 0) << run.Err();
        ASSERT_TRUE(run.Signal(sig));
        EXPECT_EQ(7, run.Wait(kRunTimeoutMs)) << run.Err();
        EXPECT_EQ("got " + name + "\n", run.Out());
        EXPECT_TRUE(Logged("run: " + name + " passed to the command"));
    }
    // A command that keeps the default action ends by the signal, and so does
    // the run's status; the simulator still stops cleanly after it.
    ChildProcess run;
    ASSERT_TRUE(Start(run, {}, "echo $$; exec sleep 60"));
    ASSERT_GT(CommandPid(run), 0) << run.Err();
    ASSERT_TRUE(run.Signal(SIGTERM));
    EXPECT_EQ(128 + SIGTERM, run.Wait(kRunTimeoutMs)) << run.Err();
    EXPECT_TRUE(Logged("run: simulator stopped (exit status 0)"));
}

TEST_F(SimRunTest, ASignalBeforeTheCommandStartedStopsWhatRunsAndEndsTheRunWith128PlusIt) {
    // A bus daemon that never says its address: the run waits for it.
    std::string started = m_dir.File("daemon.pid");
    std::string daemon = m_dir.Write("silent-daemon", "#!/bin/sh\necho $$ > " + started + "\nexec sleep 60\n");
    ASSERT_EQ(0, chmod(daemon.c_str(), 0755));
    ScopedEnv silent("LUMORA_SIM_DBUS_DAEMON", daemon);
    ChildProcess run;
    ASSERT_TRUE(Start(run, {}, "echo must not run"));
    pid_t daemonPid = -1;
    for (int tries = 0; daemonPid <= 0 && tries < 1000; ++tries) {
        std::ifstream pidFile(started);
        if (!(pidFile >> daemonPid)) g_usleep(10000);
    }
    ASSERT_GT(daemonPid, 0);
    ASSERT_TRUE(run.Signal(SIGTERM));
    EXPECT_EQ(128 + SIGTERM, run.Wait(5000)) << run.Err();
    EXPECT_EQ("", run.Out());
    EXPECT_TRUE(ProcessGone(daemonPid));
    EXPECT_TRUE(Logged("run: TERM before the command started, stopping"));
}

TEST_F(SimRunTest, ACommandThatDoesNotExistEnds127WithOneLineAndStartsNothing) {
    RunResult byName = SimProcess::Run({"run", "--", "lumora-no-such-command", "x"});
    EXPECT_EQ(127, byName.exitStatus);
    EXPECT_EQ("lumora-sim run: lumora-no-such-command: command not found\n", byName.err);
    RunResult byPath = SimProcess::Run({"run", "/nonexistent/lumora-app-tests"});
    EXPECT_EQ(127, byPath.exitStatus);
    EXPECT_EQ("lumora-sim run: /nonexistent/lumora-app-tests: No such file or directory\n", byPath.err);
    EXPECT_FALSE(Logged("run: bus at"));
}

TEST_F(SimRunTest, ACommandThatCannotBeExecutedEnds126) {
    std::string notProgram = m_dir.Write("not-a-program", "text\n");
    RunResult run = SimProcess::Run({"run", "--", notProgram});
    EXPECT_EQ(126, run.exitStatus);
    EXPECT_EQ("lumora-sim run: " + notProgram + ": Permission denied\n", run.err);
}

TEST_F(SimRunTest, WhenTheBusOrTheSimulatorCannotStartTheRunEnds125WithOneLineWhy) {
    {
        ScopedEnv daemon("LUMORA_SIM_DBUS_DAEMON", "/bin/false");
        RunResult run = Run({}, "echo must not run");
        EXPECT_EQ(125, run.exitStatus);
        EXPECT_EQ("lumora-sim run: dbus-daemon (/bin/false) did not start\n", run.err);
    }
    {
        ScopedEnv config("LUMORA_SIM_DBUS_CONFIG", "/nonexistent/bus.conf");
        RunResult run = Run({}, "echo must not run");
        EXPECT_EQ(125, run.exitStatus);
        EXPECT_EQ("lumora-sim run: no private-bus configuration (LUMORA_SIM_DBUS_CONFIG=/nonexistent/bus.conf)\n",
                  run.err);
    }
    {
        std::string scenario = m_dir.Write("broken.json", "{\"values\": [}");
        RunResult run = Run({"--scenario", scenario}, "echo must not run");
        EXPECT_EQ(125, run.exitStatus);
        EXPECT_EQ(1u, Lines(run.err).size()) << run.err;
        EXPECT_EQ(0u, run.err.find("lumora-sim: " + scenario + ":1:")) << run.err;
    }
    {
        HeldPort held;
        ASSERT_GT(held.Port(), 0);
        RunResult run = Run({"--http", "127.0.0.1:" + std::to_string(held.Port())}, "echo must not run");
        EXPECT_EQ(125, run.exitStatus);
        EXPECT_EQ("", run.out);
        EXPECT_NE(std::string::npos, run.err.find("lumora-sim run: the simulator did not start (exit status 2)\n"))
            << run.err;
    }
    EXPECT_FALSE(ReadyMarkerExists());
}

// Whether nobody may make a user namespace here: util-linux's unshare run as
// nobody, a fresh single-threaded process (a forked child of this test may
// have a sanitizer's runtime thread, and a process of several threads may
// not make one).
bool NobodyMayMakeAUserNamespace(const passwd& nobody) {
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        if (setgroups(0, nullptr) == 0 && setgid(nobody.pw_gid) == 0 && setuid(nobody.pw_uid) == 0)
            execlp("unshare", "unshare", "--user", "true", static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(SimRunTest, WithoutRootAUserNamespaceGivesTheRunATmpOfItsOwn) {
    passwd* nobody = getpwnam("nobody");
    if (geteuid() != 0 || nobody == nullptr) GTEST_SKIP() << "needs root to become nobody";
    if (!NobodyMayMakeAUserNamespace(*nobody)) GTEST_SKIP() << "nobody may not make a user namespace here";
    passwd user = *nobody;
    // As nobody, with the sample scenario (this test's folder is root's).
    std::string script = "id -u; lumora read Ctx/Media/Source/Info/Current; cat /tmp/lmf_service_ready";
    Launch launch = LaunchOf(SimExecutable(), RunArgs({"--scenario", SampleScenario()}, script));
    std::vector<char*> argv = launch.Argv();
    int out[2];
    ASSERT_EQ(0, pipe(out));
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        if (setgroups(0, nullptr) != 0 || setgid(user.pw_gid) != 0 || setuid(user.pw_uid) != 0) _exit(99);
        unsetenv("LUMORA_LOG_FILE");  // root's file
        execv(launch.file.c_str(), argv.data());
        _exit(98);
    }
    close(out[1]);
    std::string printed = ReadToEnd(out[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(0, WEXITSTATUS(status)) << printed;
    std::vector<std::string> lines = Lines(printed);
    ASSERT_EQ(3u, lines.size()) << printed;
    EXPECT_EQ(std::to_string(user.pw_uid), lines[0]);
    EXPECT_NE(std::string::npos, lines[1].find(R"("Source":"TV")")) << lines[1];
    EXPECT_GT(std::stol(lines[2]), 0) << "the run's marker names its simulator";
    EXPECT_FALSE(ReadyMarkerExists());
}

}  // namespace
}  // namespace lumora::test
