#include "Tarvik/TvPlugInCore.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

using test::LogCapture;

const Uuid kUuid = *Uuid::parse("A1B2C3D4-0000-4111-8222-333344445555");

Value bundleInfo()
{
    return Value{{"KbBundleIdentifier", "com.example.share"},
                 {"KbBundleInfoVlistURL", Value::fileURL("/Apps/A.app/PlugIns/Share.vext/Info.vlist")},
                 {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.example.point"},
                                       {"KoExtensionAttributes", Value{{"KoExtensionVersion", "2.0"}}}}}};
}

// A record with every property set, as the daemon exports it.
std::shared_ptr<TvPlugInCore> fullRecord()
{
    auto r = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(
        "com.example.share", Value::fileURL("/Apps/A.app/PlugIns/Share.vext"), bundleInfo(), Value(), kUuid);
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
    Result<Value> exported = original->exportForm();
    ASSERT_TRUE(exported.ok()) << exported.error().localizedDescription();
    const Value& form = *exported;

    EXPECT_EQ(form["uuid"], Value("A1B2C3D4-0000-4111-8222-333344445555"));
    EXPECT_EQ(form["version"], Value("2.0"));
    EXPECT_EQ(form["hubProtocolVersion"], Value(2u));
    EXPECT_EQ(form["lastmodified"], Value(1763800000));
    EXPECT_EQ(form["systemResident"], Value(true));
    EXPECT_EQ(form["info"], original->plugInDictionary());
    EXPECT_TRUE(form["bundleInfo"]["KbBundleInfoVlistURL"].isNull());
    EXPECT_EQ(form["bundleInfo"]["KbBundleIdentifier"], Value("com.example.share"));
    // The record's own dictionary is not changed by the export.
    EXPECT_FALSE(original->bundleInfoDictionary()["KbBundleInfoVlistURL"].isNull());

    auto rebuilt = TvPlugInCore::initWithForm(form);
    ASSERT_TRUE(rebuilt);
    EXPECT_TRUE(rebuilt->isEqual(original.get()));
    EXPECT_EQ(rebuilt->hash(), original->hash());
    EXPECT_EQ(rebuilt->identifier(), original->identifier());
    EXPECT_EQ(rebuilt->originalIdentifier(), original->originalIdentifier());
    EXPECT_EQ(rebuilt->path(), original->path());
    EXPECT_EQ(rebuilt->containingPath(), original->containingPath());
    EXPECT_EQ(rebuilt->onSystemVolume(), original->onSystemVolume());
    EXPECT_EQ(rebuilt->lastModified(), original->lastModified());
    EXPECT_EQ(rebuilt->hubProtocolVersion(), original->hubProtocolVersion());
    EXPECT_EQ(rebuilt->entitlements(), original->entitlements());
    EXPECT_EQ(rebuilt->annotations(), original->annotations());
    EXPECT_EQ(rebuilt->localizedName(), original->localizedName());
    EXPECT_EQ(rebuilt->localizedShortName(), original->localizedShortName());
    EXPECT_EQ(rebuilt->localizedContainingName(), original->localizedContainingName());
    EXPECT_EQ(rebuilt->plugInDictionary(), original->plugInDictionary());
    EXPECT_EQ(rebuilt->version(), original->version());

    // A second round trip is stable.
    Result<Value> again = rebuilt->exportForm();
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(*again, form);
}

TEST(TvPlugInCoreFormTest, ConditionalEntriesAppearOnlyWhenPresent)
{
    auto r = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.share", Value::fileURL("/x/Share.vext"),
                                                            bundleInfo(), Value(), kUuid);
    r->setOriginalIdentifier("com.example.share");
    Result<Value> form = r->exportForm();
    ASSERT_TRUE(form.ok());
    EXPECT_EQ((*form)["annotations"], Value::emptyDictionary());
    for (const char* key : {"entitlements", "containingPath", "localizedContainingDisplayName", "localizedDisplayName",
                            "localizedShortName"})
        EXPECT_TRUE((*form)[key].isNull()) << key;
    EXPECT_EQ(form->count(), 11u);
}

