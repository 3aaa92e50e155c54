#include "Tarvik/TvPlugInCore.h"
#include "Tarvik/base/InternalInconsistency.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tv {
namespace {

using test::LogCapture;

const Uuid kUuid = *Uuid::parse("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0");

Value extensionInfo(Value extension)
{
    return Value{{"KbBundleIdentifier", "com.example.share"}, {"KoExtension", std::move(extension)}};
}

std::shared_ptr<TvPlugInCore> makeRecord(const std::string& path, Value extension,
                                         std::optional<Uuid> uuid = kUuid)
{
    return TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.share", Value::fileURL(path),
                                                          extensionInfo(std::move(extension)), Value(), uuid);
}

TEST(TvPlugInCoreTest, ConstructionTakesThePlugInDictionaryFromBundleInfoOrElseFromInfo)
{
    Value extension{{"KoExtensionPointIdentifier", "com.example.point"}};
    auto fromBundle = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(
        "com.example.a", Value::fileURL("/Apps/A.app/PlugIns/A.vext"), extensionInfo(extension),
        Value{{"ignored", true}}, kUuid);
    ASSERT_TRUE(fromBundle);
    EXPECT_EQ(fromBundle->plugInDictionary(), extension);
    EXPECT_EQ(fromBundle->identifier(), "com.example.a");
    EXPECT_EQ(fromBundle->path(), "/Apps/A.app/PlugIns/A.vext");
    EXPECT_EQ(fromBundle->uuid(), kUuid);
    EXPECT_EQ(fromBundle->sdkSpec(), Value("com.example.point"));

    Value info{{"KoExtensionAttributes", Value::emptyDictionary()}};
    auto fromInfo = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.b", Value::fileURL("/x/B.vext"),
                                                                    Value(), info, std::nullopt);
    ASSERT_TRUE(fromInfo);
    EXPECT_EQ(fromInfo->plugInDictionary(), info);
    EXPECT_TRUE(fromInfo->bundleInfoDictionary().isNull());

    // Without a uuid each record gets its own.
    auto again = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.b", Value::fileURL("/x/B.vext"),
                                                                 Value(), info, std::nullopt);
    ASSERT_TRUE(again && fromInfo->uuid() && again->uuid());
    EXPECT_FALSE(fromInfo->isEqual(again.get()));
}

TEST(TvPlugInCoreTest, ConstructionFailuresAreRefusedWithTheirLogLines)
{
    LogCapture log;
    const Value url = Value::fileURL("/Apps/A.app/PlugIns/A.vext");

    // No url (or something that is not a URL): refused silently.
    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", Value(), extensionInfo(Value::emptyDictionary()),
                                                                 Value(), kUuid));
    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", Value("/Apps/A.app/PlugIns/A.vext"), Value(),
                                                                 Value::emptyDictionary(), kUuid));
    EXPECT_TRUE(log.lines().empty());

    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(std::nullopt, url, Value(), Value(), kUuid));
    auto missing = log.find("missing identifier in plug-in at /Apps/A.app/PlugIns/A.vext");
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->level, platform::LogLevel::Error);
    EXPECT_EQ(missing->category, "ops");

    // Bundle information without a dictionary "KoExtension", or not a dictionary at all.
    log.clear();
    Value noExtension{{"KbBundleIdentifier", "a"}};
    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", url, noExtension, Value(), kUuid));
    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", url, extensionInfo("text"), Value(), kUuid));
    EXPECT_FALSE(TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("a", url, Value(Array{}), Value(), kUuid));
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].message, "malformed plug-in dictionary in plug-in a at file:///Apps/A.app/PlugIns/A.vext: " +
                                    noExtension.description());
    for (const auto& line : lines) {
        EXPECT_EQ(line.level, platform::LogLevel::Default);
        EXPECT_EQ(line.message.rfind("malformed plug-in dictionary in plug-in a at ", 0), 0u) << line.message;
    }
}

TEST(TvPlugInCoreTest, ObsoleteMultipleKeyIsLoggedOncePerSetupAndOtherwiseIgnored)
{
    LogCapture log;
    auto record = makeRecord("/x/A.vext", Value{{"Multiple", true}});
    ASSERT_TRUE(record);
    EXPECT_FALSE(record->isMultiplexed());
    EXPECT_EQ(log.count("multiplexed plug-ins (Multiple key) obsolete and ignored"), 1u);
}

