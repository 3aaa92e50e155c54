// TvPlugInCore: construction, identity, classification and diagnosis, the
// exported form, and the merge of an extension point's SDK defaults.
#include "Tarvik/TvPlugInCore.h"
#include "base/InternalInconsistency.h"
#include "tests/support/FakeExtensionSdkRegistry.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tv {
namespace {

using test::LogCapture;

const Uuid kUuid = *Uuid::parse("A1B2C3D4-0000-4111-8222-333344445555");
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

const Value kBundleInfo{{"KbBundleIdentifier", "com.example.share"},
                        {"KbBundleInfoVlistURL", Value::fileURL("/x/Share.vext/Info.vlist")},
                        {"KoExtension", Value{{"KoExtensionAttributes", Value{{"KoExtensionVersion", "2.0"}}}}}};

std::shared_ptr<TvPlugInCore> recordWithInfo(Value info = kBundleInfo)
{
    return TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.share", Value::fileURL("/x/Share.vext"),
                                                          std::move(info), Value(), kUuid);
}

// A record with every property set, as the daemon exports it.
std::shared_ptr<TvPlugInCore> fullRecord()
{
    auto r = recordWithInfo();
    r->setOriginalIdentifier("com.example.share.original");
    r->setContainingUrl(Value::fileURL("/Apps/A.app"));
    r->setOnSystemVolume(true);
    r->setLastModified(1763800000);
    r->setHubProtocolVersion(2);
    r->setEntitlements(Value{{"com.veltra.developer.replace-plugin", "com.example.old"}});
    r->setAnnotations(Value{{"election", 1}});
    r->setLocalizedName("Share");
    r->setLocalizedShortName("Sh");
    r->setLocalizedContainingName("Example");
    return r;
}

TEST(TvPlugInCoreFormTest, ExportThenRebuildGivesAnEqualRecordWithTheSameValues)
{
    auto original = fullRecord();
    Result<Value> form = original->exportForm();
    ASSERT_TRUE(form.ok()) << form.error().localizedDescription();
    EXPECT_EQ((*form)["uuid"], Value("A1B2C3D4-0000-4111-8222-333344445555"));
    EXPECT_EQ((*form)["version"], Value("2.0"));
    EXPECT_TRUE((*form)["bundleInfo"]["KbBundleInfoVlistURL"].isNull());
    auto rebuilt = TvPlugInCore::initWithForm(*form);
    ASSERT_TRUE(rebuilt);
    EXPECT_TRUE(rebuilt->isEqual(original.get()));
    EXPECT_EQ(*rebuilt->exportForm(), *form); // so every exported value survived
}

TEST(TvPlugInCoreFormTest, ExportOmitsAbsentConditionalEntriesAndFailsOnMissingUnconditionalOnes)
{
    auto r = recordWithInfo();
    EXPECT_EQ(r->exportForm().error(), makeError(12, "plug-in form has no value for \"original-identifier\""));
    r->setOriginalIdentifier("com.example.share");
    Result<Value> form = r->exportForm();
    ASSERT_TRUE(form.ok());
    EXPECT_EQ(form->count(), 11u); // none of the five conditional entries
    EXPECT_EQ((*form)["annotations"], Value::emptyDictionary());
    r->setPlugInDictionary(Value::emptyDictionary()); // no version any more
    EXPECT_EQ(r->exportForm().error().description, "plug-in form has no value for \"version\"");
    r->setBundleInfoDictionary(Value());
    r->setPlugInDictionary(Value{{"KoExtensionAttributes", Value{{"KoExtensionVersion", "1"}}}});
    EXPECT_EQ(r->exportForm().error().description, "plug-in form has no value for \"bundleInfo\"");
}