TEST(TvPlugInCoreFormTest, ExportFailsWhenAnUnconditionalEntryHasNoValue)
{
    // No original identifier.
    auto r = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.share", Value::fileURL("/x/Share.vext"),
                                                            bundleInfo(), Value(), kUuid);
    Result<Value> form = r->exportForm();
    ASSERT_FALSE(form.ok());
    EXPECT_EQ(form.error().code, 12);
    EXPECT_EQ(form.error().domain, "Tarvik");
    EXPECT_EQ(form.error().description, "plug-in form has no value for \"original-identifier\"");

    // No bundle information dictionary (a record built from `info` alone).
    auto bare = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(
        "com.example.bare", Value::fileURL("/x/Bare.vext"), Value(),
        Value{{"KoExtensionAttributes", Value{{"KoExtensionVersion", "1"}}}}, kUuid);
    bare->setOriginalIdentifier("com.example.bare");
    form = bare->exportForm();
    ASSERT_FALSE(form.ok());
    EXPECT_EQ(form.error().description, "plug-in form has no value for \"bundleInfo\"");

    // No version: the first missing entry in form order is named.
    auto noVersion = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(
        "com.example.nv", Value::fileURL("/x/Nv.vext"), Value{{"KoExtension", Value::emptyDictionary()}}, Value(),
        kUuid);
    form = noVersion->exportForm();
    ASSERT_FALSE(form.ok());
    EXPECT_EQ(form.error().description, "plug-in form has no value for \"original-identifier\"");
    noVersion->setOriginalIdentifier("com.example.nv");
    form = noVersion->exportForm();
    ASSERT_FALSE(form.ok());
    EXPECT_EQ(form.error().description, "plug-in form has no value for \"version\"");
}

TEST(TvPlugInCoreFormTest, SetupFromFormAppliesDefaultsAndRefusesWhatSetupRefuses)
{
    LogCapture log;
    Value minimal{{"path", "/x/Share.vext"}, {"identifier", "com.example.share"}, {"bundleInfo", bundleInfo()},
                  {"info", Value{{"ignored", true}}}, {"uuid", "not-a-uuid"}};
    auto r = TvPlugInCore::initWithForm(minimal);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->hubProtocolVersion(), 1u);
    EXPECT_EQ(r->lastModified(), 0);
    EXPECT_FALSE(r->onSystemVolume());
    EXPECT_FALSE(r->containingUrl().asUrl());
    EXPECT_TRUE(r->annotations().isNull());
    EXPECT_FALSE(r->localizedName());
    ASSERT_TRUE(r->uuid());
    EXPECT_NE(*r->uuid(), kUuid);
    // The plug-in dictionary comes from the bundle information, not from "info".
    EXPECT_EQ(r->plugInDictionary(), bundleInfo()["KoExtension"]);

    // Keys only a form carries: "hash" and "requirement".
    Value signedForm = minimal.with("hash", Value::data(Bytes(20, 0xab))).with("requirement", "anchor trusted");
    auto s = TvPlugInCore::initWithForm(signedForm);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->sighash(), Bytes(20, 0xab));
    EXPECT_EQ(s->requirement(), "anchor trusted");

    // A form without bundle information yields no plug-in dictionary at all.
    auto noInfo = TvPlugInCore::initWithForm(minimal.without("bundleInfo"));
    ASSERT_TRUE(noInfo);
    EXPECT_TRUE(noInfo->plugInDictionary().isNull());

    log.clear();
    EXPECT_FALSE(TvPlugInCore::initWithForm(minimal.without("path")));
    EXPECT_FALSE(TvPlugInCore::initWithForm(minimal.with("path", 3)));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(TvPlugInCore::initWithForm(minimal.without("identifier")));
    EXPECT_TRUE(log.contains("missing identifier in plug-in at /x/Share.vext"));
    EXPECT_FALSE(TvPlugInCore::initWithForm(minimal.with("bundleInfo", Value{{"KoExtension", "x"}})));
    EXPECT_EQ(log.countContaining("malformed plug-in dictionary in plug-in com.example.share at "), 1u);
}

TEST(TvPlugInCoreFormTest, AnnotationsAreReplacedNeverChangedInPlace)
{
    auto r = fullRecord();
    r->setAnnotations(Value{{"election", 1}, {"extension", Value{{"k", "v"}}}});
    Value before = r->annotations();

    r->setAnnotationValue("election", Value());
    EXPECT_EQ(r->annotations(), (Value{{"extension", Value{{"k", "v"}}}}));
    r->setAnnotationValue("note", "x");
    EXPECT_EQ(r->annotations()["note"], Value("x"));
    // A reader that held the old dictionary still has it.
    EXPECT_EQ(before["election"], Value(1));
    EXPECT_TRUE(before["note"].isNull());

    // Without annotations the change starts from an empty dictionary.
    r->setAnnotations(Value());
    r->setAnnotationValue("election", 1);
    EXPECT_EQ(r->annotations(), (Value{{"election", 1}}));
    r->setAnnotations(Value());
    r->setAnnotationValue("election", Value());
    EXPECT_EQ(r->annotations(), Value::emptyDictionary());

    // updateFromForm replaces annotations only, and clears them when the form has none.
    std::optional<std::string> name = r->localizedName();
    r->updateFromForm(Value{{"annotations", Value{{"election", 0}}}, {"localizedDisplayName", "Other"}});
    EXPECT_EQ(r->annotations(), (Value{{"election", 0}}));
    EXPECT_EQ(r->localizedName(), name);
    r->updateFromForm(Value::emptyDictionary());
    EXPECT_TRUE(r->annotations().isNull());
}

} // namespace
} // namespace tv
