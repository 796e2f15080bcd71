#include "common/IniFileParser.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>

#include "common/OVRAException.h"
#include "tests/support/Sandbox.h"

namespace {

struct Failure {
    bool thrown = false;
    std::uint32_t code = 0;
    std::string message;
    std::uint32_t lineNumber = 0;
};

class IniFileParserTest : public ::testing::Test {
protected:
    void parse(const std::string& content) {
        std::istringstream input(content);
        parser.parse(input);
    }

    Failure parseFailure(const std::string& content) {
        Failure failure;
        try {
            parse(content);
        } catch (const IniFileParserException& e) {
            failure = {true, e.getCode(), e.what(), e.lineNumber};
        }
        return failure;
    }

    void expectSyntaxError(const std::string& content, const std::string& message, std::uint32_t line) {
        SCOPED_TRACE(testing::Message() << "content: \"" << content << "\"");
        IniFileParser fresh;
        std::swap(parser, fresh);
        const Failure failure = parseFailure(content);
        EXPECT_TRUE(failure.thrown);
        EXPECT_EQ(failure.code, 413U);
        EXPECT_EQ(failure.message, message);
        EXPECT_EQ(failure.lineNumber, line);
    }

    std::string value(const std::string& header, const std::string& name) {
        std::string text;
        EXPECT_EQ(parser.getString(header, name, text), 0) << header << "/" << name;
        return text;
    }

