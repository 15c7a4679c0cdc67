// feature_get_custom_bool: every rule of the feature file.
#include <gtest/gtest.h>
#include <lumora/lumora-platform.h>

#include "LogCapture.h"
#include "TempDir.h"

namespace {

using lumora::test::LogCapture;
using lumora::test::ScopedEnv;
using lumora::test::TempDir;

constexpr const char* kServiceKey = "com.kaldor/featureconf/lumora.service_enable";

class FeatureTest : public testing::Test {
protected:
    // Points the query at a file with the given content.
    void UseFile(const std::string& content) { m_env.reset(new ScopedEnv("LUMORA_FEATURE_FILE", m_dir.Write("features.conf", content))); }

    TempDir m_dir;
    LogCapture m_log;
    std::unique_ptr<ScopedEnv> m_env;
};

TEST_F(FeatureTest, MissingFileAnswersWithTheBuiltInDefault) {
    ScopedEnv env("LUMORA_FEATURE_FILE", m_dir.File("absent.conf"));
    bool value = false;
    EXPECT_EQ(0, feature_get_custom_bool(kServiceKey, &value));
    EXPECT_TRUE(value);
    EXPECT_TRUE(m_log.Lines().empty()) << m_log.Dump();
}

TEST_F(FeatureTest, MissingFileFailsForKeysWithoutDefault) {
    ScopedEnv env("LUMORA_FEATURE_FILE", m_dir.File("absent.conf"));
    bool value = true;
    EXPECT_NE(0, feature_get_custom_bool("com.kaldor/featureconf/unknown", &value));
    EXPECT_TRUE(value);  // untouched
}

TEST_F(FeatureTest, ReadsTrueAndFalse) {
    UseFile("a=true\nb=false\n");
    bool a = false, b = true;
    EXPECT_EQ(0, feature_get_custom_bool("a", &a));
    EXPECT_EQ(0, feature_get_custom_bool("b", &b));
    EXPECT_TRUE(a);
    EXPECT_FALSE(b);
}

TEST_F(FeatureTest, FileOverridesTheDefault) {
    UseFile(std::string(kServiceKey) + "=false\n");
    bool value = true;
    EXPECT_EQ(0, feature_get_custom_bool(kServiceKey, &value));
    EXPECT_FALSE(value);
}

TEST_F(FeatureTest, ExistingFileWithoutTheKeyFailsEvenForDefaultedKeys) {
    UseFile("other=true\n");
    bool value = false;
    EXPECT_NE(0, feature_get_custom_bool(kServiceKey, &value));
    EXPECT_FALSE(value);
}

TEST_F(FeatureTest, EmptyFileFails) {
    UseFile("");
    bool value = false;
    EXPECT_NE(0, feature_get_custom_bool(kServiceKey, &value));
}

TEST_F(FeatureTest, ValueOtherThanTrueOrFalseFailsWithALogLine) {
    UseFile("a=yes\nb=1\nc=TRUE\nd=\n");
    bool value = false;
    for (const char* key : {"a", "b", "c", "d"}) EXPECT_NE(0, feature_get_custom_bool(key, &value)) << key;
    EXPECT_FALSE(value);
    EXPECT_EQ(4u, m_log.Lines().size()) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("feature file " + m_dir.File("features.conf") + ": a has value \"yes\", expected true or false", 'E'))
        << m_log.Dump();
}

TEST_F(FeatureTest, HashStartsAComment) {
    UseFile("# a=false\na=true # trailing comment\n#b=true\n");
    bool a = false, b = false;
    EXPECT_EQ(0, feature_get_custom_bool("a", &a));
    EXPECT_TRUE(a);
    EXPECT_NE(0, feature_get_custom_bool("b", &b));
}

TEST_F(FeatureTest, BlanksAroundKeyAndValueAreIgnored) {
    UseFile("  a =  true  \r\n\tb\t=\tfalse\n");
    bool a = false, b = true;
    EXPECT_EQ(0, feature_get_custom_bool("a", &a));
    EXPECT_EQ(0, feature_get_custom_bool("b", &b));
    EXPECT_TRUE(a);
    EXPECT_FALSE(b);
}

TEST_F(FeatureTest, LaterLineForTheSameKeyWins) {
    UseFile("a=true\na=false\n");
    bool a = true;
    EXPECT_EQ(0, feature_get_custom_bool("a", &a));
    EXPECT_FALSE(a);
}

TEST_F(FeatureTest, KeyMatchIsExact) {
    UseFile("ab=true\nA=true\n");
    bool value = false;
    EXPECT_NE(0, feature_get_custom_bool("a", &value));
    EXPECT_NE(0, feature_get_custom_bool("a=true", &value));
}

TEST_F(FeatureTest, LastLineWithoutNewlineIsRead) {
    UseFile("a=true");
    bool a = false;
    EXPECT_EQ(0, feature_get_custom_bool("a", &a));
    EXPECT_TRUE(a);
}

TEST_F(FeatureTest, LinesWithoutEqualsAreSkipped) {
    UseFile("garbage line\na=true\n");
    bool a = false;
    EXPECT_EQ(0, feature_get_custom_bool("a", &a));
    EXPECT_TRUE(a);
}

TEST_F(FeatureTest, UnreadableFileFailsWithOneLogLine) {
    // A folder in place of the file cannot be read, even by root.
    ScopedEnv env("LUMORA_FEATURE_FILE", m_dir.Path());
    bool value = false;
    EXPECT_NE(0, feature_get_custom_bool(kServiceKey, &value));
    EXPECT_FALSE(value);
    ASSERT_EQ(1u, m_log.Lines().size()) << m_log.Dump();
    EXPECT_TRUE(m_log.Has("feature file " + m_dir.Path() + " cannot be read: not a regular file", 'E')) << m_log.Dump();
}

TEST_F(FeatureTest, NullArgumentsFailWithALogLine) {
    bool value = false;
    EXPECT_NE(0, feature_get_custom_bool(nullptr, &value));
    EXPECT_NE(0, feature_get_custom_bool(kServiceKey, nullptr));
    EXPECT_EQ(2u, m_log.Lines().size());
}

}  // namespace
