#include "common/IniFileParser.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iomanip>
#include <sstream>
#include <sys/stat.h>

#include "common/OVRAException.h"
#include "tests/support/Sandbox.h"

using Vector = std::pair<float, float>;
static std::ostream& operator<<(std::ostream& out, const Vector& vector) {
    return out << vector.first << "," << vector.second;
}

class IniFileParserTest : public ::testing::Test {
protected:
    // "<code> line <n>: <text>" of the parser exception that action throws, or "none".
    static std::string outcome(const std::function<void()>& action) {
        try {
            action();
        } catch (const IniFileParserException& e) {
            return std::to_string(e.getCode()) + " line " + std::to_string(e.lineNumber) + ": " + e.what();
        }
        return "none";
    }
    std::string parse(const std::string& content) {
        parser = IniFileParser();
        std::istringstream input(content);
        return outcome([&] { parser.parse(input); });
    }
    std::string value(const std::string& header, const std::string& name) {
        std::string text = "(missing)";
        parser.getString(header, name, text);
        return text;
    }
    // The result codes of getter on each text (stored with itself as name, so texts never repeat) and
    // on a missing name, each followed by "=<value>" when it changed the value; its output in printed.
    template <typename T>
    std::string results(int (IniFileParser::*getter)(const std::string&, const std::string&, T&) const, T preset,
                        std::initializer_list<std::string> texts) {
        parser.insertHeader("G");
        std::ostringstream out;
        out << std::boolalpha << std::setprecision(9);
        testing::internal::CaptureStdout();
        for (const std::string& text : texts) {
            parser.insertParameter("G", text, text, 1);
            T value = preset;
            out << (parser.*getter)("G", text, value);
            if (value != preset) {
                out << "=" << value;
            }
            out << " ";
        }
        T value = preset;
        out << (parser.*getter)("G", "missing", value);
        printed = testing::internal::GetCapturedStdout();
        return out.str();
    }
    IniFileParser parser;
    std::string printed;
};

TEST_F(IniFileParserTest, StoresTrimmedValuesAndDropsComments) {
    const std::string longest(127, 'h');
    ASSERT_EQ(parse(";[not a header]=x\n\t[ Sec ] trailing\r\n  a[1]\t= ]x[ ; note\nk=a;b=c\n[" + longest + "]\n" +
                    longest + "=" + longest + "\n[Sec]\nlast=1"),
              "none");
    EXPECT_EQ(value("Sec", "a[1]"), "]x[");
    EXPECT_EQ(value("Sec", "k"), "a");
    EXPECT_EQ(value("Sec", "last"), "1") << "a repeated header merges; the last line needs no line feed";
    EXPECT_EQ(value(longest, longest), longest);
    EXPECT_FALSE(parser.containsHeader("not a header"));
    EXPECT_FALSE(parser.containsParameter("Sec", "b"));
    EXPECT_FALSE(parser.containsHeader("sec")) << "names are case-sensitive";
}

TEST_F(IniFileParserTest, EverySyntaxErrorWithItsLine) {
    const std::string tooLong(128, 'x');
    const std::string limit = "Maximum size of header, name or value exceeded";
    const std::pair<std::string, std::string> rows[] = {
        {"[]\n", "1: Empty header name:[]"},
        {"[S]\n=x\n", "2: '=' is valid only between property name and value"},
        {"[S]\n\n; comment\nname\n", "4: Invalid line: missing '=' and value"},
        {"[S]\nn= \t \r\n", "2: Empty parameter value after '=' "},
        {"[S]\nn=  ", "2: Empty parameter value after '=' "},
        {"[Sec;tion]\n", "1: ']' not found for header"},
        {"[S[T]\n", "1: '[' is an invalid in header string or in header line except in the beginning"},
        {"[S]]\n", "1: Found ']' on header line after header string is complete"},
        {"[S]\nk=1\nk=2\n", "3: header: S: duplicated parameter name: k"},
        {"\n\nk=v\n[S]\n", "3: header not found: "},
        {"[S]\nname", "2: Misplaced string:'name' at end of file"},
        {"[S]\n" + std::string(120, 'n'), "2: Misplaced string:'" + std::string(127 - 18, 'n')},
        {"[S]\nk=" + tooLong + "\n", "2: " + limit},
        {"[" + tooLong + "]\n", "1: " + limit},
        // Blanks after '=' count as read; the value is trimmed only afterwards.
        {"[S]\nk= " + std::string(127, 'v') + "\n", "2: " + limit},
    };
    for (const auto& [content, expected] : rows) {
        SCOPED_TRACE(content);
        EXPECT_EQ(parse(content), "413 line " + expected);
    }
}

