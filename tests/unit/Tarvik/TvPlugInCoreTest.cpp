#include "Tarvik/TvPlugInCore.h"
#include "base/InternalInconsistency.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tv {
namespace {

using test::LogCapture;

const Uuid kUuid = *Uuid::parse("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0");
const Value kAttrs = Value::emptyDictionary();

Value extensionInfo(Value extension)
{
    return Value{{"KbBundleIdentifier", "com.example.share"}, {"KoExtension", std::move(extension)}};
}

std::shared_ptr<TvPlugInCore> makeRecord(const std::string& path, Value extension, std::optional<Uuid> uuid = kUuid)
{
    return TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.share", Value::fileURL(path),
                                                          extensionInfo(std::move(extension)), Value(), uuid);
}

TEST(TvPlugInCoreTest, ConstructionTakesThePlugInDictionaryFromBundleInfoOrElseFromInfo)
{
    LogCapture log;
    const Value url = Value::fileURL("/x/A.vext");
    Value extension{{"KoExtensionPointIdentifier", "com.example.point"}, {"Multiple", true}};
    auto fromBundle = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", url, extensionInfo(extension), Value{{"ignored", true}}, kUuid);
    ASSERT_TRUE(fromBundle);
    EXPECT_EQ(fromBundle->plugInDictionary(), extension);
    // The obsolete "Multiple" key is logged once and has no other effect.
    EXPECT_EQ(log.count("multiplexed plug-ins (Multiple key) obsolete and ignored"), 1u);
    Value info{{"KoExtensionAttributes", kAttrs}};
    auto fromInfo = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("b", url, Value(), info, std::nullopt);
    ASSERT_TRUE(fromInfo);
    EXPECT_EQ(fromInfo->plugInDictionary(), info);
    // Without a uuid each record gets its own.
    EXPECT_FALSE(fromInfo->isEqual(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("b", url, Value(), info, std::nullopt).get()));

    // No url, or a string instead of a URL: refused silently.
    log.clear();
    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", Value(), extensionInfo(kAttrs), Value(), kUuid));
    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", Value("/x/A.vext"), Value(), kAttrs, kUuid));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(std::nullopt, url, Value(), Value(), kUuid));
    EXPECT_EQ(log.find("missing identifier in plug-in at /x/A.vext")->level, platform::LogLevel::Error);
    // No "KoExtension", a string one, or bundle information that is no dictionary.
    log.clear();
    Value noExtension{{"KbBundleIdentifier", "a"}};
    for (const Value& bad : {noExtension, extensionInfo("text"), Value(Array{})})
        EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", url, bad, Value(), kUuid));
    ASSERT_EQ(log.lines().size(), 3u);
    EXPECT_EQ(log.lines()[0].message, "malformed plug-in dictionary in plug-in a at file:///x/A.vext: " + noExtension.description());
}

TEST(TvPlugInCoreTest, IdentityIsTheUuidAloneAndRequiresOne)
{
    struct Derived : TvPlugInCore {
        Derived() = default;
    };
    auto a = makeRecord("/x/A.vext", kAttrs);
    auto b = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("other", Value::fileURL("/y/B.bundle"), Value(), kAttrs, kUuid);
    auto d = std::make_shared<Derived>();
    d->setUuid(kUuid);
    auto c = makeRecord("/x/A.vext", kAttrs, Uuid::random());
    EXPECT_TRUE(a->isEqual(b.get()) && a->isEqual(d.get()));
    EXPECT_EQ(a->hash(), d->hash());
    EXPECT_FALSE(a->isEqual(c.get()) || a->isEqual(nullptr));
    TvPlugInCoreSet set{a};
    EXPECT_FALSE(set.insert(b).second);
    EXPECT_FALSE(set.contains(c));

    // Without one, identity raises and leaves the record usable.
    c->setUuid(std::nullopt);
    EXPECT_THROW(c->isEqual(c.get()), TvInternalInconsistency);
    EXPECT_THROW(set.insert(c), TvInternalInconsistency);
    EXPECT_EQ(set.size(), 1u);
    c->setUuid(kUuid);
    EXPECT_FALSE(set.insert(c).second);
}

