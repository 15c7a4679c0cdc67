// The tools' boundary for foreign JSON, without a bus: parsing never throws
// and bounds nesting, and every checked read names its path and both types.
#include <gtest/gtest.h>

#include <string>

#include "JsonInput.h"

namespace lumora::tools {
namespace {

Json::Value Parsed(const std::string& text) {
    Json::Value value;
    std::string error;
    EXPECT_TRUE(ParseJson(text, value, error)) << error;
    return value;
}

std::string Deep(int levels) { return std::string(levels, '[') + std::string(levels, ']'); }

TEST(JsonInputTest, NestingDeeperThanTheLimitIsRefusedWhereItOpensWithoutThrowing) {
    Json::Value value;
    std::string error;
    EXPECT_FALSE(ParseJson(Deep(5000), value, error));
    EXPECT_EQ("1:513: nested more than 512 levels deep", error);
    EXPECT_FALSE(ParseJson("{\"a\":\n" + Deep(40), value, error, JsonDialect::kStrict, 32));
    EXPECT_EQ("2:32: nested more than 32 levels deep", error);  // the brace is the first level
    EXPECT_TRUE(ParseJson(Deep(512), value, error)) << error;
}

TEST(JsonInputTest, BracketsInStringsAndCommentsDoNotCountAsNesting) {
    std::string text = "// " + std::string(100, '[') + "\n[\"" + std::string(100, '{') + "\", /* [[[[ */ 1]";
    EXPECT_EQ(-1, TooDeepAt(text, 2));
    EXPECT_EQ(2, TooDeepAt("[[[", 2));
}

TEST(JsonInputTest, ParseErrorsHaveLineAndColumn) {
    Json::Value value;
    std::string error;
    EXPECT_FALSE(ParseJson("{\n  \"a\": 1\n  \"b\": 2}", value, error));
    EXPECT_EQ(0u, error.find("3:3: Missing ',' or '}'")) << error;
    EXPECT_FALSE(ParseJson("{} trailing", value, error));
    EXPECT_FALSE(ParseJson("{\"a\":1,\"a\":2}", value, error)) << "duplicate keys in the simulator's texts";
}

TEST(JsonInputTest, TheStrictDialectRefusesCommentsAndTakesAnyRoot) {
    Json::Value value;
    std::string error;
    EXPECT_FALSE(ParseJson("[1] // no", value, error, JsonDialect::kStrict));
    EXPECT_FALSE(ParseJson("[1,]", value, error, JsonDialect::kStrict));
    EXPECT_TRUE(ParseJson("\"text\"", value, error, JsonDialect::kStrict)) << error;
    EXPECT_TRUE(ParseJson("[1] // yes", value, error, JsonDialect::kWithComments)) << error;
}

TEST(JsonInputTest, AWrongTypeNamesThePathWhatWasExpectedAndWhatWasFound) {
    Json::Value root = Parsed("{\"events\":[{}, {}, {}, {\"code\":\"0\"}]}");
    JsonField field(root);
    int code = 7;
    std::string error;
    EXPECT_FALSE(field["events"][3]["code"].ReadInt(code, error));
    EXPECT_EQ("$.events[3].code: expected a 32-bit integer, found a string", error);
    EXPECT_EQ(7, code) << "a failed read leaves its output as it was";
    for (const char* text : {"[]", "{}", "true", "null", "1.5", "1e300"}) {
        Json::Value value = Parsed(std::string("{\"code\":") + text + "}");
        EXPECT_FALSE(JsonField(value)["code"].ReadInt(code, error)) << text;
        EXPECT_EQ(0u, error.find("$.code: expected a 32-bit integer, found ")) << error;
    }
}

TEST(JsonInputTest, AnAbsentMemberIsFoundAsNothing) {
    Json::Value root = Parsed("{\"a\":[]}");
    std::string text;
    std::string error;
    EXPECT_FALSE(JsonField(root)["b"].ReadText(text, error));
    EXPECT_EQ("$.b: expected a string, found nothing", error);
    // Members of what is not an object, elements past the end: absent too.
    EXPECT_FALSE(JsonField(root)["a"]["x"].Present());
    EXPECT_FALSE(JsonField(root)["a"][0].Present());
    EXPECT_FALSE(JsonField(root)["a"][0].ReadText(text, error));
    EXPECT_EQ("$.a[0]: expected a string, found nothing", error);
}

TEST(JsonInputTest, NumbersOutOfRangeAreNamedAsSuch) {
    Json::Value root = Parsed("{\"big\":4294967296,\"low\":-3000000000,\"huge\":18446744073709551615,\"minus\":-1}");
    JsonField field(root);
    int value = 0;
    unsigned count = 0;
    long long wide = 0;
    std::string error;
    EXPECT_FALSE(field["big"].ReadInt(value, error));
    EXPECT_EQ("$.big: 4294967296 is out of range for a 32-bit integer", error);
    EXPECT_FALSE(field["low"].ReadInt(value, error));
    EXPECT_EQ("$.low: -3000000000 is out of range for a 32-bit integer", error);
    EXPECT_FALSE(field["minus"].ReadUInt(count, error));
    EXPECT_EQ("$.minus: -1 is out of range for an unsigned 32-bit integer", error);
    EXPECT_FALSE(field["huge"].ReadIntIn(wide, 0, 600000, error));
    EXPECT_EQ("$.huge: 18446744073709551615 is out of range (0 to 600000)", error);
    EXPECT_TRUE(field["minus"].ReadIntIn(wide, -5, 5, error)) << error;
    EXPECT_EQ(-1, wide);
}

TEST(JsonInputTest, KeysThatAreNoIdentifiersAreQuotedOnOneLine) {
    Json::Value root = Parsed("{\"a/b\":{\"line\\nbreak\":[1]}}");
    std::string error;
    EXPECT_FALSE(JsonField(root)["a/b"]["line\nbreak"][0].Fail("wrong", error));
    EXPECT_EQ("$[\"a/b\"][\"line\\nbreak\"][0]: wrong", error);
}

TEST(JsonInputTest, TheBracketedStyleWritesPathsAsScenarioFilesAlwaysHad) {
    Json::Value root = Parsed("{\"resultCodes\":{\"X\":\"bad\"},\"whiteList\":[\"a\",2]}");
    JsonField scenario(root, JsonPathStyle::kBracketed, "scenario");
    int code = 0;
    std::string text;
    std::string error;
    EXPECT_FALSE(scenario["resultCodes"]["X"].ReadInt(code, error));
    EXPECT_EQ("resultCodes[\"X\"]: expected a 32-bit integer, found a string", error);
    EXPECT_FALSE(scenario["whiteList"][1].ReadText(text, error));
    EXPECT_EQ("whiteList[1]: expected a string, found an integer", error);
    EXPECT_FALSE(scenario.ExpectArray(error));
    EXPECT_EQ("scenario: expected an array, found an object", error);
}

TEST(JsonInputTest, OptionalReadsTakeAbsenceAndNullButNotAWrongType) {
    Json::Value root = Parsed("{\"n\":null,\"s\":\"yes\"}");
    JsonField field(root);
    bool flag = true;
    std::string error;
    EXPECT_TRUE(field["missing"].ReadOptional(flag, error));
    EXPECT_TRUE(field["n"].ReadOptional(flag, error));
    EXPECT_TRUE(flag);
    EXPECT_FALSE(field["s"].ReadOptional(flag, error));
    EXPECT_EQ("$.s: expected true or false, found a string", error);
}

TEST(JsonInputTest, LenientReadsFallBackOnAnyOtherType) {
    Json::Value root = Parsed("{\"s\":\"t\",\"i\":3,\"d\":2.5,\"b\":true,\"o\":{}}");
    JsonField field(root);
    EXPECT_EQ("t", field["s"].TextOr("-"));
    EXPECT_EQ("-", field["o"].TextOr("-"));
    EXPECT_EQ(3, field["i"].IntOr(-1));
    EXPECT_EQ(-1, field["s"].IntOr(-1));
    EXPECT_EQ(2.5, field["d"].NumberOr(0));
    EXPECT_EQ(0, field["o"].NumberOr(0));
    EXPECT_TRUE(field["b"].BoolOr(false));
    EXPECT_FALSE(field["i"].BoolOr(false));
    EXPECT_EQ(0u, field["o"].Size());
    EXPECT_TRUE(field["s"].Keys().empty());
}

TEST(JsonInputTest, AQuotedNameIsOneLineOfJson) {
    EXPECT_EQ("\"party\"", JsonQuoted("party"));
    EXPECT_EQ("\"a\\nb\\\"c\\u0001\"", JsonQuoted("a\nb\"c\x01"));
}

}  // namespace
}  // namespace lumora::tools
