#include <gtest/gtest.h>

#include <sstream>

#include "text/CharacterEntities.h"
#include "text/LineReader.h"
#include "text/ReplaceAll.h"

namespace vexa {
namespace {

TEST(ReplaceAll, SearchesNoInsertedTextAndToleratesAnEmptyOne) {
    EXPECT_EQ(ReplaceAll("a\\b\\\\c", "\\", ""), "abc");
    EXPECT_EQ(ReplaceAll("aaa", "a", "aa"), "aaaaaa");
    EXPECT_EQ(ReplaceAll("aaa", "aa", "b"), "ba");
    EXPECT_EQ(ReplaceAll("abc", "", "x"), "abc");
}

TEST(CharacterEntities, RoundTripAndLeaveOtherTextAlone) {
    EXPECT_EQ(EncodeEntities("a<b> & c"), "a&#60;b&#62; &#38; c");
    EXPECT_EQ(DecodeEntities("a&#60;b&#62; &#38; c &#65; &# &"), "a<b> & c &#65; &# &");
    EXPECT_EQ(DecodeEntities(EncodeEntities("&#38;<>&")), "&#38;<>&");
}

TEST(LineReader, AcceptsEveryLineEndAndALastLineWithoutOne) {
    std::istringstream text("one\n\r\ntwo\rthree\n\nfour");
    LineReader reader(text);
    std::string line;
    for (const char* expected : {"one", "", "two", "three", "", "four"}) {
        ASSERT_TRUE(reader.Next(line));
        EXPECT_EQ(line, expected);
    }
    EXPECT_EQ(reader.LineNumber(), 6);
    EXPECT_FALSE(reader.Next(line));
    EXPECT_EQ(reader.LineNumber(), 6);
}

}  // namespace
}  // namespace vexa
