// DBusClient's whitelist: which processes may use internal subjects.
#include <gtest/gtest.h>
#include <lumora/DBusClient.h>

#include "LogCapture.h"

namespace {

using lumora::test::LogCapture;

class WhiteListTest : public testing::Test {
protected:
    void SetUp() override { m_client = DBusClient::GetInstance(); }
    void TearDown() override { DBusClient::DeleteInstance(); }

    bool Allowed(const char* process) {
        m_client->SetProcessName(process);
        m_log.Mark();
        return m_client->CheckWhiteListProcess();
    }

    LogCapture m_log;
    DBusClient* m_client = nullptr;
};

TEST_F(WhiteListTest, AgentIsGrantedEvenWithAnEmptyList) {
    EXPECT_TRUE(Allowed("lumora-agent"));
    EXPECT_TRUE(m_log.Has("WhiteList size : 0, Process: lumora-agent", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("lumora-agent access granted (whitelist bypass)", 'I')) << m_log.Dump();
}

TEST_F(WhiteListTest, AgentIsGrantedWhenNotListed) {
    ASSERT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[\"other\"]}"));
    EXPECT_TRUE(Allowed("lumora-agent"));
}

TEST_F(WhiteListTest, EmptyListDeniesOtherProcesses) {
    EXPECT_FALSE(Allowed("myapp"));
    EXPECT_TRUE(m_log.Has("WhiteList is empty, access denied for myapp", 'I')) << m_log.Dump();
}

TEST_F(WhiteListTest, ListedProcessIsGranted) {
    ASSERT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[\"tv-launcher\",\"myapp\"]}"));
    EXPECT_TRUE(Allowed("myapp"));
    EXPECT_TRUE(m_log.Has("WhiteList size : 2, Process: myapp", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Other process access granted for myapp (whitelist size: 2)", 'I')) << m_log.Dump();
}

TEST_F(WhiteListTest, PrefixOfAListedNameIsDenied) {
    ASSERT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[\"myapp-helper\"]}"));
    EXPECT_FALSE(Allowed("myapp"));
    EXPECT_TRUE(m_log.Has("Other process access denied for myapp (whitelist size: 1)", 'I')) << m_log.Dump();
}

TEST_F(WhiteListTest, ComparisonIsCaseSensitive) {
    ASSERT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[\"MyApp\"]}"));
    EXPECT_FALSE(Allowed("myapp"));
    EXPECT_FALSE(Allowed("LUMORA-AGENT"));
}

TEST_F(WhiteListTest, TextWithoutTheKeyKeepsThePreviousListAndReturnsTrue) {
    ASSERT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[\"myapp\"]}"));
    m_log.Mark();
    EXPECT_TRUE(m_client->__SetWhiteList("{\"Other\":[\"x\"]}"));
    EXPECT_TRUE(m_log.Has("Set {\"Other\":[\"x\"]} for m_vWhiteList", 'I')) << m_log.Dump();
    EXPECT_FALSE(m_log.Has("WhiteList size : 1")) << m_log.Dump();
    EXPECT_TRUE(Allowed("myapp"));
    EXPECT_TRUE(m_log.Has("WhiteList size : 1, Process: myapp")) << m_log.Dump();
}

TEST_F(WhiteListTest, SameNameReceivedTwiceIsStoredTwiceAndStillGranted) {
    ASSERT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[\"myapp\"]}"));
    ASSERT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[\"myapp\"]}"));
    EXPECT_TRUE(Allowed("myapp"));
    EXPECT_TRUE(m_log.Has("WhiteList size : 2, Process: myapp", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Other process access granted for myapp (whitelist size: 2)")) << m_log.Dump();
}

TEST_F(WhiteListTest, EachCallAppendsAndLogsTheTextAndItsSize) {
    const char* text = "{\"WhiteList\":[\"a\",\"b\",\"c\"]}";
    EXPECT_TRUE(m_client->__SetWhiteList(text));
    EXPECT_TRUE(m_log.Has(std::string("Set ") + text + " for m_vWhiteList", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("WhiteList size : 3", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[\"d\"]}"));
    EXPECT_TRUE(Allowed("a"));
    EXPECT_TRUE(Allowed("d"));
    EXPECT_TRUE(m_log.Has("Other process access granted for d (whitelist size: 4)")) << m_log.Dump();
}

TEST_F(WhiteListTest, InvalidJsonIsRefusedAndLeavesTheListAsItWas) {
    ASSERT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[\"myapp\"]}"));
    m_log.Mark();
    EXPECT_FALSE(m_client->__SetWhiteList("{\"WhiteList\":[\"other\""));
    auto records = m_log.Records();
    ASSERT_EQ(1u, records.size()) << m_log.Dump();
    EXPECT_EQ("Json Parsing Failed", records[0].text);
    EXPECT_EQ('E', records[0].level);
    EXPECT_EQ("DBusClient.cpp", records[0].file);
    EXPECT_EQ("__SetWhiteList", records[0].function);
    EXPECT_TRUE(Allowed("myapp"));
    EXPECT_FALSE(Allowed("other"));
}

TEST_F(WhiteListTest, NullTextIsRefusedAsInvalidJson) {
    EXPECT_FALSE(m_client->__SetWhiteList(nullptr));
    EXPECT_TRUE(m_log.Has("Json Parsing Failed", 'E'));
}

TEST_F(WhiteListTest, EmptyArrayLeavesTheListUnchanged) {
    ASSERT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[\"myapp\"]}"));
    EXPECT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":[]}"));
    EXPECT_TRUE(Allowed("myapp"));
    EXPECT_TRUE(m_log.Has("WhiteList size : 1, Process: myapp")) << m_log.Dump();
}

TEST_F(WhiteListTest, WhiteListThatIsNotAnArrayAddsNothing) {
    EXPECT_TRUE(m_client->__SetWhiteList("{\"WhiteList\":\"myapp\"}"));
    EXPECT_TRUE(m_log.Has("WhiteList size : 0", 'I')) << m_log.Dump();
    EXPECT_FALSE(Allowed("myapp"));
}

TEST_F(WhiteListTest, SetProcessNameLogsTheName) {
    m_client->SetProcessName("myapp");
    EXPECT_TRUE(m_log.Has("Currernt Process Name[myapp]", 'E')) << m_log.Dump();
}

TEST(DBusClientInstanceTest, GetInstanceReturnsOneInstanceUntilDeleted) {
    DBusClient* first = DBusClient::GetInstance();
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, DBusClient::GetInstance());
    EXPECT_EQ(first, DBusClient::m_pInstance);
    DBusClient::DeleteInstance();
    EXPECT_EQ(nullptr, DBusClient::m_pInstance);
    DBusClient::DeleteInstance();  // a second delete is harmless
    EXPECT_EQ(nullptr, DBusClient::m_pInstance);
}

}  // namespace