TEST(TvPlugInCoreTest, IdentityIsTheUuidAloneAcrossSubclassesAndHashedSets)
{
    class Derived : public TvPlugInCore {
    public:
        Derived() = default;
    };
    auto a = makeRecord("/x/A.vext", Value::emptyDictionary());
    auto b = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("other", Value::fileURL("/y/B.bundle"), Value(),
                                                             Value::emptyDictionary(), kUuid);
    auto d = std::make_shared<Derived>();
    d->setUuid(kUuid);
    auto c = makeRecord("/x/A.vext", Value::emptyDictionary(), Uuid::random());

    EXPECT_TRUE(a->isEqual(b.get()));
    EXPECT_TRUE(a->isEqual(d.get()));
    EXPECT_EQ(a->hash(), b->hash());
    EXPECT_EQ(a->hash(), d->hash());
    EXPECT_FALSE(a->isEqual(c.get()));
    EXPECT_FALSE(a->isEqual(nullptr));

    TvPlugInCoreSet set{a};
    EXPECT_TRUE(set.contains(b));
    EXPECT_TRUE(set.contains(std::static_pointer_cast<TvPlugInCore>(d)));
    EXPECT_FALSE(set.contains(c));
    EXPECT_FALSE(set.insert(b).second);

    // A record compared with one lacking a uuid is simply not equal to it.
    auto empty = std::make_shared<Derived>();
    EXPECT_FALSE(a->isEqual(empty.get()));
}

TEST(TvPlugInCoreTest, IdentityWithoutUuidRaisesAndLeavesTheRecordUsable)
{
    auto record = makeRecord("/x/A.vext", Value{{"KoExtensionAttributes", Value::emptyDictionary()}});
    record->setUuid(std::nullopt);
    EXPECT_THROW(record->hash(), TvInternalInconsistency);
    EXPECT_THROW(record->isEqual(record.get()), TvInternalInconsistency);
    try {
        TvPlugInCoreSet set;
        set.insert(record);
        FAIL() << "inserting a record without uuid must raise";
    } catch (const TvInternalInconsistency& e) {
        EXPECT_NE(std::string(e.what()).find("uuid"), std::string::npos);
    }
    // Nothing was changed by the refused calls.
    EXPECT_EQ(record->identifier(), "com.example.share");
    EXPECT_FALSE(record->diagnose());
    record->setUuid(kUuid);
    EXPECT_TRUE(record->isEqual(record.get()));
}

TEST(TvPlugInCoreTest, ClassificationFollowsPathSuffixAndKeys)
{
    auto ext = makeRecord("/Apps/A.app/PlugIns/Share.vext", Value::emptyDictionary());
    EXPECT_TRUE(ext->isAppExtension());
    EXPECT_EQ(ext->protocolSpec(), Value("KoObject"));
    EXPECT_EQ(ext->principalSpec(), Value("KoObject"));
    EXPECT_EQ(ext->embeddedProtocolSpec(), Value("KoObject"));
    EXPECT_FALSE(ext->isData());
    EXPECT_FALSE(ext->isDedicated());
    EXPECT_FALSE(ext->isHybrid());
    EXPECT_FALSE(ext->containingPath());
    EXPECT_TRUE(ext->embeddedCodePath().isNull());

    // A directory URL's trailing "/" is not part of the bundle's path.
    auto dirUrl = makeRecord("/Apps/A.app/PlugIns/Share.vext/", Value::emptyDictionary());
    EXPECT_EQ(dirUrl->path(), "/Apps/A.app/PlugIns/Share.vext");
    EXPECT_TRUE(dirUrl->isAppExtension());

    for (const char* path : {"/Apps/A.app/PlugIns/Share.VEXT", "/x/Share.bundle", "/x/vext", "/x/Share.vextra"}) {
        auto other = makeRecord(path, Value::emptyDictionary());
        EXPECT_FALSE(other->isAppExtension()) << path;
        EXPECT_TRUE(other->protocolSpec().isNull()) << path;
        EXPECT_TRUE(other->principalSpec().isNull()) << path;
    }

    auto keyed = makeRecord("/x/Data.bundle", Value{{"KoExtensionProtocol", "#Data"},
                                                     {"EmbeddedProtocol", "P"},
                                                     {"EmbeddedCode", false},
                                                     {"Dedicated", "YES"},
                                                     {"KoExtensionAttributes", Value{{"KoExtensionVersion", "3"}}}});
    keyed->setContainingUrl(Value::fileURL("/Apps/A.app"));
    keyed->setLastModified(1700000000);
    EXPECT_TRUE(keyed->isData());
    EXPECT_TRUE(keyed->isDedicated());
    EXPECT_TRUE(keyed->isHybrid()); // presence counts, whatever the value
    EXPECT_EQ(keyed->embeddedProtocolSpec(), Value("P"));
    EXPECT_EQ(keyed->version(), Value("3"));
    EXPECT_EQ(keyed->containingPath(), "/Apps/A.app");
    EXPECT_EQ(keyed->timestamp(), Date::fromSeconds(1700000000));

    // Only the exact string counts as a data protocol.
    EXPECT_FALSE(makeRecord("/x/D.bundle", Value{{"KoExtensionProtocol", "#data"}})->isData());
    EXPECT_FALSE(makeRecord("/x/D.bundle", Value{{"KoExtensionProtocol", Value(Array{"#Data"})}})->isData());
}

