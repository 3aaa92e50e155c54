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
    Value extension{{"KoExtensionPointIdentifier", "com.example.point"}, {"Multiple", true}};
    auto fromBundle = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(
        "com.example.a", Value::fileURL("/x/A.vext"), extensionInfo(extension), Value{{"ignored", true}}, kUuid);
    ASSERT_TRUE(fromBundle);
    EXPECT_EQ(fromBundle->plugInDictionary(), extension);
    // The obsolete "Multiple" key is logged once and has no other effect.
    EXPECT_EQ(log.count("multiplexed plug-ins (Multiple key) obsolete and ignored"), 1u);
    EXPECT_FALSE(fromBundle->isMultiplexed());

    Value info{{"KoExtensionAttributes", kAttrs}};
    auto fromInfo = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("b", Value::fileURL("/x/B.vext"), Value(), info,
                                                                    std::nullopt);
    ASSERT_TRUE(fromInfo);
    EXPECT_EQ(fromInfo->plugInDictionary(), info);
    EXPECT_TRUE(fromInfo->bundleInfoDictionary().isNull());
    // Without a uuid each record gets its own.
    auto again = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("b", Value::fileURL("/x/B.vext"), Value(), info,
                                                                 std::nullopt);
    EXPECT_FALSE(fromInfo->isEqual(again.get()));
}

TEST(TvPlugInCoreTest, ConstructionFailuresAreRefusedWithTheirLogLines)
{
    LogCapture log;
    const Value url = Value::fileURL("/x/A.vext");
    // No url, or a string instead of a URL: refused silently.
    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", Value(), extensionInfo(kAttrs), Value(), kUuid));
    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", Value("/x/A.vext"), Value(), kAttrs, kUuid));
    EXPECT_TRUE(log.lines().empty());

    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(std::nullopt, url, Value(), Value(), kUuid));
    auto missing = log.find("missing identifier in plug-in at /x/A.vext");
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->level, platform::LogLevel::Error);
    EXPECT_EQ(missing->category, "ops");

    // No "KoExtension", a string one, or bundle information that is no dictionary.
    log.clear();
    Value noExtension{{"KbBundleIdentifier", "a"}};
    for (const Value& info : {noExtension, extensionInfo("text"), Value(Array{})})
        EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", url, info, Value(), kUuid));
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].message, "malformed plug-in dictionary in plug-in a at file:///x/A.vext: " +
                                    noExtension.description());
    for (const auto& line : lines)
        EXPECT_EQ(line.level, platform::LogLevel::Default);
}

TEST(TvPlugInCoreTest, IdentityIsTheUuidAloneAcrossSubclassesAndHashedSets)
{
    struct Derived : TvPlugInCore {
        Derived() = default;
    };
    auto a = makeRecord("/x/A.vext", kAttrs);
    auto b = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("other", Value::fileURL("/y/B.bundle"), Value(), kAttrs,
                                                             kUuid);
    auto d = std::make_shared<Derived>();
    d->setUuid(kUuid);
    auto c = makeRecord("/x/A.vext", kAttrs, Uuid::random());

    EXPECT_TRUE(a->isEqual(b.get()));
    EXPECT_TRUE(a->isEqual(d.get()));
    EXPECT_EQ(a->hash(), d->hash());
    EXPECT_FALSE(a->isEqual(c.get()));
    EXPECT_FALSE(a->isEqual(nullptr));
    EXPECT_FALSE(a->isEqual(std::make_shared<Derived>().get())); // the other has no uuid

    TvPlugInCoreSet set{a};
    EXPECT_TRUE(set.contains(std::static_pointer_cast<TvPlugInCore>(d)));
    EXPECT_FALSE(set.insert(b).second);
    EXPECT_FALSE(set.contains(c));
}

TEST(TvPlugInCoreTest, IdentityWithoutUuidRaisesAndLeavesTheRecordUsable)
{
    auto record = makeRecord("/x/A.vext", Value{{"KoExtensionAttributes", kAttrs}});
    record->setUuid(std::nullopt);
    EXPECT_THROW(record->isEqual(record.get()), TvInternalInconsistency);
    TvPlugInCoreSet set;
    EXPECT_THROW(set.insert(record), TvInternalInconsistency);
    EXPECT_TRUE(set.empty());
    EXPECT_FALSE(record->diagnose());
    record->setUuid(kUuid);
    EXPECT_TRUE(set.insert(record).second);
}

