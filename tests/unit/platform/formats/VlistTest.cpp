#include "platform/formats/Vlist.h"

#include "platform/PosixError.h"
#include "platform/formats/AtomicFile.h"

#include "tests/support/Mutate.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <sys/stat.h>

namespace tv::platform {
namespace {

std::string wrap(std::string_view body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<vlist version=\"1.0\">" + std::string(body) + "</vlist>\n";
}

Value roundTrip(const Value& v)
{
    auto xml = serializeVlist(v);
    EXPECT_TRUE(xml.ok()) << (xml.ok() ? "" : xml.error().localizedDescription());
    if (!xml.ok())
        return Value();
    auto back = parseVlist(*xml);
    EXPECT_TRUE(back.ok()) << (back.ok() ? "" : back.error().localizedDescription()) << "\n" << *xml;
    return back.ok() ? *back : Value();
}

std::string nestedArrays(std::size_t n, std::string_view inner = "")
{
    std::string s;
    for (std::size_t i = 0; i < n; ++i)
        s += "<array>";
    s += inner;
    for (std::size_t i = 0; i < n; ++i)
        s += "</array>";
    return wrap(s);
}

TEST(VlistTest, RoundTripKeepsEveryKindExactly)
{
    const Value original = Value::dictionary({
        {"ints", Value(Array{Value(0), Value(-1), Value(INT64_MIN), Value(INT64_MAX), Value(42)})},
        {"uints", Value(Array{Value(0u), Value(7u), Value(std::uint64_t{INT64_MAX} + 1), Value(UINT64_MAX)})},
        {"reals", Value(Array{Value(0.1), Value(-0.0), Value(1.0), Value(1e300), Value(5e-324), Value(-2.5e-10),
                              Value(std::nan("")), Value(HUGE_VAL), Value(-HUGE_VAL)})},
        {"strings", Value(Array{Value(""), Value("plain"), Value("ünïcødé ✓ 𝄞"), Value("<a href=\"x\">&amp;</a> ]]>"),
                                Value("tab\tnew\nline\r\nCR\r"), Value("  padded  ")})},
        {"bools", Value(Array{Value(true), Value(false)})},
        {"data", Value(Array{Value::data({}), Value::data({0}), Value::data({0xFF, 0x00, 0x10, 0x80, 0x7F})})},
        {"dates", Value(Array{Value(Date::fromSeconds(1795341600)), Value(Date::fromMicroseconds(1795341600123456)),
                              Value(Date::fromMicroseconds(-1)), Value(Date::fromSeconds(0))})},
        {"url", Value::url("file:///Applications/Example.app/")},
        {"empty", Value(Array{Value::emptyArray(), Value::emptyDictionary()})},
        {"nested", Value{{"KoExtension", Value{{"KoExtensionPointIdentifier", "com.example.share"},
                                               {"KoExtensionAttributes", Value{{"a&b", 1u}}}}}}},
        {"<odd key>", "\"quoted\""},
        {"", "empty key"},
    });
    const Value back = roundTrip(original);
    EXPECT_EQ(back, original);
    // Value equality does not see the sign of zero.
    EXPECT_TRUE(std::signbit(*back["reals"].at(1).asDouble()));

    // A scalar can be the whole document, and output is deterministic.
    EXPECT_EQ(roundTrip(Value(UINT64_MAX)), Value(UINT64_MAX));
    EXPECT_EQ(*serializeVlist(original), *serializeVlist(back));

    // A UUID has no element of its own and is kept as its text.
    const Uuid u = Uuid::random();
    EXPECT_EQ(roundTrip(Value(u)), Value(u.string()));
}

TEST(VlistTest, WritesTheConventionalLayout)
{
    auto xml = serializeVlist(Value{{"b", Value(Array{1, Value::emptyDictionary()})}, {"a", 2u}, {"c", true}});
    ASSERT_TRUE(xml.ok());
    EXPECT_EQ(*xml, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                    "<vlist version=\"1.0\">\n"
                    "<dict>\n"
                    "\t<key>a</key>\n"
                    "\t<integer>+2</integer>\n"
                    "\t<key>b</key>\n"
                    "\t<array>\n"
                    "\t\t<integer>1</integer>\n"
                    "\t\t<dict/>\n"
                    "\t</array>\n"
                    "\t<key>c</key>\n"
                    "\t<true/>\n"
                    "</dict>\n"
                    "</vlist>\n");
}

TEST(VlistTest, ReadsHandWrittenForms)
{
    auto v = parseVlist("<vlist><dict>\n"
                        "  <key>small</key> <integer> 5 </integer>\n"
                        "  <key>huge</key> <integer>18446744073709551615</integer>\n"
                        "  <key>plus</key> <integer>+5</integer>\n"
                        "  <key>zeros</key> <integer>-007</integer>\n"
                        "  <key>real</key> <real>-1.5E3</real>\n"
                        "  <key>whole</key> <real>2</real>\n"
                        "  <key>nan</key> <real>NaN</real>\n"
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
    EXPECT_TRUE(std::isnan(*(*v)["nan"].asDouble()));
    EXPECT_EQ(v->with("nan", 0), (Value{{"small", 5}, {"huge", UINT64_MAX}, {"plus", 5u}, {"zeros", -7}, {"real", -1500.0},
                         {"whole", 2.0}, {"nan", 0}, {"inf", -HUGE_VAL}, {"lines", Value::data({0, 1, 2, 3, 4})},
                         {"unpadded", Value::data({'A'})}, {"cdata", "<not markup> & "}, {"entities", "<AB&'"},
                         {"empty", ""}, {"offset", *Date::parseIso8601("2026-11-22T10:00:00Z")}, {"crlf", "a\nb"}}));
}

TEST(VlistTest, RefusesMalformedDocuments)
{
    const std::pair<const char*, std::string> cases[] = {
        {"empty input", ""}, {"wrong root", "<dict></dict>"},
        {"unsupported version", "<vlist version=\"2.0\"><true/></vlist>"}, {"no value", wrap("")},
        {"two root values", wrap("<true/><false/>")}, {"unclosed tag", "<vlist><array><string>x</string></vlist>"},
        {"mismatched tags", wrap("<array></dict>")},
        {"truncated", wrap("<dict><key>a</key><string>abc").substr(0, 60)},
        {"text outside values", wrap("<array>loose<true/></array>")}, {"unknown element", wrap("<set/>")},
        {"element inside a string", wrap("<string>a<b/>c</string>")}, {"content in true", wrap("<true>yes</true>")},
        {"key without value", wrap("<dict><key>a</key></dict>")},
        {"two keys in a row", wrap("<dict><key>a</key><key>b</key><true/></dict>")},
        {"value without key", wrap("<dict><true/></dict>")},
        {"key outside dict", wrap("<array><key>a</key></array>")},
        {"duplicate keys", wrap("<dict><key>a</key><true/><key>a</key><false/></dict>")},
        {"empty integer", wrap("<integer/>")}, {"integer with letters", wrap("<integer>12a</integer>")},
        {"integer above 64 bits", wrap("<integer>18446744073709551616</integer>")},
        {"integer below int64", wrap("<integer>-9223372036854775809</integer>")},
        {"bad real", wrap("<real>1.2.3</real>")}, {"hex real", wrap("<real>0x1p3</real>")},
        {"real out of range", wrap("<real>1e999</real>")}, {"bad base64 character", wrap("<data>AB*D</data>")},
        {"padding in the middle", wrap("<data>QQ==QQ==</data>")}, {"bad date", wrap("<date>yesterday</date>")},
        {"date without zone", wrap("<date>2026-11-22T10:00:00</date>")},
        {"date out of range", wrap("<date>2026-13-01T00:00:00Z</date>")},
        {"trailing garbage", wrap("<true/>") + "junk"}, {"undefined entity", wrap("<string>&nbsp;</string>")},
        {"invalid UTF-8", wrap("<string>\xC3\x28</string>")},
        {"NUL character", wrap(std::string("<string>a\0b</string>", 20))},
    };
    for (const auto& [name, xml] : cases) {
        auto v = parseVlist(xml);
        ASSERT_FALSE(v.ok()) << name;
        EXPECT_EQ(v.error().code, EINVAL) << name;
        EXPECT_FALSE(v.error().localizedDescription().empty()) << name;
    }
    // Descriptions say where the problem is.
    auto v = parseVlist(wrap("\n<dict>\n<key>a</key><true/>\n<key>a</key><false/></dict>"));
    ASSERT_FALSE(v.ok());
    EXPECT_NE(v.error().localizedDescription().find("line 5"), std::string::npos) << v.error().localizedDescription();
    EXPECT_NE(v.error().localizedDescription().find("duplicate key \"a\""), std::string::npos);
}

TEST(VlistTest, RefusesDoctypesSoEntitiesCannotExpand)
{
    // Eight levels of tenfold entities: a billion characters if expanded.
    std::string laughs = "<?xml version=\"1.0\"?>\n<!DOCTYPE vlist [\n <!ENTITY a \"aaaaaaaaaa\">\n";
    for (char e = 'b'; e <= 'h'; ++e) {
        std::string ref = std::string("&") + char(e - 1) + ";";
        laughs += std::string(" <!ENTITY ") + e + " \"";
        for (int i = 0; i < 10; ++i)
            laughs += ref;
        laughs += "\">\n";
    }
    laughs += "]>\n<vlist version=\"1.0\"><string>&h;</string></vlist>";
    const std::string external = "<?xml version=\"1.0\"?>\n"
                                 "<!DOCTYPE vlist [<!ENTITY x SYSTEM \"file:///etc/passwd\">]>\n"
                                 "<vlist version=\"1.0\"><string>&x;</string></vlist>";
    const std::string plain = "<!DOCTYPE vlist SYSTEM \"vlist.dtd\"><vlist><true/></vlist>";
    for (const std::string& xml : {laughs, external, plain}) {
        auto v = parseVlist(xml);
        ASSERT_FALSE(v.ok());
        EXPECT_NE(v.error().localizedDescription().find("DOCTYPE"), std::string::npos)
            << v.error().localizedDescription();
    }
}

TEST(VlistTest, EnforcesSizeAndDepthLimits)
{
    // The top-level value is depth 1, like the binary encoding.
    EXPECT_TRUE(parseVlist(nestedArrays(64)).ok());
    EXPECT_FALSE(parseVlist(nestedArrays(65)).ok());
    // Far beyond any native stack: refused, not a crash.
    auto deep = parseVlist(nestedArrays(100000));
    ASSERT_FALSE(deep.ok());
    EXPECT_NE(deep.error().localizedDescription().find("nesting deeper than 64"), std::string::npos);
    // A scalar inside the deepest allowed container is one level too deep.
    EXPECT_FALSE(parseVlist(nestedArrays(64, "<true/>")).ok());

    VlistLimits tight;
    tight.maxDepth = 2;
    EXPECT_TRUE(parseVlist(wrap("<dict><key>a</key><integer>1</integer></dict>"), tight).ok());
    EXPECT_TRUE(parseVlist(wrap("<array><array/></array>"), tight).ok());
    EXPECT_FALSE(parseVlist(wrap("<dict><key>a</key><array><true/></array></dict>"), tight).ok());

    const std::string doc = wrap("<string>" + std::string(1000, 'x') + "</string>");
    tight.maxBytes = doc.size() - 1;
    auto big = parseVlist(doc, tight);
    ASSERT_FALSE(big.ok());
    EXPECT_EQ(big.error().code, EFBIG);
    tight.maxBytes = doc.size();
    EXPECT_TRUE(parseVlist(doc, tight).ok());

    // The writer refuses what the reader would refuse.
    Value v = Value::emptyArray();
    for (int i = 0; i < 64; ++i)
        v = Value(Array{v});
    EXPECT_FALSE(serializeVlist(v).ok());
    EXPECT_TRUE(serializeVlist(*v.at(0).asArray()).ok());
}

TEST(VlistTest, SerializeRefusesWhatCannotBeReadBack)
{
    EXPECT_FALSE(serializeVlist(Value()).ok());
    EXPECT_FALSE(serializeVlist(Value(Array{Value(1), Value()})).ok());
    for (const std::string& bad : {std::string("bell\a"), std::string("nul\0x", 5), std::string("esc\x1b"),
                                  std::string("bad utf8 \xFF"), std::string("surrogate \xED\xA0\x80"),
                                  std::string("nonchar \xEF\xBF\xBE")}) {
        EXPECT_FALSE(serializeVlist(Value(bad)).ok()) << bad;
        EXPECT_FALSE(serializeVlist(Value{{bad, 1}}).ok()) << bad;
        EXPECT_FALSE(serializeVlist(Value::url(bad)).ok()) << bad;
    }
    // A date whose year has no four-digit form.
    EXPECT_FALSE(serializeVlist(Value(Date::fromSeconds(-62167219200 - 86400))).ok());
    EXPECT_FALSE(serializeVlist(Value(Date::fromSeconds(253402300800))).ok());
}

TEST(VlistTest, ReadsFilesWithinLimits)
{
    test::TempDir dir;
    const Value v{{"KbBundleIdentifier", "com.example.app"}, {"n", 3}};
    ASSERT_FALSE(writeVlistFileAtomically(dir.file("Info.vlist"), v));
    auto back = readVlistFile(dir.file("Info.vlist"));
    ASSERT_TRUE(back.ok());
    EXPECT_EQ(*back, v);

    auto missing = readVlistFile(dir.file("none.vlist"));
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error().domain, kPosixErrorDomain);
    EXPECT_EQ(missing.error().code, ENOENT);
    EXPECT_FALSE(readVlistFile(dir.path()).ok());
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);
    EXPECT_FALSE(readVlistFile(dir.file("fifo")).ok()); // without waiting for a writer