    IniFileParser parser;
};

TEST_F(IniFileParserTest, ParsesHeadersAndParameters) {
    parse("[Protocol]\nT1D_VER = 0102\nDIAG_INTF_VER=7\n\n[Other]\n  name\t=  two words  \n");
    EXPECT_EQ(value("Protocol", "T1D_VER"), "0102");
    EXPECT_EQ(value("Protocol", "DIAG_INTF_VER"), "7");
    EXPECT_EQ(value("Other", "name"), "two words");
    EXPECT_TRUE(parser.containsHeader("Other"));
    EXPECT_FALSE(parser.containsHeader("other"));
    EXPECT_FALSE(parser.containsParameter("Protocol", "t1d_ver"));
    EXPECT_FALSE(parser.containsParameter("Missing", "T1D_VER"));
}

TEST_F(IniFileParserTest, HeaderNameIsTrimmed) {
    parse("[ Sec ]\nk=v\n[\tTabbed\r]\n");
    EXPECT_TRUE(parser.containsHeader("Sec"));
    EXPECT_TRUE(parser.containsHeader("Tabbed"));
    EXPECT_EQ(value("Sec", "k"), "v");
}

TEST_F(IniFileParserTest, CarriageReturnsAndLeadingBlanksAreIgnored) {
    parse("\t [S]\r\n\r\n  \tk=v\r\n");
    EXPECT_EQ(value("S", "k"), "v");
}

TEST_F(IniFileParserTest, BracketsInsideNamesAndValuesAreOrdinary) {
    parse("[S]\na[1]=x\nlist=[1,2]\n]odd=y\n");
    EXPECT_EQ(value("S", "a[1]"), "x");
    EXPECT_EQ(value("S", "list"), "[1,2]");
    EXPECT_EQ(value("S", "]odd"), "y");
}

TEST_F(IniFileParserTest, SemicolonStartsACommentAnywhere) {
    parse(";[not a header]=x\n[S] ; the section\nkey=value ; note\nother=a;b=c\n   ; indented\n[T];\nlast=1;");
    EXPECT_EQ(value("S", "key"), "value");
    EXPECT_EQ(value("S", "other"), "a");
    EXPECT_FALSE(parser.containsParameter("S", "b"));
    EXPECT_FALSE(parser.containsHeader("not a header"));
    EXPECT_EQ(value("T", "last"), "1");
}

TEST_F(IniFileParserTest, CommentInsideAHeaderOrNameEndsTheLineEarly) {
    expectSyntaxError("[Sec;tion]\n", "']' not found for header", 1);
    expectSyntaxError("[S]\nna;me=v\n", "Invalid line: missing '=' and value", 2);
    expectSyntaxError("[S]\nk=;v\n", "Empty parameter value after '=' ", 2);
}

TEST_F(IniFileParserTest, LongCommentDoesNotCountTowardsTheLimit) {
    parse("[S]\nk=v ;" + std::string(500, 'c') + "\nn=w\n");
    EXPECT_EQ(value("S", "k"), "v");
    EXPECT_EQ(value("S", "n"), "w");
}

TEST_F(IniFileParserTest, RepeatedHeaderMergesItsParts) {
    parse("[S]\na=1\n[T]\nb=2\n[S]\nc=3\n");
    EXPECT_EQ(value("S", "a"), "1");
    EXPECT_EQ(value("S", "c"), "3");
    EXPECT_FALSE(parser.containsParameter("T", "a"));
}

TEST_F(IniFileParserTest, TextAfterAHeaderIsDropped) {
    parse("[S] trailing words\nk=v\n");
    EXPECT_EQ(value("S", "k"), "v");
    EXPECT_FALSE(parser.containsParameter("S", "trailing words"));
}

TEST_F(IniFileParserTest, LastLineWithoutLineFeedIsStored) {
    parse("[S]\nk=v");
    EXPECT_EQ(value("S", "k"), "v");
}

TEST_F(IniFileParserTest, EverySyntaxErrorWithItsLine) {
    expectSyntaxError("[]\n", "Empty header name:[]", 1);
    expectSyntaxError("[S]\n[ \t ]\n", "Empty header name:[]", 2);
    expectSyntaxError("[S]\n=x\n", "'=' is valid only between property name and value", 2);
    expectSyntaxError("[S]\n  =x\n", "'=' is valid only between property name and value", 2);
    expectSyntaxError("[S]\nk=a=b\n", "'=' is valid only between property name and value", 2);
    expectSyntaxError("[S=]\n", "'=' is valid only between property name and value", 1);
    expectSyntaxError("[S]=\n", "'=' is valid only between property name and value", 1);
    expectSyntaxError("[S]\n\n; comment\nname\n", "Invalid line: missing '=' and value", 4);
    expectSyntaxError("[S]\nn=\n", "Empty parameter value after '=' ", 2);
    expectSyntaxError("[S]\nn= \t \r\n", "Empty parameter value after '=' ", 2);
    expectSyntaxError("[S\n", "']' not found for header", 1);
    expectSyntaxError("[S[T]\n", "'[' is an invalid in header string or in header line except in the beginning", 1);
    expectSyntaxError("[S] [T]\n", "'[' is an invalid in header string or in header line except in the beginning", 1);
    expectSyntaxError("[S]]\n", "Found ']' on header line after header string is complete", 1);
    expectSyntaxError("[S]\nk=1\nk=2\n", "header: S: duplicated parameter name: k", 3);
    expectSyntaxError("k=v\n", "header not found: ", 1);
    expectSyntaxError("\n\nk=v\n[S]\n", "header not found: ", 3);
}

TEST_F(IniFileParserTest, PendingTextAtEndOfFile) {
    expectSyntaxError("[S]\nname", "Misplaced string:'name' at end of file", 2);
    expectSyntaxError("[S]\n[T", "Misplaced string:'T' at end of file", 2);
    expectSyntaxError("[S] junk", "Misplaced string:' junk' at end of file", 1);
    // A value line without its line feed is stored like one with it, so an empty one fails alike.
    expectSyntaxError("[S]\nn=", "Empty parameter value after '=' ", 2);
    expectSyntaxError("[S]\nn=  ", "Empty parameter value after '=' ", 2);
}

TEST_F(IniFileParserTest, MisplacedTextIsCutInTheMessage) {
    const Failure failure = parseFailure("[S]\n" + std::string(120, 'n'));
    EXPECT_EQ(failure.message, "Misplaced string:'" + std::string(127 - 18, 'n'));
}

TEST_F(IniFileParserTest, EndingInAnOpenBracketOrBlankIsAccepted) {
    parse("[S]\nk=v\n[");
    EXPECT_EQ(value("S", "k"), "v");
    IniFileParser blank;
    std::istringstream input("[S]\n   \t");
    EXPECT_NO_THROW(blank.parse(input));
}

TEST_F(IniFileParserTest, ContentBeforeAnErrorStays) {
    const Failure failure = parseFailure("[S]\na=1\nbroken\nb=2\n");
    EXPECT_EQ(failure.lineNumber, 3U);
    EXPECT_EQ(value("S", "a"), "1");
    EXPECT_FALSE(parser.containsParameter("S", "b"));
}

TEST_F(IniFileParserTest, TokensOf127CharactersAreAccepted) {
    const std::string longest(127, 'h');
    parse("[" + longest + "]\n" + longest + "=" + longest + "\n");
    EXPECT_EQ(value(longest, longest), longest);
}

TEST_F(IniFileParserTest, The128thCharacterFailsOnTheNextOne) {
    const std::string tooLong(128, 'x');
    const std::string limit = "Maximum size of header, name or value exceeded";
    expectSyntaxError("[S]\nk=" + tooLong + "\n", limit, 2);
    expectSyntaxError("[" + tooLong + "]\n", limit, 1);
    expectSyntaxError("[S]\n" + tooLong + "=v\n", limit, 2);
    expectSyntaxError("[S]\nk=" + tooLong + ";comment\n", limit, 2);
    expectSyntaxError("[S]\nk=" + tooLong + "x", limit, 2);
    // Blanks after '=' count, as read; the value is trimmed only afterwards.
    expectSyntaxError("[S]\nk= " + std::string(127, 'v') + "\n", limit, 2);
    expectSyntaxError("[S]" + tooLong + "\n", limit, 1);
}

TEST_F(IniFileParserTest, ValueOf128CharactersAtEndOfFileIsAccepted) {
    const std::string atEnd(128, 'x');
    parse("[S]\nk=" + atEnd);
    EXPECT_EQ(value("S", "k"), atEnd);
}

TEST_F(IniFileParserTest, StripRemovesBlanksTabsReturnsAndLineFeeds) {
    EXPECT_EQ(IniFileParser::stripLeadingTrailingSpaces(" \t\r\na b\n\r\t "), "a b");
    EXPECT_EQ(IniFileParser::stripLeadingTrailingSpaces(" \t\r\n"), "");
    EXPECT_EQ(IniFileParser::stripLeadingTrailingSpaces(""), "");
    EXPECT_EQ(IniFileParser::stripLeadingTrailingSpaces("\vx\f"), "\vx\f");
}

TEST_F(IniFileParserTest, InsertParameterChecksHeaderAndDuplicates) {
    parser.insertHeader("S");
    parser.insertParameter("S", "k", "v", 4);
    parser.insertHeader("S");
    EXPECT_TRUE(parser.containsParameter("S", "k")) << "inserting an existing header keeps its content";
    try {
        parser.insertParameter("X", "k", "v", 17);
        FAIL() << "no exception";
    } catch (const IniFileParserException& e) {
        EXPECT_EQ(e.getCode(), 413U);
        EXPECT_STREQ(e.what(), "header not found: X");
        EXPECT_EQ(e.lineNumber, 17U);
    }
    try {
        parser.insertParameter("S", "k", "w", 9);
        FAIL() << "no exception";
    } catch (const IniFileParserException& e) {
        EXPECT_STREQ(e.what(), "header: S: duplicated parameter name: k");
        EXPECT_EQ(e.lineNumber, 9U);
    }
    EXPECT_EQ(value("S", "k"), "v");
}

// The getters, on values inserted directly (some of them cannot come out of a parse).
class IniFileParserGetterTest : public IniFileParserTest {
protected:
    void SetUp() override { parser.insertHeader("G"); }
    void set(const std::string& name, const std::string& text) { parser.insertParameter("G", name, text, 1); }

