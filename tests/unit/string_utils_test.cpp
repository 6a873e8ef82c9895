#include "LxStringUtils.h"
#include "support/cases.h"
#include "support/oracle.h"

#include <fnmatch.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

using LxStringUtils::Split;
using LxStringUtils::StartsWith;
using LxStringUtils::Trim;
using LxStringUtils::WildcardedStringMatch;
using ::testing::ElementsAre;
using ::testing::PrintToString;
using namespace std::string_literals;

namespace {

using Strings = std::vector<std::string>;

// ---- Split

Strings PiecesOf(const std::string& text, char delimiter)
{
    Strings pieces;
    Split(text, delimiter, pieces);
    return pieces;
}

struct SplitCase {
    const char* name;
    std::string text;
    char delimiter;
    Strings pieces;
};

void PrintTo(const SplitCase& param, std::ostream* out)
{
    *out << param.name;
}

class SplitCaseTest : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitCaseTest, AppendsThePieces)
{
    EXPECT_EQ(GetParam().pieces, PiecesOf(GetParam().text, GetParam().delimiter));
    EXPECT_EQ(GetParam().pieces, oracle::Pieces(GetParam().text, GetParam().delimiter));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, SplitCaseTest,
    ::testing::Values(SplitCase{"Two", "a;b", ';', {"a", "b"}}, SplitCase{"NoDelimiter", "abc", ';', {"abc"}},
                      SplitCase{"Empty", "", ';', {""}}, SplitCase{"FinalDelimiter", "a;", ';', {"a"}},
                      SplitCase{"DelimiterAlone", ";", ';', {""}}, SplitCase{"TwoDelimiters", ";;", ';', {"", ""}},
                      SplitCase{"EmptyInside", "a;;b", ';', {"a", "", "b"}},
                      SplitCase{"EmptyInFront", ";a", ';', {"", "a"}},
                      SplitCase{"EmptyAtTheEnd", "a;;", ';', {"a", ""}},
                      SplitCase{"OtherMarksAreText", "a:b,c;d", ',', {"a:b", "c;d"}},
                      SplitCase{"BlanksAreKept", " a ; b ", ';', {" a ", " b "}},
                      SplitCase{"NulInThePieces", "a\0b;\0"s, ';', {"a\0b"s, "\0"s}},
                      SplitCase{"NulDelimiter", "a\0b\0"s, '\0', {"a", "b"}},
                      SplitCase{"HighDelimiter", "a\xFF\x7F\xFF", '\xFF', {"a", "\x7F"}},
                      SplitCase{"LineFeedDelimiter", "a\n\nb", '\n', {"a", "", "b"}}),
    CaseName<SplitCase>);

TEST(SplitTest, AppendsToTheVector)
{
    Strings pieces = {"before"};

    Split("a;b", ';', pieces);
    Split("", ';', pieces);

    EXPECT_THAT(pieces, ElementsAre("before", "a", "b", ""));
}

TEST(SplitTest, ReservesMemoryInANewVectorOnce)
{
    Strings pieces;

    Split("a;b;c", ';', pieces);

    EXPECT_EQ(3U, pieces.capacity());
}

TEST(SplitTest, AcceptsEveryByteValueAsDelimiter)
{
    const std::string text = AllBytes() + "=" + AllBytes();  // each value twice, and '=' three times
    for (const char delimiter : AllBytes()) {
        Strings expected(1);
        for (const char byte : text) {
            if (byte == delimiter) {
                expected.emplace_back();
            } else {
                expected.back() += byte;
            }
        }
        if (expected.back().empty()) {
            expected.pop_back();  // no piece after a final delimiter
        }

        EXPECT_EQ(expected, PiecesOf(text, delimiter)) << PrintToString(delimiter);
    }
}

