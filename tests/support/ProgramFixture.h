// A private bus watched by a monitor, lumora-sim on it and a settings store of
// the test's own, for tests that run a program of their own against them.
#ifndef LUMORA_TESTS_PROGRAMFIXTURE_H
#define LUMORA_TESTS_PROGRAMFIXTURE_H

#include <gtest/gtest.h>

#include <memory>

#include "BusCalls.h"
#include "BusMonitor.h"
#include "LogCapture.h"
#include "SimProcess.h"
#include "TempDir.h"
#include "TestBus.h"

namespace lumora::test {

class ProgramFixture : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.Start());
        m_monitor = std::make_unique<BusMonitor>(m_bus.Address());
        ASSERT_TRUE(m_monitor->Ok());
        ASSERT_TRUE(m_sim.Start());
        m_client = ConnectToBus(m_bus.Address());
        ASSERT_NE(nullptr, m_client);
        m_log.Mark();
    }
    void TearDown() override {
        if (m_client != nullptr) g_object_unref(m_client);
    }

    TempDir m_dir;
    ScopedEnv m_db{"LUMORA_SETTINGS_DB", m_dir.File("settings.db")};
    LogCapture m_log;
    TestBus m_bus;
    std::unique_ptr<BusMonitor> m_monitor;
    SimProcess m_sim;
    GDBusConnection* m_client = nullptr;  // the test's own connection
};

}  // namespace lumora::test

#endif
