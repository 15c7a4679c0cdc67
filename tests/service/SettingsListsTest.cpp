// Hint, action and item lists in the settings store (a real SQLite file).
#include <gtest/gtest.h>
#include <lumora/lumora-api.h>
#include <lumora/lumora-platform.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "LogCapture.h"
#include "TempDir.h"

namespace {

using lumora::test::LogCapture;
using lumora::test::ScopedEnv;
using lumora::test::TempDir;

std::string Take(char* text) {
    std::unique_ptr<char, decltype(&free)> owned(text, &free);
    return owned ? std::string(owned.get()) : std::string("<null>");
}

class SettingsListsTest : public testing::Test {
protected:
    SettingsListsTest() : m_db("LUMORA_SETTINGS_DB", m_dir.File("settings.db")) {
        settings_set_str("unrelated", "x");  // the store exists
        m_log.Mark();
    }

    std::string Stored(const char* key) { return Take(settings_get_str(key)); }

    TempDir m_dir;
    ScopedEnv m_db;
    LogCapture m_log;
};

TEST_F(SettingsListsTest, EachKnownHintTypeReadsItsOwnList) {
    settings_set_str("db/lumora-service/source_hintlist", "S");
    settings_set_str("db/lumora-service/setting_hintlist", "T");
    settings_set_str("db/lumora-service/channel_hintlist", "C");
    settings_set_str("db/lumora-service/hintlist", "G");
    EXPECT_EQ("S", Take(Lumora_ReadHintList("app", "source")));
    EXPECT_EQ("T", Take(Lumora_ReadHintList("app", "setting")));
    EXPECT_EQ("C", Take(CS_Lumora_ReadHintList("app", "channel")));
    EXPECT_EQ("G", Take(Lumora_ReadHintList("app", "weather")));
    EXPECT_TRUE(m_log.Has("Called Read Hint List (app, source)", 'I')) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("Read Hint List for Setbank db/lumora-service/source_hintlist is (S)", 'I')) << m_log.Dump();
}

TEST_F(SettingsListsTest, HintTypeInOtherLetterCaseReadsTheGeneralList) {
    settings_set_str("db/lumora-service/source_hintlist", "S");
    settings_set_str("db/lumora-service/hintlist", "G");
    EXPECT_EQ("G", Take(Lumora_ReadHintList("app", "Source")));
    EXPECT_TRUE(m_log.Has("Read Hint List for Setbank db/lumora-service/hintlist is (G)", 'I')) << m_log.Dump();
}

TEST_F(SettingsListsTest, EmptyHintTypeFailsWithInvalidInput) {
    EXPECT_EQ("<null>", Take(Lumora_ReadHintList("app", "")));
    EXPECT_EQ("<null>", Take(Lumora_ReadHintList("app", nullptr)));
    EXPECT_EQ(2u, m_log.Count("Invalid Input", 'E')) << m_log.Dump();
}

TEST_F(SettingsListsTest, NullRequesterIsNotValid) {
    EXPECT_EQ("<null>", Take(Lumora_ReadHintList(nullptr, "source")));
    EXPECT_TRUE(m_log.Has("Not Valid Requester", 'E')) << m_log.Dump();
}

TEST_F(SettingsListsTest, HintListWithNothingStoredIsNullAndLogsFails) {
    EXPECT_EQ("<null>", Take(Lumora_ReadHintList("app", "source")));
    EXPECT_TRUE(m_log.Has("Read Hint List for Setbank db/lumora-service/source_hintlist is (fails)", 'I'))
        << m_log.Dump();
}

TEST_F(SettingsListsTest, STActionLeavesUriAndDataForTheAgent) {
    EXPECT_TRUE(Lumora_STAction("app://tv/guide", "{\"x\":1}"));
    EXPECT_EQ("{\"data\":\"{\\\"x\\\":1}\",\"uri\":\"app://tv/guide\"}", Stored("memory/lumora-agent/STAction"));
    EXPECT_TRUE(m_log.Has("ST Action setbank set as ({\"data\":\"{\\\"x\\\":1}\",\"uri\":\"app://tv/guide\"})", 'I'))
        << m_log.Dump();
}

TEST_F(SettingsListsTest, STActionTakesANullUriAsEmpty) {
    EXPECT_TRUE(Lumora_STAction(nullptr, "d"));
    EXPECT_EQ("{\"data\":\"d\",\"uri\":\"\"}", Stored("memory/lumora-agent/STAction"));
}

TEST_F(SettingsListsTest, STActionWithNullDataFailsWithoutWriting) {
    EXPECT_FALSE(Lumora_STAction("u", nullptr));
    EXPECT_TRUE(m_log.Has("NULL argument data", 'E')) << m_log.Dump();
    EXPECT_EQ("<null>", Stored("memory/lumora-agent/STAction"));
}