// This determines the pieces of any text: there is at least one, none contains the delimiter, and joined they are the
// text without one delimiter at its end.
TEST(SplitTest, JoinedPiecesAreTheTextWithoutAFinalDelimiter)
{
    Random random(1);
    for (int i = 0; i < 50000; ++i) {
        const std::string text = random.Text("ab;;,\0\xFF"s, 12);

        const Strings pieces = PiecesOf(text, ';');

        std::string joined;
        for (std::size_t at = 0; at < pieces.size(); ++at) {
            ASSERT_EQ(std::string::npos, pieces[at].find(';')) << PrintToString(text);
            joined += at == 0 ? pieces[at] : ";" + pieces[at];
        }
        const bool endsInDelimiter = !text.empty() && text.back() == ';';
        ASSERT_FALSE(pieces.empty()) << PrintToString(text);
        ASSERT_EQ(endsInDelimiter ? text.substr(0, text.size() - 1) : text, joined) << PrintToString(pieces);
    }
}

TEST(SplitTest, MakesAMillionPieces)
{
    std::string text;
    for (int i = 0; i < 1000000; ++i) {
        text += "a;";
    }

    EXPECT_EQ(Strings(1000000, "a"), PiecesOf(text, ';'));
}

// ---- Trim

std::string Trimmed(std::string text)
{
    Trim(text);
    return text;
}

struct TrimCase {
    const char* name;
    std::string text;
    std::string trimmed;
};

void PrintTo(const TrimCase& param, std::ostream* out)
{
    *out << param.name;
}

class TrimCaseTest : public ::testing::TestWithParam<TrimCase> {};