    template <typename Action> std::string stdoutOf(Action action) {
        testing::internal::CaptureStdout();
        action();
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(IniFileParserGetterTest, GetStringIntoABuffer) {
    set("s", "abc");
    char buffer[8] = "zzzzzzz";
    EXPECT_EQ(parser.getString("G", "s", buffer, 4), 0);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(parser.getString("G", "s", buffer, 3), -1) << "the value must be shorter than the buffer";
    EXPECT_EQ(parser.getString("G", "s", buffer, 0), -1);
    EXPECT_EQ(parser.getString("G", "missing", buffer, sizeof buffer), -1);
    EXPECT_EQ(parser.getString("H", "s", buffer, sizeof buffer), -1);
    std::string text = "kept";
    EXPECT_EQ(parser.getString("G", "missing", text), -1);
    EXPECT_EQ(text, "kept");
}

TEST_F(IniFileParserGetterTest, GetInteger32) {
    set("hex", "0x10");
    set("octal", "017");
    set("min", "-2147483648");
    set("max", "2147483647");
    set("big", "3000000000");
    set("small", "-3000000000");
    set("trailing", "12abc");
    set("empty", "");
    set("word", "abc");
    set("huge", "99999999999999999999");
    std::int32_t value = 0;
    EXPECT_EQ(parser.getInteger32("G", "hex", value), 0);
    EXPECT_EQ(value, 16);
    EXPECT_EQ(parser.getInteger32("G", "octal", value), 0);
    EXPECT_EQ(value, 15);
    EXPECT_EQ(parser.getInteger32("G", "min", value), 0);
    EXPECT_EQ(value, INT32_MIN);
    EXPECT_EQ(parser.getInteger32("G", "max", value), 0);
    EXPECT_EQ(value, INT32_MAX);

    value = 5;
    EXPECT_EQ(stdoutOf([&] { EXPECT_EQ(parser.getInteger32("G", "big", value), -3); }),
              "Value not representable by int32_t\n");
    EXPECT_EQ(stdoutOf([&] { EXPECT_EQ(parser.getInteger32("G", "small", value), -3); }),
              "Value not representable by int32_t\n");
    EXPECT_EQ(stdoutOf([&] {
                  EXPECT_EQ(parser.getInteger32("G", "trailing", value), -4);
                  EXPECT_EQ(parser.getInteger32("G", "empty", value), -4);
                  EXPECT_EQ(parser.getInteger32("G", "word", value), -4);
                  EXPECT_EQ(parser.getInteger32("G", "huge", value), -2);
                  EXPECT_EQ(parser.getInteger32("G", "missing", value), -1);
              }),
              "");
    EXPECT_EQ(value, 5) << "written only on success";
}

TEST_F(IniFileParserGetterTest, GetFloat64) {
    set("ok", "-1.5e3");
    set("huge", "1e400");
    set("trailing", "1.5x");
    set("empty", "");
    double value = 2.0;
    EXPECT_EQ(parser.getFloat64("G", "ok", value), 0);
    EXPECT_DOUBLE_EQ(value, -1500.0);
    value = 2.0;
    EXPECT_EQ(stdoutOf([&] { EXPECT_EQ(parser.getFloat64("G", "huge", value), -2); }), "Result too large\n");
    EXPECT_EQ(parser.getFloat64("G", "trailing", value), -3);
    EXPECT_EQ(parser.getFloat64("G", "empty", value), -3);
    EXPECT_EQ(parser.getFloat64("G", "missing", value), -1);
    EXPECT_DOUBLE_EQ(value, 2.0);
}

TEST_F(IniFileParserGetterTest, GetFloat32AndDegrees) {
    set("quarter", "0.25");
    set("huge", "1e39");
    set("word", "x");
    set("half-turn", "180");
    float value = 3.0F;
    EXPECT_EQ(parser.getFloat32("G", "quarter", value), 0);
    EXPECT_FLOAT_EQ(value, 0.25F);
    value = 3.0F;
    EXPECT_EQ(stdoutOf([&] { EXPECT_EQ(parser.getFloat32("G", "huge", value), -2); }), "");
    EXPECT_EQ(parser.getFloat32("G", "word", value), -3);
    EXPECT_EQ(parser.getFloat32("G", "missing", value), -1);
    EXPECT_FLOAT_EQ(value, 3.0F);

    EXPECT_EQ(parser.getFloat32DegreesToRadians("G", "half-turn", value), 0);
    EXPECT_FLOAT_EQ(value, 180.0F * 0.017453292F);
    EXPECT_NEAR(value, 3.14159265, 1e-6);
    value = 3.0F;
    EXPECT_EQ(parser.getFloat32DegreesToRadians("G", "huge", value), -2);
    EXPECT_EQ(parser.getFloat32DegreesToRadians("G", "word", value), -3);
    EXPECT_FLOAT_EQ(value, 3.0F);
}

TEST_F(IniFileParserGetterTest, GetBooleanTakesExactWordsOnly) {
    for (const char* word : {"true", "yes", "on", "1"}) {
        set(word, word);
        bool value = false;
        EXPECT_EQ(parser.getBoolean("G", word, value), 0) << word;
        EXPECT_TRUE(value) << word;
    }
    for (const char* word : {"false", "no", "off", "0"}) {
        set(word, word);
        bool value = true;
        EXPECT_EQ(parser.getBoolean("G", word, value), 0) << word;
        EXPECT_FALSE(value) << word;
    }
    for (const char* word : {"True", "YES", "2", " on", ""}) {
        const std::string name = std::string("bad-") + word;
        set(name, word);
        bool value = true;
        EXPECT_EQ(parser.getBoolean("G", name, value), -2) << word;
        EXPECT_TRUE(value);
    }
    bool value = false;
    EXPECT_EQ(parser.getBoolean("G", "missing", value), -1);
}

TEST_F(IniFileParserGetterTest, GetVector2f) {
    const std::pair<std::string, int> cases[] = {
        {"1.5", -1},   {"", -2},   {",2", -3},     {"x,2", -3}, {"1e39,2", -3}, {"1 ,2", -3},
        {"1,2,3", -4}, {"1,", -4}, {"1,1e39", -4}, {"1,y", -4}, {"1,2 ", -4},
    };
    int i = 0;
    for (const auto& [text, expected] : cases) {
        const std::string name = "v" + std::to_string(i++);
        set(name, text);
        std::pair<float, float> value{7.0F, 8.0F};
        EXPECT_EQ(parser.getVector2f("G", name, value), expected) << "\"" << text << "\"";
        EXPECT_EQ(value, (std::pair<float, float>{7.0F, 8.0F})) << "\"" << text << "\"";
    }
    set("ok", "1.5, -2");
    std::pair<float, float> value{};
    EXPECT_EQ(parser.getVector2f("G", "ok", value), 0);
    EXPECT_FLOAT_EQ(value.first, 1.5F);
    EXPECT_FLOAT_EQ(value.second, -2.0F);
    EXPECT_EQ(parser.getVector2f("G", "missing", value), -1);
}

// parseFile reads from the sandbox's private /NFS.
class IniFileParserFileTest : public IniFileParserTest {
protected:
    void SetUp() override { VIDAPP_REQUIRE_NFS(); }

    static void write(const std::string& name, const std::string& content) {
        std::ofstream file("/NFS/" + name, std::ios::binary | std::ios::trunc);
        file << content;
    }

    Failure parseFileFailure(const std::string& name) {
        Failure failure;
        try {
            parser.parseFile(name);
        } catch (const IniFileParserException& e) {
            failure = {true, e.getCode(), e.what(), e.lineNumber};
        }
        return failure;
    }
};

TEST_F(IniFileParserFileTest, ReadsTheFileUnderNfs) {
    write("ProtocolVersion.ini", "[Protocol]\nT1D_VER=0102\nDIAG_INTF_VER=0103");
    parser.parseFile("ProtocolVersion.ini");
    char text[5];
    EXPECT_EQ(parser.getString("Protocol", "T1D_VER", text, sizeof text), 0);
    EXPECT_STREQ(text, "0102");
    EXPECT_EQ(value("Protocol", "DIAG_INTF_VER"), "0103");
}

TEST_F(IniFileParserFileTest, MissingFileIs1009WithLineZero) {
    const Failure failure = parseFileFailure("Missing.ini");
    EXPECT_TRUE(failure.thrown);
    EXPECT_EQ(failure.code, 1009U);
    EXPECT_EQ(failure.message, "Failed to open ini File: /NFS/Missing.ini");
    EXPECT_EQ(failure.lineNumber, 0U);
}

TEST_F(IniFileParserFileTest, LongPathIsCutInTheMessage) {
    const std::string name(200, 'n');
    const Failure failure = parseFileFailure(name);
    EXPECT_EQ(failure.code, 1009U);
    EXPECT_EQ(failure.message, ("Failed to open ini File: /NFS/" + name).substr(0, 127));
}

TEST_F(IniFileParserFileTest, DirectoryIsNoIniFile) {
    ASSERT_EQ(mkdir("/NFS/config.d", 0755), 0);
    for (const std::string name : {"config.d", ""}) {
        const Failure failure = parseFileFailure(name);
        EXPECT_TRUE(failure.thrown) << "'" << name << "'";
        EXPECT_EQ(failure.code, 1009U);
        EXPECT_EQ(failure.message, "Failed to open ini File: /NFS/" + name);
    }
}

TEST_F(IniFileParserFileTest, SyntaxErrorInAFileCarriesItsLine) {
    write("Broken.ini", "; configuration\r\n[S]\r\nok=1\r\n\r\nbad line\r\n");
    const Failure failure = parseFileFailure("Broken.ini");
    EXPECT_EQ(failure.code, 413U);
    EXPECT_EQ(failure.message, "Invalid line: missing '=' and value");
    EXPECT_EQ(failure.lineNumber, 5U);
    EXPECT_EQ(value("S", "ok"), "1");
}

TEST_F(IniFileParserFileTest, TokenLimitWithAndWithoutFinalLineFeed) {
    write("Fits.ini", "[S]\nk=" + std::string(128, 'x'));
    parser.parseFile("Fits.ini");
    EXPECT_EQ(value("S", "k"), std::string(128, 'x'));

    write("TooLong.ini", "[S]\nk=" + std::string(128, 'x') + "\n");
    const Failure failure = parseFileFailure("TooLong.ini");
    EXPECT_EQ(failure.message, "Maximum size of header, name or value exceeded");
    EXPECT_EQ(failure.lineNumber, 2U);
}

} // namespace