TEST_F(SettingsListsTest, STActionReportsAStoreThatRefuses) {
    ScopedEnv broken("LUMORA_SETTINGS_DB", m_dir.Path());  // a folder cannot be the store
    EXPECT_FALSE(Lumora_STAction("u", "d"));
    EXPECT_TRUE(m_log.Has("failed to set setbank key (memory/lumora-agent/STAction)", 'E')) << m_log.Dump();
    EXPECT_TRUE(
        m_log.From("failed to set setbank key (memory/lumora-agent/STAction)", "LMFServiceAPI.cpp", "STAction"));
}

TEST_F(SettingsListsTest, ShortCutEditOnAnEmptyStoreKeepsOnlyTheEditList) {
    EXPECT_TRUE(Lumora_WriteItemList("{\"group\":\"AccessibilityShortCut\",\"mode\":\"edit\",\"list\":[\"a\",\"b\"]}"));
    EXPECT_EQ("{\"AccessibilityShortCut\":{\"edit_list\":[\"a\",\"b\"],\"mode\":\"edit\"}}",
              Stored("db/lumora-service/itemlist"));
}

TEST_F(SettingsListsTest, ShortCutDefaultStoresTheDefaultList) {
    EXPECT_TRUE(Lumora_WriteItemList("{\"group\":\"AccessibilityShortCut\",\"mode\":\"default\",\"list\":[1,2]}"));
    EXPECT_EQ("{\"AccessibilityShortCut\":{\"default_list\":[1,2],\"mode\":\"default\"}}",
              Stored("db/lumora-service/itemlist"));
}

TEST_F(SettingsListsTest, ShortCutEditKeepsTheEarlierDefaultList) {
    ASSERT_TRUE(Lumora_WriteItemList("{\"group\":\"AccessibilityShortCut\",\"mode\":\"default\",\"list\":[1]}"));
    ASSERT_TRUE(Lumora_WriteItemList("{\"group\":\"AccessibilityShortCut\",\"mode\":\"edit\",\"list\":[2]}"));
    EXPECT_EQ("{\"AccessibilityShortCut\":{\"default_list\":[1],\"edit_list\":[2],\"mode\":\"edit\"}}",
              Stored("db/lumora-service/itemlist"));
}

TEST_F(SettingsListsTest, ShortCutGroupDropsEveryOtherGroup) {
    ASSERT_TRUE(Lumora_WriteItemList("{\"group\":\"HomeApps\",\"list\":[\"x\"]}"));
    ASSERT_TRUE(CS_WriteItemList("{\"group\":\"Inputs\",\"list\":[\"y\"]}"));
    EXPECT_TRUE(Lumora_WriteItemList("{\"group\":\"AccessibilityShortCut\",\"mode\":\"default\",\"list\":[\"z\"]}"));
    EXPECT_EQ("{\"AccessibilityShortCut\":{\"default_list\":[\"z\"],\"mode\":\"default\"}}",
              Stored("db/lumora-service/itemlist"));
}

TEST_F(SettingsListsTest, OrdinaryGroupReplacesItsEntryAndKeepsTheShortCut) {
    ASSERT_TRUE(Lumora_WriteItemList("{\"group\":\"AccessibilityShortCut\",\"mode\":\"default\",\"list\":[\"z\"]}"));
    ASSERT_TRUE(Lumora_WriteItemList("{\"group\":\"HomeApps\",\"list\":[\"old\"]}"));
    EXPECT_TRUE(Lumora_WriteItemList("{\"group\":\"HomeApps\",\"list\":[\"new\"],\"extra\":true}"));
    EXPECT_EQ(
        "{\"AccessibilityShortCut\":{\"default_list\":[\"z\"],\"mode\":\"default\"},"
        "\"HomeApps\":{\"extra\":true,\"group\":\"HomeApps\",\"list\":[\"new\"]}}",
        Stored("db/lumora-service/itemlist"));
    EXPECT_TRUE(m_log.Has("input {\"group\":\"HomeApps\",\"list\":[\"new\"],\"extra\":true}", 'E')) << m_log.Dump();
}