TEST(TvPlugInCoreFormTest, SetupFromFormAppliesDefaultsAndRefusesWhatSetupRefuses)
{
    test::LogCapture log;
    const Value minimal{{"path", "/x/Share.vext"}, {"identifier", "com.example.share"}, {"bundleInfo", kBundleInfo},
                        {"info", Value{{"ignored", true}}}, {"uuid", "not-a-uuid"},
                        {"hash", Value::data(Bytes(20, 0xab))}, {"requirement", "anchor trusted"}};
    auto r = TvPlugInCore::initWithForm(minimal);
    ASSERT_TRUE(r);
    EXPECT_EQ(std::tuple(r->hubProtocolVersion(), r->lastModified(), r->onSystemVolume()), std::tuple(1u, 0, false));
    EXPECT_TRUE(r->containingUrl().isNull() && r->annotations().isNull());
    EXPECT_EQ(std::tuple(r->sighash(), r->requirement()), std::tuple(Bytes(20, 0xab), std::string("anchor trusted")));
    // The plug-in dictionary comes from the bundle information, never from "info".
    EXPECT_EQ(r->plugInDictionary(), kBundleInfo["KoExtension"]);
    EXPECT_TRUE(TvPlugInCore::initWithForm(minimal.without("bundleInfo"))->plugInDictionary().isNull());

    log.clear();
    for (const Value& bad : {minimal.without("path"), minimal.with("path", 3), minimal.without("identifier"),
                             minimal.with("bundleInfo", Value{{"KoExtension", "x"}})})
        EXPECT_FALSE(TvPlugInCore::initWithForm(bad)) << bad.description();
    EXPECT_EQ(log.lines().size(), 2u); // the refusals of construction log as there
}

TEST(TvPlugInCoreFormTest, AnnotationsAreReplacedNeverChangedInPlace)
{
    auto r = fullRecord();
    r->setAnnotations(Value{{"election", 1}, {"extension", Value{{"k", "v"}}}});
    Value before = r->annotations();
    r->setAnnotationValue("election", Value());
    r->setAnnotationValue("note", "x");
    EXPECT_EQ(r->annotations(), (Value{{"extension", Value{{"k", "v"}}}, {"note", "x"}}));
    EXPECT_EQ(before, (Value{{"election", 1}, {"extension", Value{{"k", "v"}}}})); // an old reader keeps its copy

    // updateFromForm replaces annotations only, and clears them when the form has none.
    r->updateFromForm(Value{{"annotations", Value{{"election", 0}}}, {"localizedDisplayName", "Other"}});
    EXPECT_EQ(r->annotations(), (Value{{"election", 0}}));
    r->updateFromForm(Value::emptyDictionary());
    EXPECT_TRUE(r->annotations().isNull());
}

class TvPlugInCoreSdkTest : public ::testing::Test {
protected:
    TvPlugInCoreSdkTest() { TvPlugInCore::setSdkRegistry(registry_); }
    ~TvPlugInCoreSdkTest() override { TvPlugInCore::setSdkRegistry(previous_); }

    std::shared_ptr<test::FakeExtensionSdkRegistry> registry_ = std::make_shared<test::FakeExtensionSdkRegistry>();
    std::shared_ptr<platform::ExtensionSdkRegistry> previous_ = TvPlugInCore::sdkRegistry();
    test::LogCapture log_;
};

TEST_F(TvPlugInCoreSdkTest, MergeKeepsOwnValuesAtEveryDepthWithTheTwoExceptionsAndSharedUnion)
{
    auto r = recordWithInfo(Value{{"KoExtension", Value::emptyDictionary()}});
    auto level = [](Value name, int timeout, Array shared, Value nested) {
        return Value{{"Name", std::move(name)}, {"CleanTimeout", timeout}, {"Shared", Value(std::move(shared))}, {"Nested", std::move(nested)}};
    };
    // The same shape at two depths; the SDK also holds a dictionary where the
    // plug-in holds a string, and keys of its own.
    Value own = level("own", 5, {"a", "b"}, "text").with("KoExtension", level("own", 5, {"p"}, Value{{"X", 1}}));
    Value sdk = level("sdk", 30, {"b", "c"}, Value{{"k", "v"}}).with("OnlySdk", true)
                    .with("KoExtension", level("sdk", 30, {"p", "q"}, Value{{"X", 2}, {"Y", 3}}));
    EXPECT_EQ(r->mergeDictionaryInto(sdk, own), level("own", 30, {"a", "b", "c"}, "text").with("OnlySdk", true)
                                                    .with("KoExtension", level("own", 30, {"p", "q"}, Value{{"X", 1}, {"Y", 3}})));
    // An SDK "KoExtension" that is no dictionary changes nothing under that key.
    EXPECT_EQ(r->mergeDictionaryInto(Value{{"KoExtension", "text"}, {"Extra", 1}}, own), own.with("Extra", 1));
    // The shared union keeps each element once; own non-arrays stay.
    EXPECT_EQ(r->mergeSharedResourcesInto(Value(Array{"c", "a", "c", 1}), Value(Array{"a", "b", "a"})), Value(Array{"a", "b", "c", 1}));
    EXPECT_EQ(r->mergeSharedResourcesInto(Value(Array{"x"}), Value("own")), Value("own"));
}

