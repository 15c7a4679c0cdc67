// The installed bus policy of the service name, on a private daemon that is
// configured like a system bus (nobody may own a name unless a policy says so,
// everybody may broadcast signals): only the service user owns the name and
// speaks for the service; everybody may call it and hear it.
#include <grp.h>
#include <gtest/gtest.h>
#include <lumora/lumora-api.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "BusCalls.h"
#include "ChildProcess.h"
#include "ControlContract.h"
#include "Emulator.h"
#include "LogCapture.h"
#include "MainLoopThread.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"
#include "internal/HandOff.h"

namespace lumora::test {
namespace {

// A system bus's default policy, reduced to what matters here.
std::string SystemLikeConfig(const std::string& socketDir, bool withPolicy) {
    std::string include = withPolicy ? std::string("<include>") + LUMORA_SERVICE_POLICY + "</include>" : "";
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>system</type><listen>unix:dir=" +
           socketDir +
           "</listen><auth>EXTERNAL</auth>"
           "<policy context=\"default\">"
           "<allow user=\"*\"/><deny own=\"*\"/><deny send_type=\"method_call\"/>"
           "<allow send_type=\"signal\"/>"
           "<allow send_requested_reply=\"true\" send_type=\"method_return\"/>"
           "<allow send_requested_reply=\"true\" send_type=\"error\"/>"
           "<allow receive_type=\"method_call\"/><allow receive_type=\"method_return\"/>"
           "<allow receive_type=\"error\"/><allow receive_type=\"signal\"/>"
           "<allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"/>"
           "</policy>" +
           include + "</busconfig>\n";
}

class BusPolicyTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to own the name and to become another user";
        // The socket's folder must be reachable by the unprivileged probe.
        ASSERT_EQ(0, chmod(m_dir.Path().c_str(), 0755));
    }
    bool StartBus(bool withPolicy) {
        return m_bus.Start(true, m_dir.Write("system.conf", SystemLikeConfig(m_dir.Path(), withPolicy)));
    }
    // Runs argv as "nobody"; its standard output (and error, when asked)
    // and its exit status (-1 when it did not exit, 126 when it could not
    // become nobody).
    static std::string RunAsNobody(const std::vector<std::string>& argv, int& exitStatus, bool withErrors = false) {
        int out[2];
        if (pipe(out) != 0) return "no pipe";
        Launch launch = LaunchOf(argv[0], std::vector<std::string>(argv.begin() + 1, argv.end()));
        std::vector<char*> args = launch.Argv();
        pid_t pid = fork();
        if (pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            if (withErrors) dup2(out[1], STDERR_FILENO);
            close(out[0]);
            struct passwd* nobody = getpwnam("nobody");
            if (nobody == nullptr || setgroups(0, nullptr) != 0 || setgid(nobody->pw_gid) != 0 ||
                setuid(nobody->pw_uid) != 0) {
                _exit(126);
            }
            execv(launch.file.c_str(), args.data());
            _exit(127);
        }
        close(out[1]);
        std::string text = ReadToEnd(out[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return text;
    }
    // Runs the probe as "nobody" and returns the line it printed.
    std::string ProbeAsNobody(const char* command) {
        int status = -1;
        std::string line = RunAsNobody({LUMORA_POLICY_PROBE, m_bus.Address(), command}, status);
        if (status != 0) return "probe failed, status " + std::to_string(status);
        return line;
    }

    LogCapture m_log;
    TempDir m_dir;
    TestBus m_bus;
    SimProcess m_sim;
};

TEST_F(BusPolicyTest, WithoutThePolicyEvenRootMayNotOwnTheName) {
    ASSERT_TRUE(StartBus(false));
    RunResult sim = SimProcess::Run({"--scenario", SampleScenario()});
    EXPECT_EQ(1, sim.exitStatus) << sim.err;
}

TEST_F(BusPolicyTest, TheServiceUserMayOwnTheName) {
    if (std::string(LUMORA_SERVICE_USER) != "root") GTEST_SKIP() << "the service user is " << LUMORA_SERVICE_USER;
    ASSERT_TRUE(StartBus(true));
    EXPECT_TRUE(m_sim.Start());
}

TEST_F(BusPolicyTest, AnotherUserMayNotOwnTheName) {
    ASSERT_TRUE(StartBus(true));
    EXPECT_EQ("error org.freedesktop.DBus.Error.AccessDenied\n", ProbeAsNobody("own"));
}

TEST_F(BusPolicyTest, AnotherUserMayCallTheServiceAndReceiveItsSignals) {
    ASSERT_TRUE(StartBus(true));
    ASSERT_TRUE(m_sim.Start());
    EXPECT_EQ("reply (true, '{\"WhiteList\":[\"lumora\",\"tv-launcher\",\"tv-settings\"]}')\n", ProbeAsNobody("call"));
    EXPECT_EQ("signal (0, 'Probe/Policy', 'probe')\n", ProbeAsNobody("receive"));
}

// ---- signals forged by another user -----------------------------------------------

constexpr const char* kVolume = "Ctx/Sound/Volume/Level/Current";

// What one connection heard, from any thread.
struct Heard {
    std::mutex mutex;
    std::vector<std::string> lines;
    void Add(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
    }
    std::vector<std::string> All() {
        std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }
    bool Has(const std::string& line) {
        std::vector<std::string> all = All();
        return std::find(all.begin(), all.end(), line) != all.end();
    }
};

Heard g_library;  // the application's subscription and availability callbacks

void OnVolume(const char*, char* data, void*) { g_library.Add(std::string("value ") + data); }
void OnAvailability(int available, const char* reason, void*) {
    g_library.Add(std::string(available == 1 ? "available " : "unavailable ") + reason);
}

// Every signal on the service's object path, as a raw subscriber sees it.
void OnRawSignal(GDBusConnection*, const gchar*, const gchar*, const gchar* interface, const gchar* member,
                 GVariant* parameters, gpointer heard) {
    lumora::internal::HandOffReceive(heard);
    gchar* printed = g_variant_print(parameters, FALSE);
    static_cast<Heard*>(heard)->Add(std::string(interface) + "." + member + " " + printed);
    g_free(printed);
}

TEST_F(BusPolicyTest, AnotherUsersForgedResponseByeAndHelloReachNoSubscriber) {
    if (std::string(LUMORA_SERVICE_USER) != "root") GTEST_SKIP() << "the service user is " << LUMORA_SERVICE_USER;
    ASSERT_TRUE(StartBus(true));
    ASSERT_TRUE(m_sim.Start());
    // Outlives the loop thread, which fills it until it stops, on every way out.
    Heard rawHeard;
    MainLoopThread loop;
    // An application of the library, and a raw subscriber to every signal of
    // the service's object path on a connection of its own.
    ASSERT_TRUE(Lumora_InitService());
    ASSERT_TRUE(Lumora_Subscribe(kVolume, OnVolume, nullptr));
    ASSERT_TRUE(Lumora_AddAvailabilityCallback(OnAvailability, nullptr));
    ASSERT_TRUE(WaitUntil([] { return g_library.Has("available ready"); }, 5000));
    GDBusConnection* raw = ConnectToBus(m_bus.Address());
    ASSERT_NE(nullptr, raw);
    // Filled by OnRawSignal on the loop's thread: the subscription hands it over.
    lumora::internal::HandOffSend(&rawHeard);
    guint id = g_dbus_connection_signal_subscribe(raw, nullptr, nullptr, nullptr, "/org/verdin/tv/lumora2", nullptr,
                                                  G_DBUS_SIGNAL_FLAGS_NONE, OnRawSignal, &rawHeard, nullptr);
    ASSERT_TRUE(CallControl(raw, lumora::sim::kCtlGetStatus).Ok());  // the match rule is in place

    ASSERT_EQ("forged 3 signals between two canaries\n", ProbeAsNobody("forge"));
    // The forger's signals reach the bus: both canaries arrive, in order.
    const std::string after = "org.verdin.tv.lumora2.PolicyProbe.Canary ('after',)";
    ASSERT_TRUE(WaitUntil([&] { return rawHeard.Has(after); }, 5000)) << rawHeard.All().size();
    EXPECT_EQ((std::vector<std::string>{"org.verdin.tv.lumora2.PolicyProbe.Canary ('before',)", after}),
              rawHeard.All());
    // The service's own notification, sent after them (to its subscriber
    // alone), reaches the application; whatever the forger sent before has
    // been delivered by then.
    ASSERT_TRUE(
        CallControl(raw, lumora::sim::kCtlEmit, g_variant_new("(ss)", kVolume, "{\"Level\":18,\"Mute\":false}")).Ok());
    ASSERT_TRUE(WaitUntil([] { return g_library.Has("value {\"Level\":18,\"Mute\":false}"); }, 5000));
    EXPECT_EQ((std::vector<std::string>{"available ready", "value {\"Level\":18,\"Mute\":false}"}), g_library.All());
    EXPECT_EQ(2u, rawHeard.All().size());  // the forged broadcasts reached nobody
    // The service's own "BYE" and "HELLO" still reach everybody.
    ASSERT_TRUE(CallControl(raw, lumora::sim::kCtlRestart, g_variant_new("(u)", 100u)).Ok());
    ASSERT_TRUE(WaitUntil([] { return g_library.Has("available hello"); }, 5000));
    EXPECT_EQ((std::vector<std::string>{"available ready", "value {\"Level\":18,\"Mute\":false}", "unavailable bye",
                                        "available hello"}),
              g_library.All());
    ASSERT_TRUE(WaitUntil([&] { return rawHeard.All().size() == 4; }, 5000));
    EXPECT_EQ("org.verdin.tv.lumora.interface2.Response (0, 'BYE', '')", rawHeard.All()[2]);
    EXPECT_TRUE(LMFServiceAPI::IsAvailable());
    char* value = Lumora_Read(kVolume, nullptr);
    EXPECT_NE(nullptr, value);
    free(value);

    g_dbus_connection_signal_unsubscribe(raw, id);
    g_object_unref(raw);
    Lumora_FiniService();
}

// ---- monitoring ----------------------------------------------------------------------

TEST_F(BusPolicyTest, LumoraMonitorSaysWhyABusThatRefusesMonitoringRefusesIt) {
    ASSERT_TRUE(StartBus(true));
    int status = -1;
    std::string out = RunAsNobody({LUMORA_CLI, "monitor", "--duration", "1"}, status, true);
    EXPECT_EQ(1, status) << out;
    EXPECT_EQ(0u, out.find("lumora: the bus refused monitoring: ")) << out;
    EXPECT_NE(std::string::npos, out.find("the bus daemon lets only root and its own user monitor")) << out;
    EXPECT_EQ(out.size() - 1, out.find('\n')) << "one line: " << out;
}

}  // namespace
}  // namespace lumora::test