TEST_F(SettingsListsTest, UnknownShortCutModeFailsAndLeavesTheStoreAlone) {
    ASSERT_TRUE(Lumora_WriteItemList("{\"group\":\"HomeApps\",\"list\":[1]}"));
    std::string before = Stored("db/lumora-service/itemlist");
    EXPECT_FALSE(Lumora_WriteItemList("{\"group\":\"AccessibilityShortCut\",\"mode\":\"replace\",\"list\":[2]}"));
    EXPECT_TRUE(m_log.Has("[AccessibilityShortCut] mode (replace) error", 'E')) << m_log.Dump();
    EXPECT_TRUE(m_log.From("[AccessibilityShortCut] mode (replace) error", "LMFServiceAPI.cpp", "WriteItemList"));
    EXPECT_EQ(before, Stored("db/lumora-service/itemlist"));
}

TEST_F(SettingsListsTest, ItemListInputMustBeJsonWithGroupAndList) {
    EXPECT_FALSE(Lumora_WriteItemList(nullptr));
    EXPECT_TRUE(m_log.Has("NULL argument data", 'E'));
    EXPECT_FALSE(Lumora_WriteItemList("{\"group\":"));
    EXPECT_TRUE(m_log.Has("Json Parsing Failed", 'E'));
    EXPECT_FALSE(Lumora_WriteItemList("{\"group\":\"HomeApps\"}"));
    EXPECT_TRUE(m_log.Has("Invalid Input Parameter, Group or Item List not present: [{\"group\":\"HomeApps\"}]", 'E'))
        << m_log.Dump();
    EXPECT_FALSE(Lumora_WriteItemList("{\"group\":\"HomeApps\",\"list\":null}"));
    EXPECT_EQ("<null>", Stored("db/lumora-service/itemlist"));
}

TEST_F(SettingsListsTest, ItemListWhoseEscapesWouldStoreBrokenTextIsRefused) {
    ASSERT_TRUE(Lumora_WriteItemList("{\"group\":\"AccessibilityShortCut\",\"mode\":\"default\",\"list\":[1]}"));
    std::string before = Stored("db/lumora-service/itemlist");
    // A NUL in the group name would cut it to the shortcut group's name.
    EXPECT_FALSE(Lumora_WriteItemList("{\"group\":\"AccessibilityShortCut\\u0000x\",\"list\":[]}"));
    EXPECT_TRUE(m_log.From("Invalid Input Parameter, the group name holds a NUL character", "LMFServiceAPI.cpp",
                           "WriteItemList"))
        << m_log.Dump();
    // A lone surrogate decodes to bytes that are not UTF-8.
    EXPECT_FALSE(Lumora_WriteItemList("{\"group\":\"Apps\",\"list\":[\"\\udc00\"]}"));
    EXPECT_TRUE(m_log.Has("Invalid Input Parameter, an escape in the input is not a whole UTF-8 character", 'E'))
        << m_log.Dump();
    EXPECT_EQ(before, Stored("db/lumora-service/itemlist"));
    // A whole character written as a surrogate pair is fine.
    EXPECT_TRUE(Lumora_WriteItemList("{\"group\":\"Apps\",\"list\":[\"\\ud83d\\ude00\"]}"));
}

TEST_F(SettingsListsTest, CorruptStoredItemListIsReplacedAsIfNothingWasStored) {
    settings_set_str("db/lumora-service/itemlist", "{not json");
    EXPECT_TRUE(Lumora_WriteItemList("{\"group\":\"HomeApps\",\"list\":[1]}"));
    EXPECT_EQ("{\"HomeApps\":{\"group\":\"HomeApps\",\"list\":[1]}}", Stored("db/lumora-service/itemlist"));
}

TEST_F(SettingsListsTest, RecommendedListOfAnEmptyObjectIsError) {
    EXPECT_EQ("{error}", Take(Lumora_ReadRecommendedList("{}")));
    EXPECT_TRUE(m_log.Has("Called Read Recommended List ({})", 'I')) << m_log.Dump();
    EXPECT_EQ("{error}", Take(CS_Lumora_ReadRecommendedList("not json")));
    EXPECT_EQ("{error}", Take(Lumora_ReadRecommendedList("{\"group\":\"Other\"}")));
}

TEST_F(SettingsListsTest, RecommendedListWithoutInputIsNull) {
    EXPECT_EQ("<null>", Take(Lumora_ReadRecommendedList(nullptr)));
    EXPECT_EQ("<null>", Take(Lumora_ReadRecommendedList("")));
    EXPECT_EQ(2u, m_log.Count("Invalid input. Input is null or empty", 'E')) << m_log.Dump();
}

TEST_F(SettingsListsTest, RecommendedListWithoutTheServiceIsError) {
    EXPECT_EQ("{error}", Take(Lumora_ReadRecommendedList("{\"group\":\"HomeAppReordering\"}")));
    EXPECT_TRUE(m_log.Has("dbus not created!", 'E')) << m_log.Dump();
}

}  // namespace