TEST_F(TvPlugInCoreSdkTest, ResolveMergesTheRegisteredSdkEachTimeAndCanonicalizes)
{
    registry_->set("com.example.point", Value{{"KoExtension", Value{{"KoExtensionProtocol", "SdkProtocol"},
                                                                    {"KoExtensionAttributes", Value{{"Y", 2}}}}}});
    auto r = recordWithInfo(Value{{"KbBundleShortVersionString", "2.3"},
                                  {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.example.point"}}}});
    ASSERT_TRUE(r->diagnose());
    r->resolveSDK();
    EXPECT_EQ(r->protocolSpec(), Value("SdkProtocol"));
    EXPECT_EQ(r->attribute("Y"), Value(2));
    EXPECT_EQ(r->version(), Value("2.3"));
    // Canonicalization completes the plug-in dictionary, not the bundle information.
    EXPECT_TRUE(r->infoKey("KoExtension")["KoExtensionAttributes"]["KoExtensionVersion"].isNull());
    EXPECT_FALSE(r->diagnose());
    registry_->set("com.example.point", Value{{"KoExtension", Value{{"New", 1}}}});
    r->resolveSDK();
    EXPECT_EQ(registry_->lookUpCount(), 2u);
    EXPECT_EQ(r->pluginKey("New"), Value(1));
}

TEST_F(TvPlugInCoreSdkTest, ResolveHandlesMissingUnregisteredAndInvalidIdentifiers)
{
    auto none = recordWithInfo(Value{{"KoExtension", Value::emptyDictionary()}});
    none->resolveSDK(); // no lookup, no log, canonicalized
    EXPECT_EQ(registry_->lookUpCount(), 0u);
    EXPECT_EQ(none->attributes(), (Value{{"KoExtensionVersion", "1"}}));
    EXPECT_TRUE(log_.lines().empty());

    auto unknown = recordWithInfo(Value{{"KoExtension", Value{{"KoExtensionPointIdentifier", "com.example.none"},
                                                              {"KoExtensionAttributes", Value{{"KoExtensionVersion", "4"}}}}}});
    Value before = unknown->bundleInfoDictionary();
    unknown->resolveSDK();
    EXPECT_EQ(log_.find("plug-in sdk \"com.example.none\" not registered")->category, "ops");
    EXPECT_EQ(unknown->bundleInfoDictionary(), before);

    auto invalid = recordWithInfo(Value{{"KoExtension", Value{{"KoExtensionPointIdentifier", 42}}}});
    Value plugIn = invalid->plugInDictionary();
    invalid->resolveSDK();
    EXPECT_EQ(log_.find("invalid SDK key:42")->level, platform::LogLevel::Error);
    EXPECT_EQ(invalid->plugInDictionary(), plugIn); // not even canonicalized

    auto bare = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.bare", Value::fileURL("/x/Bare.vext"), Value(),
                                                               Value{{"KoExtensionPointIdentifier", "p"}}, kUuid);
    try {
        bare->resolveSDK();
        FAIL() << "resolving without bundle information must raise";
    } catch (const TvInternalInconsistency& e) {
        EXPECT_STREQ(e.what(), "cannot resolve SDK without materialized Info.vlist");
    }
    EXPECT_EQ(bare->sdkSpec(), Value("p")); // untouched and still usable
}

} // namespace
} // namespace tv
