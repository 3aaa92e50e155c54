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
    EXPECT_TRUE((*form)["bundleInfo"]["KbBundleInfoVlistURL"].isNull());
    auto rebuilt = TvPlugInCore::initWithForm(*form);
    ASSERT_TRUE(rebuilt);
    EXPECT_TRUE(rebuilt->isEqual(original.get()));
    EXPECT_EQ(*rebuilt->exportForm(), *form); // so every exported value survived
}

TEST(TvPlugInCoreFormTest, ExportOmitsAbsentConditionalEntriesAndFailsOnMissingUnconditionalOnes)
{
    auto r = bareRecord();
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

} // namespace
} // namespace tv