TEST_F(IniFileParserTest, GettersReportTheirResultCodesAndWriteOnlyOnSuccess) {
    EXPECT_EQ(results<std::int32_t>(&IniFileParser::getInteger32, 5,
                                    {"0x10", "017", "-2147483648", "2147483647", "3000000000", "-3000000000",
                                     "99999999999999999999", "12abc"}),
              "0=16 0=15 0=-2147483648 0=2147483647 -3 -3 -2 -4 -1");
    EXPECT_EQ(printed, "Value not representable by int32_t\nValue not representable by int32_t\n");
    EXPECT_EQ(results<double>(&IniFileParser::getFloat64, 2.0, {"-1.5e3", "1e400", "1.5x"}), "0=-1500 -2 -3 -1");
    EXPECT_EQ(printed, "Result too large\n");
    EXPECT_EQ(results<float>(&IniFileParser::getFloat32, 3.0F, {"0.25", "1e39", "x"}), "0=0.25 -2 -3 -1");
    EXPECT_EQ(printed, "");
    std::ostringstream radians;
    radians << "0=" << std::setprecision(9) << 180.0F * 0.017453292F << " -2 -3 -1";
    EXPECT_EQ(results<float>(&IniFileParser::getFloat32DegreesToRadians, 3.0F, {"180", "-1e39", "y"}), radians.str());
    EXPECT_EQ(results<bool>(&IniFileParser::getBoolean, false, {"true", "yes", "on", "1", "True"}),
              "0=true 0=true 0=true 0=true -2 -1");
    EXPECT_EQ(results<bool>(&IniFileParser::getBoolean, true, {"false", "no", "off", "0", " on"}),
              "0=false 0=false 0=false 0=false -2 -1");
    EXPECT_EQ(results<Vector>(&IniFileParser::getVector2f, {7.0F, 8.0F},
                              {"1.5, -2", "1.5", "", "x,2", "1e39,2", "1 ,2", "1,", "1,1e39", "1,y", "1,2 "}),
              "0=1.5,-2 -1 -2 -3 -3 -3 -4 -4 -4 -4 -1");
    EXPECT_EQ(results<std::string>(&IniFileParser::getString, "kept", {"abc"}), "0=abc -1");
    char buffer[8] = "zzzzzzz";
    EXPECT_EQ(parser.getString("G", "abc", buffer, 4), 0);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(parser.getString("G", "abc", buffer, 3), -1) << "the value must be shorter than the buffer";
    EXPECT_EQ(parser.getString("G", "missing", buffer, sizeof buffer), -1);
}

TEST_F(IniFileParserTest, ReadsTheFileUnderNfsOr1009WithLineZero) {
    VIDAPP_REQUIRE_NFS(); // parseFile reads from the sandbox's private /NFS
    const auto parseFile = [&](const std::string& name, const std::string& content) {
        std::ofstream("/NFS/" + name, std::ios::binary) << content;
        return outcome([&] { parser.parseFile(name); });
    };
    ASSERT_EQ(parseFile("ProtocolVersion.ini", "[Protocol]\nT1D_VER=0102\nDIAG_INTF_VER=" + std::string(128, '3')),
              "none");
    EXPECT_EQ(value("Protocol", "T1D_VER"), "0102");
    EXPECT_EQ(value("Protocol", "DIAG_INTF_VER"), std::string(128, '3'));
    // An empty value on a last line without a line feed is dropped, as every process's parser does.
    std::ofstream("/NFS/EmptyLast.ini", std::ios::binary) << "[Protocol]\nT1D_VER=0103\nDIAG_INTF_VER=";
    IniFileParser emptyLast;
    ASSERT_NO_THROW(emptyLast.parseFile("EmptyLast.ini"));
    std::string version;
    EXPECT_EQ(emptyLast.getString("Protocol", "T1D_VER", version), 0);
    EXPECT_EQ(version, "0103");
    EXPECT_EQ(emptyLast.getString("Protocol", "DIAG_INTF_VER", version), -1);
    // With a line end the 128th character is too many; what was read before it stays.
    EXPECT_EQ(parseFile("TooLong.ini", "; configuration\r\n[S]\r\nok=1\r\nk=" + std::string(128, 'x') + "\r\n"),
              "413 line 4: Maximum size of header, name or value exceeded");
    EXPECT_EQ(value("S", "ok"), "1");
    ASSERT_EQ(mkdir("/NFS/config.d", 0755), 0);
    ASSERT_EQ(mkfifo("/NFS/Fifo.ini", 0644), 0); // its open would wait for a writer
    for (const std::string& name :
         {std::string("Missing.ini"), std::string("config.d"), std::string("Fifo.ini"), std::string(200, 'n')}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(outcome([&] { parser.parseFile(name); }),
                  "1009 line 0: " + ("Failed to open ini File: /NFS/" + name).substr(0, 127));
    }
}