TEST(TvPlugInCoreTest, DiagnosisReportsTheFirstFailingCheckInOrder)
{
    const Value attrs = Value::emptyDictionary();
    auto description = [](const std::shared_ptr<TvPlugInCore>& r) {
        MaybeError e = r->diagnose();
        if (!e)
            return std::string("none");
        EXPECT_EQ(e->code, 12);
        EXPECT_EQ(e->domain, "Tarvik");
        return e->description.value_or("");
    };

    auto good = makeRecord("/x/P.bundle", Value{{"KoExtensionProtocol", "P"}, {"KoExtensionAttributes", attrs}});
    EXPECT_EQ(description(good), "none");

    auto noIdentifier = makeRecord("/x/P.bundle", Value::emptyDictionary());
    noIdentifier->setIdentifier(std::nullopt);
    EXPECT_EQ(description(noIdentifier), "missing identifier (no KoExtensionIdentifier, nor even KbBundleIdentifier)");

    // Step 2 before step 3.
    EXPECT_EQ(description(makeRecord("/x/P.bundle", Value::emptyDictionary())),
              "missing \"KoExtensionProtocol\" key in Info.vlist or SDK");
    EXPECT_EQ(description(makeRecord("/x/P.bundle", Value{{"KoExtensionProtocol", "P"}})),
              "missing \"KoExtensionAttributes\" key in Info.vlist or SDK");

    // App extensions: protocol defaults, principal class must be KoObject when named.
    EXPECT_EQ(description(makeRecord("/x/E.vext", Value{{"KoExtensionAttributes", attrs}})), "none");
    EXPECT_EQ(description(makeRecord("/x/E.vext", Value{{"KoExtensionAttributes", attrs}, {"PrincipalClass", "KoObject"}})),
              "none");
    EXPECT_EQ(description(makeRecord("/x/E.vext", Value{{"KoExtensionAttributes", attrs}, {"PrincipalClass", "Mine"}})),
              "Application Extensions may not use the \"PrincipalClass\" key");
    // ...while a plug-in that is not an app extension may name any principal class.
    EXPECT_EQ(description(makeRecord("/x/P.bundle", Value{{"KoExtensionProtocol", "P"},
                                                          {"KoExtensionAttributes", attrs},
                                                          {"PrincipalClass", "Mine"}})),
              "none");

    // Step 4 before 5, 5 before 6; presence alone counts.
    EXPECT_EQ(description(makeRecord("/x/E.vext", Value{{"KoExtensionAttributes", attrs},
                                                        {"PrincipalClass", "Mine"},
                                                        {"PassProxy", false}})),
              "Application Extensions may not use the \"PrincipalClass\" key");
    EXPECT_EQ(description(makeRecord("/x/E.vext", Value{{"KoExtensionAttributes", attrs},
                                                        {"PassProxy", false},
                                                        {"EmbeddedCode", "x"}})),
              "the \"PassProxy\" key is not supported on this platform");
    EXPECT_EQ(description(makeRecord("/x/E.vext", Value{{"KoExtensionAttributes", attrs}, {"EmbeddedCode", "x"}})),
              "hybrid plug-ins are not supported on this platform");
}