    VlistLimits small;
    small.maxBytes = 40;
    auto big = readVlistFile(dir.file("Info.vlist"), small);
    ASSERT_FALSE(big.ok());
    EXPECT_EQ(big.error().code, EFBIG);
    // Errors from a file name it.
    ASSERT_FALSE(writeFileAtomically(dir.file("bad.vlist"), "<vlist><oops/></vlist>"));
    auto bad = readVlistFile(dir.file("bad.vlist"));
    ASSERT_FALSE(bad.ok());
    EXPECT_NE(bad.error().localizedDescription().find("bad.vlist"), std::string::npos);
}

TEST(VlistTest, RandomMutationsGiveAValueOrAnError)
{
    const std::string valid = *serializeVlist(Value{
        {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.example.share"}, {"n", -4}}},
        {"list", Value(Array{Value(1.5), Value::data({1, 2, 3}), Value(Date::fromSeconds(1)), Value(9u)})},
        {"s", "text & <markup>"},
    });
    const char alphabet[] = "<>/&;!?=\"' \n\tabcdefgikrstuvy0123456789+-.#x[]\xC3\xFF";
    std::mt19937 rng(12345);
    int values = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string doc = test::mutate(valid, rng, std::string_view(alphabet, sizeof alphabet - 1));
        auto v = parseVlist(doc);
        if (v.ok()) {
            ++values;
            EXPECT_FALSE(v->isNull());
        } else {
            EXPECT_FALSE(v.error().localizedDescription().empty());
        }
    }
    // Every truncation of a valid document is refused.
    for (std::size_t n = 0; n + 1 < valid.size(); ++n)
        EXPECT_FALSE(parseVlist(valid.substr(0, n)).ok()) << n;
    EXPECT_GT(values, 0);
}

} // namespace
} // namespace tv::platform