TEST(TvPlugInCoreTest, ClassificationFollowsPathSuffixAndKeys)
{
    // A directory URL's trailing "/" is not part of the bundle's path.
    auto ext = makeRecord("/Apps/A.app/PlugIns/Share.vext/", kAttrs);
    EXPECT_EQ(ext->path(), "/Apps/A.app/PlugIns/Share.vext");
    EXPECT_TRUE(ext->isAppExtension());
    EXPECT_EQ(ext->protocolSpec(), Value("KoObject"));
    EXPECT_EQ(ext->principalSpec(), Value("KoObject"));
    EXPECT_FALSE(ext->containingPath());
    for (const char* path : {"/x/Share.VEXT", "/x/Share.bundle", "/x/vext", "/x/Share.vextra"}) {
        auto other = makeRecord(path, kAttrs);
        EXPECT_FALSE(other->isAppExtension()) << path;
        EXPECT_TRUE(other->protocolSpec().isNull() && other->principalSpec().isNull()) << path;
    }

    auto keyed = makeRecord("/x/D.bundle", Value{{"KoExtensionProtocol", "#Data"}, {"EmbeddedProtocol", "P"},
                                                 {"EmbeddedCode", false}, {"Dedicated", "YES"}});
    keyed->setContainingUrl(Value::fileURL("/Apps/A.app"));
    EXPECT_TRUE(keyed->isData());
    EXPECT_TRUE(keyed->isDedicated());
    EXPECT_TRUE(keyed->isHybrid()); // presence counts, whatever the value
    EXPECT_EQ(keyed->embeddedProtocolSpec(), Value("P"));
    EXPECT_EQ(keyed->containingPath(), "/Apps/A.app");
    EXPECT_FALSE(makeRecord("/x/D.bundle", Value{{"KoExtensionProtocol", "#data"}})->isData());
    EXPECT_FALSE(makeRecord("/x/D.bundle", kAttrs)->isDedicated());
}

TEST(TvPlugInCoreTest, DiagnosisReportsTheFirstFailingCheckInOrder)
{
    auto diagnosis = [](const std::string& path, Value extension) {
        MaybeError e = makeRecord(path, std::move(extension))->diagnose();
        if (!e)
            return std::string("none");
        EXPECT_EQ(e->code, 12);
        EXPECT_EQ(e->domain, "Tarvik");
        return e->description.value_or("");
    };
    EXPECT_EQ(diagnosis("/x/P.bundle", Value{{"KoExtensionProtocol", "P"}, {"KoExtensionAttributes", kAttrs}}), "none");

    auto noIdentifier = makeRecord("/x/P.bundle", kAttrs);
    noIdentifier->setIdentifier(std::nullopt);
    EXPECT_EQ(noIdentifier->diagnose()->description,
              "missing identifier (no KoExtensionIdentifier, nor even KbBundleIdentifier)");

    // Protocol before attributes.
    EXPECT_EQ(diagnosis("/x/P.bundle", kAttrs), "missing \"KoExtensionProtocol\" key in Info.vlist or SDK");
    EXPECT_EQ(diagnosis("/x/P.bundle", Value{{"KoExtensionProtocol", "P"}}),
              "missing \"KoExtensionAttributes\" key in Info.vlist or SDK");

    // App extensions default their protocol and may only name KoObject as principal class;
    // other plug-ins may name any.
    const Value ext{{"KoExtensionAttributes", kAttrs}};
    EXPECT_EQ(diagnosis("/x/E.vext", ext), "none");
    EXPECT_EQ(diagnosis("/x/E.vext", ext.with("PrincipalClass", "KoObject")), "none");
    const std::string principal = "Application Extensions may not use the \"PrincipalClass\" key";
    EXPECT_EQ(diagnosis("/x/E.vext", ext.with("PrincipalClass", "Mine")), principal);
    EXPECT_EQ(diagnosis("/x/P.bundle", ext.with("KoExtensionProtocol", "P").with("PrincipalClass", "Mine")), "none");

    // Principal class before PassProxy before EmbeddedCode; presence alone counts.
    EXPECT_EQ(diagnosis("/x/E.vext", ext.with("PrincipalClass", "Mine").with("PassProxy", false)), principal);
    EXPECT_EQ(diagnosis("/x/E.vext", ext.with("PassProxy", false).with("EmbeddedCode", "x")),
              "the \"PassProxy\" key is not supported on this platform");
    EXPECT_EQ(diagnosis("/x/E.vext", ext.with("EmbeddedCode", "x")),
              "hybrid plug-ins are not supported on this platform");
}

