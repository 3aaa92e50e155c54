#include "Tarvik/TvPlugInCore.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

const Uuid kUuid = *Uuid::parse("A1B2C3D4-0000-4111-8222-333344445555");

const Value kBundleInfo{{"KbBundleIdentifier", "com.example.share"},
                        {"KbBundleInfoVlistURL", Value::fileURL("/x/Share.vext/Info.vlist")},
                        {"KoExtension", Value{{"KoExtensionAttributes", Value{{"KoExtensionVersion", "2.0"}}}}}};

std::shared_ptr<TvPlugInCore> bareRecord(Value info = kBundleInfo)
{
    return TvPlugInCore::initWithNameUrlBundleInfoInfoUuid("com.example.share", Value::fileURL("/x/Share.vext"),
                                                          std::move(info), Value(), kUuid);
}

// A record with every property set, as the daemon exports it.
std::shared_ptr<TvPlugInCore> fullRecord()
{
    auto r = bareRecord();
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
    EXPECT_EQ((*form)["hubProtocolVersion"], Value(2u));
    EXPECT_EQ((*form)["lastmodified"], Value(1763800000));
    EXPECT_TRUE((*form)["bundleInfo"]["KbBundleInfoVlistURL"].isNull());
    EXPECT_FALSE(original->bundleInfoDictionary()["KbBundleInfoVlistURL"].isNull());

    auto rebuilt = TvPlugInCore::initWithForm(*form);
    ASSERT_TRUE(rebuilt);
    EXPECT_TRUE(rebuilt->isEqual(original.get()));
    // The rebuilt record exports the same form, so every exported value survived.
    Result<Value> again = rebuilt->exportForm();
    ASSERT_TRUE(again.ok());
    EXPECT_EQ(*again, *form);
}

TEST(TvPlugInCoreFormTest, ExportOmitsAbsentConditionalEntriesAndFailsOnMissingUnconditionalOnes)
{
    auto r = bareRecord();
    Result<Value> form = r->exportForm();
    ASSERT_FALSE(form.ok());
    EXPECT_EQ(form.error().code, 12);
    EXPECT_EQ(form.error().description, "plug-in form has no value for \"original-identifier\"");

    r->setOriginalIdentifier("com.example.share");
    form = r->exportForm();
    ASSERT_TRUE(form.ok());
    EXPECT_EQ(form->count(), 11u); // none of the five conditional entries
    EXPECT_EQ((*form)["annotations"], Value::emptyDictionary());

    r->setPlugInDictionary(Value::emptyDictionary()); // no version any more
    EXPECT_EQ(r->exportForm().error().description, "plug-in form has no value for \"version\"");
    r->setBundleInfoDictionary(Value());
    EXPECT_EQ(r->exportForm().error().description, "plug-in form has no value for \"version\"");
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
    EXPECT_EQ(r->hubProtocolVersion(), 1u);
    EXPECT_EQ(r->lastModified(), 0);
    EXPECT_FALSE(r->onSystemVolume());
    EXPECT_TRUE(r->containingUrl().isNull());
    EXPECT_TRUE(r->annotations().isNull());
    EXPECT_NE(r->uuid(), kUuid);
    EXPECT_EQ(r->sighash(), Bytes(20, 0xab));
    EXPECT_EQ(r->requirement(), "anchor trusted");
    // The plug-in dictionary comes from the bundle information, never from "info".
    EXPECT_EQ(r->plugInDictionary(), kBundleInfo["KoExtension"]);
    EXPECT_TRUE(TvPlugInCore::initWithForm(minimal.without("bundleInfo"))->plugInDictionary().isNull());

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
    r->setAnnotationValue("note", "x");
    EXPECT_EQ(r->annotations(), (Value{{"extension", Value{{"k", "v"}}}, {"note", "x"}}));
    EXPECT_EQ(before, (Value{{"election", 1}, {"extension", Value{{"k", "v"}}}})); // an old reader keeps its copy

    // Without annotations a change starts from an empty dictionary.
    r->setAnnotations(Value());
    r->setAnnotationValue("election", 1);
    EXPECT_EQ(r->annotations(), (Value{{"election", 1}}));

    // updateFromForm replaces annotations only, and clears them when the form has none.
    r->updateFromForm(Value{{"annotations", Value{{"election", 0}}}, {"localizedDisplayName", "Other"}});
    EXPECT_EQ(r->annotations(), (Value{{"election", 0}}));
    EXPECT_EQ(r->localizedName(), "Share");
    r->updateFromForm(Value::emptyDictionary());
    EXPECT_TRUE(r->annotations().isNull());
}

} // namespace
} // namespace tv
