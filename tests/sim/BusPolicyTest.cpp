// The installed bus policy of the service name, on a private daemon that is
// configured like a system bus (nobody may own a name unless a policy says so).
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"

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
    // Runs the probe as "nobody" and returns the line it printed.
    std::string ProbeAsNobody(const char* command) {
        int out[2];
        if (pipe(out) != 0) return "no pipe";
        pid_t pid = fork();
        if (pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            struct passwd* nobody = getpwnam("nobody");
            if (nobody == nullptr || setgroups(0, nullptr) != 0 || setgid(nobody->pw_gid) != 0 ||
                setuid(nobody->pw_uid) != 0) {
                _exit(126);
            }
            execl(LUMORA_POLICY_PROBE, LUMORA_POLICY_PROBE, m_bus.Address().c_str(), command,
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        std::string line = ReadToEnd(out[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "probe failed, status " + std::to_string(status);
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

}  // namespace
}  // namespace lumora::test
