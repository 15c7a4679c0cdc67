// The source badge's tests, each against a simulator of its own
// (<lumora/testing/LumoraSimFixture.h>): what the television reports is set
// through the simulator, and the badge is read through the library as the
// app reads it.
#include <lumora/lumora-api.h>
#include <lumora/testing/LumoraSimFixture.h>

#include "source_badge.h"

namespace {

constexpr const char* kSource = "Ctx/Media/Source/Info/Current";

class SourceBadgeTest : public lumora::testing::LumoraSimTest {
protected:
    // The library starts once the simulator is up, and stops before it goes.
    void SetUp() override {
        LumoraSimTest::SetUp();
        ASSERT_TRUE(Lumora_InitService());
    }
    void TearDown() override {
        Lumora_FiniService();
        LumoraSimTest::TearDown();
    }
};

TEST_F(SourceBadgeTest, ShowsTheLabelOfTheCurrentSource) {
    ASSERT_TRUE(Sim().Set(kSource, R"({"Source":"HDMI1","Label":"Game console"})"));
    EXPECT_EQ("Game console", SourceBadge());
}

TEST_F(SourceBadgeTest, ShowsTheSourceWhenItHasNoLabel) {
    ASSERT_TRUE(Sim().Set(kSource, R"({"Source":"HDMI2"})"));
    EXPECT_EQ("HDMI2", SourceBadge());
}

TEST_F(SourceBadgeTest, ShowsNoSignalWhenTheServiceFailsTheRead) {
    ASSERT_TRUE(Sim().Set(kSource, R"({"Source":"TV"})"));
    ASSERT_TRUE(Sim().Code(kSource, -5));
    EXPECT_EQ("no signal", SourceBadge());
}

TEST_F(SourceBadgeTest, ShowsNoSignalWhileTheServiceHangsAndTheSourceOnceItAnswers) {
    ASSERT_TRUE(Sim().Set(kSource, R"({"Source":"TV"})"));
    ASSERT_TRUE(Sim().StopAnswering());
    EXPECT_EQ("no signal", SourceBadge());  // the library's read gives up after 1 s
    ASSERT_TRUE(Sim().ResumeAnswering());
    EXPECT_EQ("TV", SourceBadge());
}

TEST(BadgeTextTest, IsNoSignalForTextThatIsNotJson) { EXPECT_EQ("no signal", BadgeText("not json")); }

}  // namespace
