#include "platform/formats/Vlist.h"

#include "platform/PosixError.h"
#include "platform/formats/AtomicFile.h"

#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sys/stat.h>

namespace tv::platform {
namespace {

std::string wrap(std::string_view body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<vlist version=\"1.0\">" + std::string(body) + "</vlist>\n";
}

std::string nestedArrays(std::size_t n, std::string_view inner = "")
{
    std::string open, close;
    for (std::size_t i = 0; i < n; ++i)
        open += "<array>", close += "</array>";
    return wrap(open + std::string(inner) + close);
}

TEST(VlistTest, RoundTripKeepsEveryKindExactlyInTheConventionalLayout)
{
    const Value original = Value::dictionary({
        {"ints", Value(Array{Value(INT64_MIN), Value(INT64_MAX), Value(std::uint64_t{INT64_MAX} + 1), Value(UINT64_MAX)})},
        {"reals", Value(Array{Value(0.1), Value(-0.0), Value(1e300), Value(5e-324), Value(std::nan("")), Value(-HUGE_VAL)})},
        {"strings", Value(Array{Value(""), Value("ünïcødé ✓ 𝄞"), Value("<a href=\"x\">&amp;</a> ]]>"),
                                Value("tab\tnew\nline\r\nCR\r"), Value("  padded  ")})},
        {"data", Value(Array{Value::data({}), Value::data({0xFF, 0x00, 0x10, 0x80, 0x7F})})},
        {"dates", Value(Array{Value(Date::fromMicroseconds(1795341600123456)), Value(Date::fromMicroseconds(-1))})},
        {"url", Value::url("file:///Applications/Example.app/")},
        {"empty", Value(Array{Value::emptyArray(), Value::emptyDictionary(), Value(false)})},
        {"<odd key>", "\"quoted\""},
        {"", "empty key"},
    });
    auto xml = serializeVlist(original);
    ASSERT_TRUE(xml.ok());
    auto back = parseVlist(*xml);
    ASSERT_TRUE(back.ok()) << *xml;
    EXPECT_EQ(*back, original);
    EXPECT_TRUE(std::signbit(*(*back)["reals"].at(1).asDouble())); // equality does not see the sign of zero
    EXPECT_EQ(*parseVlist(*serializeVlist(Value(UINT64_MAX))), Value(UINT64_MAX)); // a scalar can be the document
    EXPECT_FALSE(serializeVlist(Value(Uuid::random())).ok()); // no element of its own: it would read back as text

    EXPECT_EQ(*serializeVlist(Value{{"b", Value(Array{1, Value::emptyDictionary()})}, {"a", 2u}, {"c", true}}),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<vlist version=\"1.0\">\n<dict>\n"
              "\t<key>a</key>\n\t<integer>+2</integer>\n\t<key>b</key>\n\t<array>\n\t\t<integer>1</integer>\n"
              "\t\t<dict/>\n\t</array>\n\t<key>c</key>\n\t<true/>\n</dict>\n</vlist>\n");
}

TEST(VlistTest, ReadsHandWrittenForms)
{
    auto v = parseVlist("<vlist><dict>\n"
                        "  <key>small</key> <integer> 5 </integer>\n"
                        "  <key>plus</key> <integer>+5</integer>\n"
                        "  <key>zeros</key> <integer>-007</integer>\n"
                        "  <key>real</key> <real>-1.5E3</real>\n"
                        "  <key>inf</key> <real>-infinity</real>\n"
                        "  <key>lines</key> <data>\n    AAEC\n    AwQ=\n  </data>\n"
                        "  <key>unpadded</key> <data>QQ</data>\n"
                        "  <key>cdata</key> <string><![CDATA[<not markup> & ]]></string>\n"
                        "  <key>entities</key> <string>&lt;&#x41;&#66;&amp;&apos;</string>\n"
                        "  <!-- a comment -->\n"
                        "  <key>empty</key> <string/>\n"
                        "  <key>offset</key> <date>2026-11-22T12:00:00+02:00</date>\n"
                        "  <key>crlf</key> <string>a\r\nb</string>\n"
                        "</dict></vlist>");
    ASSERT_TRUE(v.ok()) << v.error().localizedDescription();
    EXPECT_EQ(*v, (Value{{"small", 5}, {"plus", 5u}, {"zeros", -7}, {"real", -1500.0}, {"inf", -HUGE_VAL},
                         {"lines", Value::data({0, 1, 2, 3, 4})}, {"unpadded", Value::data({'A'})},
                         {"cdata", "<not markup> & "}, {"entities", "<AB&'"}, {"empty", ""},
                         {"offset", *Date::parseIso8601("2026-11-22T10:00:00Z")}, {"crlf", "a\nb"}}));
}

TEST(VlistTest, RefusesMalformedDocumentsSayingWhere)
{
    const std::pair<const char*, std::string> cases[] = {
        {"empty input", ""}, {"wrong root", "<dict></dict>"},
        {"unsupported version", "<vlist version=\"2.0\"><true/></vlist>"}, {"no value", wrap("")},
        {"two root values", wrap("<true/><false/>")}, {"unclosed tag", "<vlist><array><string>x</string></vlist>"},
        {"mismatched tags", wrap("<array></dict>")},
        {"text outside values", wrap("<array>loose<true/></array>")}, {"unknown element", wrap("<set/>")},
        {"element inside a string", wrap("<string>a<b/>c</string>")}, {"content in true", wrap("<true>yes</true>")},
        {"key without value", wrap("<dict><key>a</key></dict>")},
        {"value without key", wrap("<dict><true/></dict>")},
        {"key outside dict", wrap("<array><key>a</key></array>")},
        {"integer with letters", wrap("<integer>12a</integer>")},
        {"integer above 64 bits", wrap("<integer>18446744073709551616</integer>")},
        {"integer below int64", wrap("<integer>-9223372036854775809</integer>")},
        {"hex real", wrap("<real>0x1p3</real>")}, {"real out of range", wrap("<real>1e999</real>")},
        {"bad base64 character", wrap("<data>AB*D</data>")}, {"padding in the middle", wrap("<data>QQ==QQ==</data>")},
        {"date without zone", wrap("<date>2026-11-22T10:00:00</date>")},
        {"date out of range", wrap("<date>2026-13-01T00:00:00Z</date>")},
        {"trailing garbage", wrap("<true/>") + "junk"}, {"undefined entity", wrap("<string>&nbsp;</string>")},
        {"invalid UTF-8", wrap("<string>\xC3\x28</string>")},
        {"NUL character", wrap(std::string("<string>a\0b</string>", 20))},
        // No DOCTYPE at all, so that entities can neither expand nor reach files.
        {"DOCTYPE", "<!DOCTYPE vlist [<!ENTITY a \"aaaa\"><!ENTITY b \"&a;&a;&a;\">]><vlist><string>&b;</string></vlist>"},
        {"external DOCTYPE", "<!DOCTYPE vlist [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><vlist><string>&x;</string></vlist>"},
    };
    for (const auto& [name, xml] : cases) {
        auto v = parseVlist(xml);
        ASSERT_FALSE(v.ok()) << name;
        EXPECT_EQ(v.error().code, EINVAL) << name;
        if (std::string_view(name).ends_with("DOCTYPE")) {
            EXPECT_NE(v.error().localizedDescription().find("DOCTYPE"), std::string::npos) << name;
        }
    }
    auto v = parseVlist(wrap("\n<dict>\n<key>a</key><true/>\n<key>a</key><false/></dict>"));
    ASSERT_FALSE(v.ok());
    EXPECT_NE(v.error().localizedDescription().find("line 5"), std::string::npos) << v.error().localizedDescription();
    EXPECT_NE(v.error().localizedDescription().find("duplicate key \"a\""), std::string::npos);
    // Every truncation of a document is refused (random mutations: the fuzz target).
    const std::string valid = *serializeVlist(Value{{"s", "text & <markup>"}, {"l", Value(Array{Value(1.5), Value::data({1})})}});
    for (std::size_t n = 0; n + 1 < valid.size(); ++n)
        EXPECT_FALSE(parseVlist(valid.substr(0, n)).ok()) << n;
}

TEST(VlistTest, EnforcesSizeAndDepthLimitsOnBothSides)
{
    // The top-level value is depth 1; a scalar inside the deepest allowed
    // container is one level too deep; far beyond any stack is no crash.
    EXPECT_TRUE(parseVlist(nestedArrays(64)).ok());
    EXPECT_FALSE(parseVlist(nestedArrays(64, "<true/>")).ok());
    auto deep = parseVlist(nestedArrays(100000));
    ASSERT_FALSE(deep.ok());
    EXPECT_NE(deep.error().localizedDescription().find("nesting deeper than 64"), std::string::npos);
    VlistLimits tight;
    tight.maxDepth = 2;
    EXPECT_TRUE(parseVlist(wrap("<array><array/></array>"), tight).ok());
    EXPECT_FALSE(parseVlist(wrap("<dict><key>a</key><array><true/></array></dict>"), tight).ok());
    const std::string doc = wrap("<string>" + std::string(1000, 'x') + "</string>");
    tight.maxBytes = doc.size() - 1;
    EXPECT_EQ(parseVlist(doc, tight).error().code, EFBIG);
    tight.maxBytes = doc.size();
    EXPECT_TRUE(parseVlist(doc, tight).ok());

    // The writer refuses what the reader would refuse.
    Value v = Value::emptyArray();
    for (int i = 0; i < 64; ++i)
        v = Value(Array{v});
    EXPECT_FALSE(serializeVlist(v).ok());
    EXPECT_TRUE(serializeVlist(*v.at(0).asArray()).ok());
    EXPECT_FALSE(serializeVlist(Value(Array{Value(1), Value()})).ok());
    for (const std::string& bad : {std::string("nul\0x", 5), std::string("esc\x1b"), std::string("bad utf8 \xFF"),
                                   std::string("surrogate \xED\xA0\x80"), std::string("nonchar \xEF\xBF\xBE")}) {
        EXPECT_FALSE(serializeVlist(Value(bad)).ok()) << bad;
        EXPECT_FALSE(serializeVlist(Value{{bad, 1}}).ok()) << bad;
    }
    EXPECT_FALSE(serializeVlist(Value(Date::fromSeconds(253402300800))).ok()); // no four-digit year
}

TEST(VlistTest, ReadsFilesWithinLimits)
{
    test::TempDir dir;
    const Value v{{"KbBundleIdentifier", "com.example.app"}, {"n", 3}};
    ASSERT_FALSE(writeVlistFileAtomically(dir.file("Info.vlist"), v));
    EXPECT_EQ(*readVlistFile(dir.file("Info.vlist")), v);
    auto missing = readVlistFile(dir.file("none.vlist"));
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(std::tuple(missing.error().domain, missing.error().code), std::tuple(std::string(kPosixErrorDomain), ENOENT));
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);
    EXPECT_FALSE(readVlistFile(dir.file("fifo")).ok()); // without waiting for a writer
    EXPECT_EQ(readVlistFile(dir.file("Info.vlist"), VlistLimits{.maxBytes = 40}).error().code, EFBIG);
    ASSERT_FALSE(writeFileAtomically(dir.file("bad.vlist"), "<vlist><oops/></vlist>"));
    EXPECT_NE(readVlistFile(dir.file("bad.vlist")).error().localizedDescription().find("bad.vlist"), std::string::npos);
}

} // namespace
} // namespace tv::platform