TEST(TvPlugInCoreTest, ClassificationFollowsPathSuffixAndKeys)
{
    // A directory URL's trailing "/" is not part of the bundle's path.
    auto ext = makeRecord("/Apps/A.app/PlugIns/Share.vext/", kAttrs);
    EXPECT_EQ(ext->path(), "/Apps/A.app/PlugIns/Share.vext");
    EXPECT_TRUE(ext->isAppExtension());
    EXPECT_EQ(ext->protocolSpec(), Value("KoObject"));
    EXPECT_EQ(ext->principalSpec(), Value("KoObject"));
    for (const char* path : {"/x/Share.VEXT", "/x/Share.bundle", "/x/vext", "/x/Share.vextra"}) {
        auto other = makeRecord(path, kAttrs);
        EXPECT_FALSE(other->isAppExtension()) << path;
        EXPECT_TRUE(other->protocolSpec().isNull() && other->principalSpec().isNull()) << path;
    }
    auto keyed = makeRecord("/x/D.bundle", Value{{"KoExtensionProtocol", "#Data"}, {"EmbeddedProtocol", "P"},
                                                 {"EmbeddedCode", false}, {"Dedicated", "YES"}});
    keyed->setContainingUrl(Value::fileURL("/Apps/A.app"));
    EXPECT_TRUE(keyed->isData() && keyed->isDedicated());
    EXPECT_TRUE(keyed->isHybrid()); // presence counts, whatever the value
    EXPECT_EQ(keyed->embeddedProtocolSpec(), Value("P"));
    EXPECT_EQ(keyed->containingPath(), "/Apps/A.app");
    EXPECT_FALSE(makeRecord("/x/D.bundle", Value{{"KoExtensionProtocol", "#data"}})->isData());
}

TEST(TvPlugInCoreTest, DiagnosisReportsTheFirstFailingCheckInOrder)
{
    const Value ext{{"KoExtensionAttributes", kAttrs}};
    const std::string principal = "Application Extensions may not use the \"PrincipalClass\" key";
    // App extensions default their protocol and may only name KoObject as
    // principal class; principal class before PassProxy before EmbeddedCode.
    const std::tuple<const char*, Value, std::string> cases[] = {
        {"/x/P.bundle", ext.with("KoExtensionProtocol", "P").with("PrincipalClass", "Mine"), "none"},
        {"/x/P.bundle", kAttrs, "missing \"KoExtensionProtocol\" key in Info.vlist or SDK"},
        {"/x/P.bundle", Value{{"KoExtensionProtocol", "P"}}, "missing \"KoExtensionAttributes\" key in Info.vlist or SDK"},
        {"/x/E.vext", ext.with("PrincipalClass", "KoObject"), "none"},
        {"/x/E.vext", ext.with("PrincipalClass", "Mine").with("PassProxy", false), principal},
        {"/x/E.vext", ext.with("PassProxy", false).with("EmbeddedCode", "x"), "the \"PassProxy\" key is not supported on this platform"},
        {"/x/E.vext", ext.with("EmbeddedCode", "x"), "hybrid plug-ins are not supported on this platform"},
    };
    for (const auto& [path, extension, expected] : cases) {
        MaybeError e = makeRecord(path, extension)->diagnose();
        EXPECT_EQ(e ? e->domain + " " + std::to_string(e->code) + " " + e->description.value_or("") : "none",
                  expected == "none" ? expected : "Tarvik 12 " + expected);
    }
    auto noIdentifier = makeRecord("/x/P.bundle", kAttrs);
    noIdentifier->setIdentifier(std::nullopt);
    EXPECT_EQ(noIdentifier->diagnose()->description, "missing identifier (no KoExtensionIdentifier, nor even KbBundleIdentifier)");
}

TEST(TvPlugInCoreTest, ConcurrentReadersAlwaysSeeWholeValues)
{
    auto record = makeRecord("/x/A.vext", kAttrs);
    const Value first{{"election", 1}, {"extension", Value{{"a", "b"}}}}, second{{"election", 0}};
    const std::string shortName = "Short", longName = "A considerably longer display name";
    record->setAnnotations(first);
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back([&] {
            while (!stop.load()) {
                Value seen = record->annotations();
                std::optional<std::string> name = record->localizedName();
                torn += (seen != first && seen != second) || (name && *name != shortName && *name != longName);
            }
        });
    for (int i = 0; i < 5000; ++i) {
        record->setAnnotations(i % 2 ? first : second);
        record->setLocalizedName(i % 2 ? shortName : longName);
    }
    stop.store(true);
    for (auto& t : readers)
        t.join();
    EXPECT_EQ(torn.load(), 0);
}

} // namespace
} // namespace tv