TEST(TvPlugInCoreTest, OldStyleTellsTheConfigurationGenerations)
{
    auto record = makeRecord("/x/A.vext", kAttrs);
    record->setBundleInfoDictionary(Value{{"KoExtension", kAttrs}, {"Tarvik", true}});
    EXPECT_FALSE(record->oldStyle());
    record->setBundleInfoDictionary(Value{{"Tarvik", kAttrs}});
    EXPECT_TRUE(record->oldStyle());
    record->setBundleInfoDictionary(Value{{"KbBundleIdentifier", "a"}});
    EXPECT_THROW((void)record->oldStyle(), TvInternalInconsistency);
}

// A record whose lookups answer from elsewhere, as the daemon's registry-backed record does.
class RemoteLookupPlugIn : public TvPlugInCore {
public:
    static std::shared_ptr<RemoteLookupPlugIn> make(Value remote)
    {
        std::shared_ptr<RemoteLookupPlugIn> record(new RemoteLookupPlugIn(std::move(remote)));
        if (!record->constructWithNameUrlBundleInfoInfoUuid("com.example.remote", Value::fileURL("/x/R.vext"),
                                                            Value(), kAttrs, kUuid))
            return nullptr;
        return record;
    }
    Value pluginKey(std::string_view key) const override { return remote_[key]; }
    Value bundleInfoDictionary() const override { return Value{{"KoExtension", remote_}}; }

private:
    explicit RemoteLookupPlugIn(Value remote) : remote_(std::move(remote)) {}
    Value remote_;
};

TEST(TvPlugInCoreTest, SubclassLookupsShapeDerivedPropertiesDiagnosisAndForm)
{
    auto record = RemoteLookupPlugIn::make(Value{{"KoExtensionAttributes", Value{{"KoExtensionVersion", "7.1"}}},
                                                 {"PrincipalClass", "Custom"}, {"Dedicated", 1}});
    ASSERT_TRUE(record);
    EXPECT_EQ(record->plugInDictionary(), kAttrs); // the stored one is not consulted
    EXPECT_EQ(record->version(), Value("7.1"));
    EXPECT_TRUE(record->isDedicated());
    EXPECT_FALSE(record->oldStyle());
    EXPECT_EQ(record->diagnose()->description, "Application Extensions may not use the \"PrincipalClass\" key");

    record->setOriginalIdentifier("com.example.remote");
    Result<Value> form = record->exportForm();
    ASSERT_TRUE(form.ok()) << form.error().localizedDescription();
    EXPECT_EQ((*form)["version"], Value("7.1"));
    EXPECT_EQ((*form)["bundleInfo"]["KoExtension"]["PrincipalClass"], Value("Custom"));
}

TEST(TvPlugInCoreTest, ConcurrentReadersAlwaysSeeWholeValues)
{
    auto record = makeRecord("/x/A.vext", kAttrs);
    const Value first{{"election", 1}, {"extension", Value{{"a", "b"}}}};
    const Value second{{"election", 0}};
    const std::string shortName = "Short", longName = "A considerably longer display name";
    record->setAnnotations(first);

    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                Value seen = record->annotations();
                std::optional<std::string> name = record->localizedName();
                if ((seen != first && seen != second) || (name && *name != shortName && *name != longName))
                    torn.fetch_add(1);
            }
        });
    }
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