TEST_P(TrimCaseTest, RemovesWhiteSpaceAtBothEnds)
{
    EXPECT_EQ(GetParam().trimmed, Trimmed(GetParam().text));
    EXPECT_EQ(GetParam().trimmed, oracle::Trimmed(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(Texts, TrimCaseTest,
                         ::testing::Values(TrimCase{"BothEnds", "  a b  ", "a b"}, TrimCase{"BlanksAlone", "   ", ""},
                                           TrimCase{"Empty", "", ""}, TrimCase{"Nothing", "a", "a"},
                                           TrimCase{"Front", " \t a", "a"}, TrimCase{"End", "a\r\n", "a"},
                                           TrimCase{"EachKind", " \t\n\v\f\ra\r\f\v\n\t ", "a"},
                                           TrimCase{"InnerKinds", " a \t\n\v\f\r b ", "a \t\n\v\f\r b"},
                                           TrimCase{"NulStays", " \0 "s, "\0"s},
                                           TrimCase{"NoBreakSpaceStays", "\xA0 a \x85", "\xA0 a \x85"},
                                           TrimCase{"Utf8Stays",
                                                    " \xC2\xA0"
                                                    "a\xC3\xA0 ",
                                                    "\xC2\xA0"
                                                    "a\xC3\xA0"}),
                         CaseName<TrimCase>);

TEST(TrimTest, RemovesTheSixWhiteSpaceBytesAndNoOtherValue)
{
    for (const char byte : AllBytes()) {
        const std::string one(1, byte);

        EXPECT_EQ(oracle::IsWhiteSpace(byte) ? "" : one, Trimmed(one)) << PrintToString(one);
        EXPECT_EQ(oracle::IsWhiteSpace(byte) ? "a" + one + "b" : one + "a" + one + "b" + one,
                  Trimmed(one + "a" + one + "b" + one))
            << PrintToString(one);
    }
}

TEST(TrimTest, FindsTheCoreOfAnyText)
{
    Random random(2);
    for (int i = 0; i < 50000; ++i) {
        std::string core = random.Text("a b\t\n\v\f\r\0\xFF\xA0"s, 10);
        if (core.empty() || oracle::IsWhiteSpace(core.front())) {
            core.insert(0, "x");
        }
        if (oracle::IsWhiteSpace(core.back())) {
            core += '\0';
        }
        const std::string text = random.Text(" \t\n\v\f\r", 4) + core + random.Text(" \t\n\v\f\r", 4);

        ASSERT_EQ(core, Trimmed(text)) << PrintToString(text);
    }
}

TEST(TrimTest, TrimsAMegabyteOfBlanks)
{
    EXPECT_EQ("", Trimmed(std::string(1 << 20, ' ')));
    EXPECT_EQ("a", Trimmed(std::string(1 << 20, ' ') + "a" + std::string(1 << 20, '\t')));
}

// ---- StartsWith

struct StartsWithCase {
    const char* name;
    std::string text;
    std::string prefix;
    bool startsWith;
};

void PrintTo(const StartsWithCase& param, std::ostream* out)
{
    *out << param.name;
}

class StartsWithCaseTest : public ::testing::TestWithParam<StartsWithCase> {};

TEST_P(StartsWithCaseTest, ComparesTheFirstBytes)
{
    EXPECT_EQ(GetParam().startsWith, StartsWith(GetParam().text, GetParam().prefix));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, StartsWithCaseTest,
    ::testing::Values(StartsWithCase{"Begins", "# note", "#", true},
                      StartsWithCase{"PrefixIsLonger", "#", "# note", false},
                      StartsWithCase{"CaseCounts", "Key", "key", false}, StartsWithCase{"Equal", "key", "key", true},
                      StartsWithCase{"EmptyPrefix", "key", "", true}, StartsWithCase{"BothEmpty", "", "", true},
                      StartsWithCase{"EmptyText", "", "#", false}, StartsWithCase{"InTheMiddle", "a#", "#", false},
                      StartsWithCase{"LastByteDiffers", "//", "/*", false},
                      StartsWithCase{"BlankCounts", " #", "#", false},
                      StartsWithCase{"NulIsAByte", "\0a"s, "\0a"s, true},
                      StartsWithCase{"NulDoesNotEndThePrefix", "\0a"s, "\0b"s, false},
                      StartsWithCase{"NulDoesNotEndTheText", "a\0"s, "a\0b"s, false},
                      StartsWithCase{"WildcardsAreText", "abc", "a*", false}),
    CaseName<StartsWithCase>);

TEST(StartsWithTest, DistinguishesAllByteValues)
{
    for (const char first : AllBytes()) {
        for (const char prefix : AllBytes()) {
            ASSERT_EQ(first == prefix, StartsWith(std::string(1, first) + "x", std::string(1, prefix)))
                << PrintToString(first) << PrintToString(prefix);
        }
    }
}

TEST(StartsWithTest, IsTrueForAnyTextAfterThePrefix)
{
    Random random(3);
    int others = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string prefix = random.Text("ab\0\xFF"s, 6);
        const std::string text = random.Text("ab\0\xFF"s, 6);
        const bool same = text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin());
        others += !same;

        ASSERT_TRUE(StartsWith(prefix + text, prefix)) << PrintToString(prefix) << PrintToString(text);
        ASSERT_EQ(same, StartsWith(text, prefix)) << PrintToString(prefix) << PrintToString(text);
    }
    EXPECT_LT(1000, others);
}

// ---- WildcardedStringMatch

struct MatchCase {
    const char* name;
    std::string text;
    std::string pattern;
    bool matches;
};

void PrintTo(const MatchCase& param, std::ostream* out)
{
    *out << param.name;
}

class MatchCaseTest : public ::testing::TestWithParam<MatchCase> {};

TEST_P(MatchCaseTest, ComparesTheWholeText)
{
    EXPECT_EQ(GetParam().matches, WildcardedStringMatch(GetParam().text, GetParam().pattern));
    EXPECT_EQ(GetParam().matches, oracle::Matches(GetParam().text, GetParam().pattern));
}

INSTANTIATE_TEST_SUITE_P(Literals, MatchCaseTest,
                         ::testing::Values(MatchCase{"Identical", "report.txt", "report.txt", true},
                                           MatchCase{"BothEmpty", "", "", true},
                                           MatchCase{"EmptyPattern", "a", "", false},
                                           MatchCase{"EmptyText", "", "a", false},
                                           MatchCase{"CaseCounts", "Report", "report", false},
                                           MatchCase{"PatternEndsEarly", "report.txt", "report", false},
                                           MatchCase{"TextEndsEarly", "report", "report.txt", false},
                                           MatchCase{"PatternIsInside", "a report b", "report", false},
                                           MatchCase{"BackslashDoesNotEscape", "a*b", "a\\*b", false},
                                           MatchCase{"BackslashIsText", "a\\xb", "a\\*b", true},
                                           MatchCase{"BracketsAreNoClass", "a", "[a]", false},
                                           MatchCase{"BracketsAreText", "[a]", "[a]", true},
                                           MatchCase{"BracesAreText", "{a,b}", "{a,b}", true},
                                           MatchCase{"BracesAreNoChoice", "a", "{a,b}", false},
                                           MatchCase{"NulDoesNotEndTheText", "a\0b"s, "a", false},
                                           MatchCase{"NulDoesNotEndThePattern", "a", "a\0b"s, false}),
                         CaseName<MatchCase>);

INSTANTIATE_TEST_SUITE_P(
    Wildcards, MatchCaseTest,
    ::testing::Values(
        MatchCase{"StarTakesAnything", "report.txt", "*", true}, MatchCase{"StarTakesNothing", "", "*", true},
        MatchCase{"StarAtTheEnd", "report.txt", "report*", true},
        MatchCase{"StarAtTheEndOfTheSame", "report", "report*", true},
        MatchCase{"StarInFront", "report.txt", "*.txt", true},
        MatchCase{"StarInFrontOfAnotherEnd", "report.txt", "*.log", false},
        MatchCase{"StarInside", "report.txt", "r*t", true}, MatchCase{"StarInsideTakesNothing", "rt", "r*t", true},
        MatchCase{"StarDoesNotReuseText", "a", "a*a", false}, MatchCase{"StarTriesAgain", "aXbXc", "a*Xc", true},
        MatchCase{"TwoStars", "mississippi", "m*iss*pi", true},
        MatchCase{"TwoStarsThatDoNotFit", "mississippi", "m*issx*pi", false},
        MatchCase{"ManyStarsAreOne", "a", "***a***", true}, MatchCase{"StarTakesDots", ".profile", "*", true},
        MatchCase{"StarTakesSlashes", "a/b", "a*b", true}, MatchCase{"StarTakesLineFeeds", "a\n\nb", "a*b", true},
        MatchCase{"QuestionMarkTakesOne", "report1", "report?", true},
        MatchCase{"QuestionMarkTakesNotNone", "report", "report?", false},
        MatchCase{"QuestionMarkTakesNotTwo", "report12", "report?", false},
        MatchCase{"QuestionMarkTakesADot", ".a", "?a", true},
        MatchCase{"QuestionMarkTakesAByte", "\xC3\xA4", "?", false}, MatchCase{"QuestionMarkNeedsText", "", "?", false},
        MatchCase{"StarAndQuestionMark", "", "*?", false}, MatchCase{"QuestionMarkAndStar", "a", "?*", true},
        MatchCase{"StarMatchesAStar", "*", "*", true}, MatchCase{"StarInTheTextIsText", "*", "a", false},
        MatchCase{"QuestionMarkInTheTextIsText", "?", "a", false}, MatchCase{"TwoMarksAroundAStar", "ab", "?*?", true},
        MatchCase{"TwoMarksNeedTwoBytes", "a", "?*?", false}),
    CaseName<MatchCase>);

TEST(WildcardedStringMatchTest, EveryByteValueExceptTheWildcardsMatchesOnlyItself)
{
    for (const char byte : AllBytes()) {
        for (const char literal : AllBytes()) {
            const bool wild = literal == '*' || literal == '?';
            ASSERT_EQ(wild || byte == literal, WildcardedStringMatch(std::string(1, byte), std::string(1, literal)))
                << PrintToString(byte) << PrintToString(literal);
        }
    }
}

TEST(WildcardedStringMatchTest, WildcardsMatchEveryByteValue)
{
    EXPECT_TRUE(WildcardedStringMatch(AllBytes(), std::string(256, '?')));
    EXPECT_FALSE(WildcardedStringMatch(AllBytes(), std::string(257, '?')));
    EXPECT_TRUE(WildcardedStringMatch(AllBytes(), "*"));
    EXPECT_TRUE(WildcardedStringMatch(AllBytes(), "*\x80*"));
    EXPECT_TRUE(WildcardedStringMatch(AllBytes(), "\0*\xFF"s));
}

TEST(WildcardedStringMatchTest, AgreesWithAModelThatTriesAllPositions)
{
    Random random(4);
    int matches = 0;
    for (int i = 0; i < 50000; ++i) {
        const std::string text = random.Text("ab\0\xFF"s, 12);
        const std::string pattern = random.Text("aab**?\0\xFF"s, 8);
        const bool expected = oracle::Matches(text, pattern);
        matches += expected;

        ASSERT_EQ(expected, WildcardedStringMatch(text, pattern)) << PrintToString(text) << PrintToString(pattern);
    }
    EXPECT_LT(2000, matches);
    EXPECT_GT(48000, matches);
}

// Segments of 1 to 40 bytes between stars, with and without question marks, are found at every position, but not if one
// byte differs.
TEST(WildcardedStringMatchTest, FindsSegmentsOfEveryLengthBetweenStars)
{
    for (std::size_t bytes = 1; bytes <= 40; ++bytes) {
        const std::string part = std::string(bytes - 1, 'a') + 'b';
        for (std::size_t mark = 0; mark <= bytes; ++mark) {
            std::string wild = part;
            wild.replace(mark == bytes ? 0 : mark, mark == bytes ? 0 : 1, mark == bytes ? "" : "?");
            for (const char* const before : {"", "a", "ab", "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb"}) {
                for (const std::string& text : {before + part + "c", before + part.substr(1) + "c"}) {
                    const std::string pattern = '*' + wild + "*c";
                    ASSERT_EQ(oracle::Matches(text, pattern), WildcardedStringMatch(text, pattern))
                        << text << " " << pattern;
                }
            }
        }
    }
}

// For all patterns without brackets and NUL bytes, fnmatch(3) has the same result.
TEST(WildcardedStringMatchTest, AgreesWithTheFileNameMatcherOfTheSystem)
{
    Random random(5);
    int matches = 0;
    for (int i = 0; i < 50000; ++i) {
        const std::string text = random.Text("aab./*?\\", 10);
        const std::string pattern = random.Text("aab./**?\\", 8);
        const bool expected = fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
        matches += expected;

        ASSERT_EQ(expected, WildcardedStringMatch(text, pattern)) << PrintToString(text) << PrintToString(pattern);
    }
    EXPECT_LT(1000, matches);
    EXPECT_GT(49000, matches);
}

TEST(WildcardedStringMatchTest, ATextWithoutWildcardsMatchesItself)
{
    std::string alphabet = AllBytes();
    alphabet.erase(std::remove_if(alphabet.begin(), alphabet.end(), [](char c) { return c == '*' || c == '?'; }),
                   alphabet.end());
    Random random(6);
    for (int i = 0; i < 10000; ++i) {
        const std::string text = random.Text(alphabet, 40);

        ASSERT_TRUE(WildcardedStringMatch(text, text)) << PrintToString(text);
        ASSERT_FALSE(WildcardedStringMatch(text, text + "a")) << PrintToString(text);
        ASSERT_FALSE(WildcardedStringMatch(text + "a", text)) << PrintToString(text);
    }
}

// A matcher that tries all ways to distribute the text among the stars would not end here.
TEST(WildcardedStringMatchTest, EndsInTimeWithManyStars)
{
    const std::string text(5000, 'a');
    std::string pattern;
    for (int i = 0; i < 60; ++i) {
        pattern += "a*";
    }

    EXPECT_TRUE(WildcardedStringMatch(text, pattern));
    EXPECT_FALSE(WildcardedStringMatch(text, pattern + "b"));
}

// A matcher that calls itself for each byte would run out of stack here.
TEST(WildcardedStringMatchTest, MatchesTextsAndPatternsOfMegabytes)
{
    const std::string text(4 << 20, 'a');

    EXPECT_TRUE(WildcardedStringMatch(text, "*"));
    EXPECT_TRUE(WildcardedStringMatch(text, "*a"));
    EXPECT_FALSE(WildcardedStringMatch(text, "*b"));
    EXPECT_TRUE(WildcardedStringMatch(text, text));
    EXPECT_TRUE(WildcardedStringMatch(text, std::string(4 << 20, '?')));
    EXPECT_TRUE(WildcardedStringMatch("a", std::string(4 << 20, '*')));
}

}  // namespace
