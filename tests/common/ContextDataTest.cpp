// ContextData: parsing, accessors, arrays, copies and malformed input.
#include <gtest/gtest.h>
#include <lumora/ContextData.h>

#include <string>

namespace {

std::string Text(ContextData& doc) { return doc.MakeStr(); }

ContextData Parsed(const char* json) {
    ContextData doc;
    EXPECT_TRUE(doc.MakeData(json)) << json;
    return doc;
}

TEST(ContextDataTest, EmptyTextIsNotADocument) {
    ContextData doc;
    EXPECT_FALSE(doc.MakeData(""));
}

TEST(ContextDataTest, TruncatedTextIsNotADocument) {
    ContextData doc;
    EXPECT_FALSE(doc.MakeData("{\"a\": [1, 2"));
    EXPECT_FALSE(doc.MakeData("{\"a\": \"unterminated"));
    EXPECT_FALSE(doc.MakeData("{\"a\":"));
}

TEST(ContextDataTest, NullPointerIsNotADocumentAndDoesNotCrash) {
    ContextData doc;
    EXPECT_FALSE(doc.MakeData(nullptr));
    EXPECT_STREQ("{}", doc.MakeStr());
}

TEST(ContextDataTest, TrailingGarbageIsNotADocument) {
    ContextData doc;
    EXPECT_FALSE(doc.MakeData("{} x"));
    EXPECT_FALSE(doc.MakeData("{}{}"));
}

TEST(ContextDataTest, FailedParseLeavesTheDocumentAsItWas) {
    ContextData doc = Parsed("{\"keep\":1}");
    EXPECT_FALSE(doc.MakeData("{\"keep\":"));
    EXPECT_EQ(1, doc.GetValueInt("keep"));
    EXPECT_EQ("{\"keep\":1}", Text(doc));
}

TEST(ContextDataTest, DeepNestingBeyondTheParserLimitFailsWithoutThrowing) {
    std::string deep(5000, '[');
    deep += std::string(5000, ']');
    ContextData doc;
    EXPECT_FALSE(doc.MakeData(deep.c_str()));
}

TEST(ContextDataTest, EmptyDocumentSerialisesAsAnEmptyObject) {
    ContextData doc;
    EXPECT_STREQ("{}", doc.MakeStr());
}

TEST(ContextDataTest, MakeStrIsCompactAndOwnedByTheDocument) {
    ContextData doc;
    doc.SetValue("a", 1);
    doc.SetValue("b", "x y");
    char* text = doc.MakeStr();
    EXPECT_STREQ("{\"a\":1,\"b\":\"x y\"}", text);
    doc.SetValue("a", 2);
    EXPECT_STREQ("{\"a\":2,\"b\":\"x y\"}", doc.MakeStr());
}

TEST(ContextDataTest, MakeStrKeepsUtf8Readable) {
    ContextData doc = Parsed("{\"name\":\"Télé 1\"}");
    EXPECT_EQ("{\"name\":\"Télé 1\"}", Text(doc));
}

TEST(ContextDataTest, GetSizeOfMissingKeyIsZero) {
    ContextData doc = Parsed("{\"a\":1}");
    EXPECT_EQ(0, doc.GetSize("missing"));
}

TEST(ContextDataTest, GetSizeOfEmptyArrayIsZero) {
    ContextData doc = Parsed("{\"ChList\":[]}");
    EXPECT_EQ(0, doc.GetSize("ChList"));
}

TEST(ContextDataTest, GetSizeOfNonArrayIsZero) {
    ContextData doc = Parsed("{\"a\":{\"b\":1},\"s\":\"abc\"}");
    EXPECT_EQ(0, doc.GetSize("a"));
    EXPECT_EQ(0, doc.GetSize("s"));
}

TEST(ContextDataTest, TwoAppendsMakeAnArrayOfTwoObjectsInCallOrder) {
    ContextData doc;
    ContextData first;
    first.SetValue("value", "one");
    ContextData second;
    second.SetValue("value", "two");
    doc.SetValue("param", first);
    doc.SetValue("param", second);
    EXPECT_EQ(2, doc.GetSize("param"));
    EXPECT_EQ("one", doc.GetValue("param", 0).GetValueStr("value"));
    EXPECT_EQ("two", doc.GetValue("param", 1).GetValueStr("value"));
    EXPECT_EQ("{\"param\":[{\"value\":\"one\"},{\"value\":\"two\"}]}", Text(doc));
}

TEST(ContextDataTest, SetValueNoArryTwiceKeepsOnlyTheSecondDocument) {
    ContextData doc;
    ContextData first;
    first.SetValue("n", 1);
    ContextData second;
    second.SetValue("n", 2);
    doc.SetValueNoArry("x", first);
    doc.SetValueNoArry("x", second);
    EXPECT_EQ(0, doc.GetSize("x"));
    EXPECT_EQ(2, doc.GetValue("x").GetValueInt("n"));
    EXPECT_EQ("{\"x\":{\"n\":2}}", Text(doc));
}

TEST(ContextDataTest, AppendingToAScalarMemberReplacesItWithAnArray) {
    ContextData doc = Parsed("{\"param\":5}");
    ContextData element;
    element.SetValue("value", "v");
    doc.SetValue("param", element);
    EXPECT_EQ("{\"param\":[{\"value\":\"v\"}]}", Text(doc));
}

TEST(ContextDataTest, AppendingADocumentToItselfCopiesItsFormerRoot) {
    ContextData doc;
    doc.SetValue("a", 1);
    doc.SetValue("self", doc);
    EXPECT_EQ("{\"a\":1,\"self\":[{\"a\":1}]}", Text(doc));
}

TEST(ContextDataTest, GetValueStrOfMissingKeyIsEmpty) {
    ContextData doc = Parsed("{\"a\":\"x\"}");
    EXPECT_EQ("", doc.GetValueStr("missing"));
}

TEST(ContextDataTest, GetValueStrConvertsScalarsAndRefusesContainers) {
    ContextData doc = Parsed("{\"i\":42,\"b\":true,\"n\":null,\"o\":{},\"a\":[1]}");
    EXPECT_EQ("42", doc.GetValueStr("i"));
    EXPECT_EQ("true", doc.GetValueStr("b"));
    EXPECT_EQ("", doc.GetValueStr("n"));
    EXPECT_EQ("", doc.GetValueStr("o"));
    EXPECT_EQ("", doc.GetValueStr("a"));
}

TEST(ContextDataTest, GetValueIntOfWrongTypesIsZero) {
    ContextData doc = Parsed("{\"s\":\"12\",\"o\":{},\"big\":99999999999,\"r\":7.9,\"neg\":-3}");
    EXPECT_EQ(0, doc.GetValueInt("s"));
    EXPECT_EQ(0, doc.GetValueInt("o"));
    EXPECT_EQ(0, doc.GetValueInt("big"));
    EXPECT_EQ(0, doc.GetValueInt("missing"));
    EXPECT_EQ(7, doc.GetValueInt("r"));
    EXPECT_EQ(-3, doc.GetValueInt("neg"));
}

TEST(ContextDataTest, IsValidOfExplicitNullIsFalse) {
    ContextData doc = Parsed("{\"ChType\":null,\"SrcType\":\"RF\"}");
    EXPECT_FALSE(doc.IsValid("ChType"));
    EXPECT_TRUE(doc.IsValid("SrcType"));
    EXPECT_FALSE(doc.IsValid("missing"));
}

TEST(ContextDataTest, IsValidOfMemberSetToNullStringIsFalse) {
    ContextData doc;
    doc.SetValue("x", static_cast<const char*>(nullptr));
    EXPECT_FALSE(doc.IsValid("x"));
    EXPECT_EQ("{\"x\":null}", Text(doc));
}

TEST(ContextDataTest, ScalarSettersReplaceEarlierValues) {
    ContextData doc;
    doc.SetValue("k", 1);
    doc.SetValue("k", std::string("two"));
    EXPECT_EQ("two", doc.GetValueStr("k"));
    doc.SetValue("k", "three");
    EXPECT_EQ("{\"k\":\"three\"}", Text(doc));
}

TEST(ContextDataTest, GetValueCopiesAMemberAsItsOwnDocument) {
    ContextData doc = Parsed("{\"AccessibilityShortCut\":{\"mode\":\"edit\"}}");
    ContextData entry = doc.GetValue("AccessibilityShortCut");
    entry.SetValue("mode", "default");
    EXPECT_EQ("default", entry.GetValueStr("mode"));
    EXPECT_EQ("edit", doc.GetValue("AccessibilityShortCut").GetValueStr("mode"));
}

TEST(ContextDataTest, GetValueOfMissingMemberIsAnEmptyDocument) {
    ContextData doc = Parsed("{\"a\":1}");
    ContextData missing = doc.GetValue("missing");
    EXPECT_STREQ("{}", missing.MakeStr());
}

TEST(ContextDataTest, OutOfRangeIndexesGiveEmptyResults) {
    ContextData doc = Parsed("{\"WhiteList\":[\"a\"],\"ChList\":[{\"x\":1}]}");
    EXPECT_EQ("", doc.GetValueStrFromArray("WhiteList", 1));
    EXPECT_EQ("", doc.GetValueStrFromArray("WhiteList", -1));
    EXPECT_STREQ("{}", doc.GetValue("ChList", 5).MakeStr());
    EXPECT_STREQ("{}", doc.GetValue("ChList", -1).MakeStr());
    EXPECT_STREQ("{}", doc.GetValue("WhiteList", 0).GetValue("x").MakeStr());
}

TEST(ContextDataTest, ReadingAStringArrayFollowsTheWhiteListPattern) {
    ContextData doc = Parsed("{\"WhiteList\":[\"app-a\",\"app-b\",\"app-c\"]}");
    ASSERT_TRUE(doc.IsValid("WhiteList"));
    ASSERT_EQ(3, doc.GetSize("WhiteList"));
    EXPECT_EQ("app-a", doc.GetValueStrFromArray("WhiteList", 0));
    EXPECT_EQ("app-c", doc.GetValueStrFromArray("WhiteList", 2));
}

TEST(ContextDataTest, FilteringAListKeepsOrderAndDropsNullMembers) {
    ContextData in = Parsed(
        "{\"ChList\":[{\"SrcType\":\"RF\",\"ChType\":1},{\"SrcType\":\"STB\",\"ChType\":null},"
        "{\"SrcType\":\"RF\"}]}");
    ContextData out;
    for (int i = 0; i < in.GetSize("ChList"); ++i) {
        ContextData element = in.GetValue("ChList", i);
        if (!element.IsValid("ChType")) element.RemoveMember("ChType");
        out.SetValue("ChList", element);
    }
    EXPECT_EQ("{\"ChList\":[{\"ChType\":1,\"SrcType\":\"RF\"},{\"SrcType\":\"STB\"},{\"SrcType\":\"RF\"}]}", Text(out));
}

TEST(ContextDataTest, RemoveMemberOfAbsentKeyDoesNothing) {
    ContextData doc = Parsed("{\"a\":1}");
    doc.RemoveMember("b");
    EXPECT_EQ("{\"a\":1}", Text(doc));
    doc.RemoveMember("a");
    EXPECT_EQ("{}", Text(doc));
}

TEST(ContextDataTest, NonObjectRootsAnswerLikeEmptyDocuments) {
    for (const char* json : {"[1,2,3]", "5", "\"text\"", "null", "true"}) {
        ContextData doc = Parsed(json);
        EXPECT_FALSE(doc.IsValid("a")) << json;
        EXPECT_EQ(0, doc.GetSize("a")) << json;
        EXPECT_EQ("", doc.GetValueStr("a")) << json;
        EXPECT_EQ(0, doc.GetValueInt("a")) << json;
        doc.RemoveMember("a");
        doc.SetValue("a", 1);
        EXPECT_EQ("{\"a\":1}", Text(doc)) << json;
    }
}

TEST(ContextDataTest, NullKeysAreIgnored) {
    ContextData doc;
    ContextData other;
    doc.SetValue(nullptr, 1);
    doc.SetValue(nullptr, "x");
    doc.SetValue(nullptr, std::string("x"));
    doc.SetValue(nullptr, other);
    doc.SetValueNoArry(nullptr, other);
    doc.RemoveMember(nullptr);
    EXPECT_FALSE(doc.IsValid(nullptr));
    EXPECT_EQ(0, doc.GetSize(nullptr));
    EXPECT_EQ("", doc.GetValueStr(nullptr));
    EXPECT_EQ("{}", Text(doc));
}

TEST(ContextDataTest, CopiesAreDeep) {
    ContextData original = Parsed("{\"list\":[{\"a\":1}]}");
    ContextData copy = original;
    ContextData element;
    element.SetValue("a", 2);
    copy.SetValue("list", element);
    EXPECT_EQ(1, original.GetSize("list"));
    EXPECT_EQ(2, copy.GetSize("list"));
    ContextData assigned;
    assigned = original;
    original.RemoveMember("list");
    EXPECT_EQ(1, assigned.GetSize("list"));
}

TEST(ContextDataTest, MovedDocumentKeepsItsContent) {
    ContextData source = Parsed("{\"k\":\"v\"}");
    ContextData moved(std::move(source));
    EXPECT_EQ("v", moved.GetValueStr("k"));
}

}  // namespace