TEST(TvPlugInCoreTest, OldStyleTellsTheConfigurationGenerations)
{
    auto record = makeRecord("/x/A.vext", Value::emptyDictionary());
    EXPECT_FALSE(record->oldStyle());
    record->setBundleInfoDictionary(Value{{"KoExtension", Value::emptyDictionary()}, {"Tarvik", true}});
    EXPECT_FALSE(record->oldStyle());
    record->setBundleInfoDictionary(Value{{"Tarvik", Value::emptyDictionary()}});
    EXPECT_TRUE(record->oldStyle());
    record->setBundleInfoDictionary(Value{{"KbBundleIdentifier", "a"}});
    try {
        (void)record->oldStyle();
        FAIL() << "a record of neither style must raise";
    } catch (const TvInternalInconsistency& e) {
        EXPECT_STREQ(e.what(), "unknown plug-in configuration style");
    }
}

// A record whose plug-in dictionary lookups come from elsewhere, as the
// daemon's registry-backed record does.
class RemoteLookupPlugIn : public TvPlugInCore {
public:
    static std::shared_ptr<RemoteLookupPlugIn> make(Value remote)
    {
        std::shared_ptr<RemoteLookupPlugIn> record(new RemoteLookupPlugIn(std::move(remote)));
        if (!record->constructWithNameUrlBundleInfoInfoUuid("com.example.remote", Value::fileURL("/x/R.vext"),
                                                            Value(), Value::emptyDictionary(), kUuid))
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
                                                 {"KoExtensionPointIdentifier", "com.example.point"},
                                                 {"PrincipalClass", "Custom"},
                                                 {"Dedicated", 1}});
    ASSERT_TRUE(record);
    // The stored plug-in dictionary is empty; everything comes through the override.
    EXPECT_EQ(record->plugInDictionary(), Value::emptyDictionary());
    EXPECT_EQ(record->version(), Value("7.1"));
    EXPECT_EQ(record->attribute("KoExtensionVersion"), Value("7.1"));
    EXPECT_EQ(record->sdkSpec(), Value("com.example.point"));
    EXPECT_TRUE(record->isDedicated());
    EXPECT_FALSE(record->oldStyle());
    ASSERT_TRUE(record->diagnose());
    EXPECT_EQ(record->diagnose()->description, "Application Extensions may not use the \"PrincipalClass\" key");

    record->setOriginalIdentifier("com.example.remote");
    Result<Value> form = record->exportForm();
    ASSERT_TRUE(form.ok()) << form.error().localizedDescription();
    EXPECT_EQ((*form)["version"], Value("7.1"));
    EXPECT_EQ((*form)["bundleInfo"]["KoExtension"]["PrincipalClass"], Value("Custom"));
}

TEST(TvPlugInCoreTest, ConcurrentReadersAlwaysSeeWholeValues)
{
    auto record = makeRecord("/x/A.vext", Value::emptyDictionary());
    const Value first{{"election", 1}, {"extension", Value{{"a", "b"}}}};
    const Value second{{"election", 0}};
    record->setAnnotations(first);

    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                Value seen = record->annotations();
                if (seen != first && seen != second)
                    torn.fetch_add(1);
                std::optional<std::string> name = record->localizedName();
                if (name && *name != "Short" && *name != "A considerably longer display name")
                    torn.fetch_add(1);
            }
        });
    }
    for (int i = 0; i < 5000; ++i) {
        record->setAnnotations(i % 2 ? first : second);
        record->setLocalizedName(i % 2 ? "Short" : "A considerably longer display name");
    }
    stop.store(true);
    for (auto& t : readers)
        t.join();
    EXPECT_EQ(torn.load(), 0);
}

} // namespace
} // namespace tv
