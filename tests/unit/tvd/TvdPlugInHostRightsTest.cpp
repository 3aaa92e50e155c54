// Host authorization and the privacy services of a plug-in's application.
#include "tvd/TvdPlugIn.h"

#include "Tarvik/TvBundle.h"
#include "platform/privacy/LinuxPrivacyConsentService.h"
#include "platform/process/LinuxBundleService.h"
#include "tests/support/FakeVlistFiles.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/ServerHarness.h"
#include "tvd/TvdMatchRules.h"
#include "tvd/TvdVynClient.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

constexpr const char* kRestriction = "com.veltra.developer.tarvik.allowedplugins";

std::shared_ptr<TvdPlugIn> plugInNamed(const std::string& identifier, const Value& demanded = Value())
{
    auto r = test::makePlugInRecord("/apps/A.app/PlugIns/" + identifier + ".vext", identifier);
    if (!demanded.isNull()) {
        r->plugInDictionary = r->plugInDictionary.with("KoExtensionHostEntitlement", demanded);
        r->infoDictionary = r->infoDictionary.with("KoExtension", r->plugInDictionary);
    }
    auto p = TvdPlugIn::initWithRSData(r);
    EXPECT_TRUE(p);
    return p;
}

TEST(TvdPlugInHostRightsTest, RestrictionFirstThenThePlugInsDemand)
{
    TvdPlugIn::setSystemVolumeRoot("/System");
    TvdMatchRules::setShared(nullptr);
    const Value onlyAB{{"KoExtensionIdentifier", Value(Array{Value("a"), Value("b")})}};
    const std::string lacks = "the host does not have the \"com.example.host\" entitlement";
    const struct {
        Value hostEntitlements;
        std::string plugIn;
        Value demanded;
        std::optional<std::string> reason;
    } cases[] = {
        {Value::emptyDictionary(), "a", Value(), std::nullopt},
        {Value{{kRestriction, Value(true)}}, "a", Value(), "invalid host restriction entitlement"},
        {Value{{kRestriction, Value("a")}}, "a", Value(), "invalid host restriction entitlement"},
        {Value{{kRestriction, Value::emptyDictionary()}}, "c", Value(), std::nullopt},
        {Value{{kRestriction, onlyAB}}, "b", Value(), std::nullopt},
        {Value{{kRestriction, onlyAB}}, "c", Value(), "the host's plug-in entitlement does not allow this plug-in"},
        // Restriction is checked before the demand.
        {Value{{kRestriction, onlyAB}}, "c", Value("com.example.host"),
         "the host's plug-in entitlement does not allow this plug-in"},
        {Value{{kRestriction, onlyAB}}, "a", Value("com.example.host"), lacks},
        {Value{{"com.example.host", Value(false)}}, "a", Value("com.example.host"), lacks},
        {Value{{"com.example.host", Value(std::int64_t{0})}}, "a", Value("com.example.host"), lacks},
        {Value{{"com.example.host", Value(true)}}, "a", Value("com.example.host"), std::nullopt},
        {Value::emptyDictionary(), "a", Value(std::int64_t{3}), std::nullopt}, // names no entitlement
    };
    test::ServerHarness h;
    pid_t pid = 100;
    for (const auto& c : cases) {
        h.codeSigning->entitlements[pid] = c.hostEntitlements;
        auto client = std::static_pointer_cast<TvdVynClient>(h.connect(pid++)->context());
        EXPECT_EQ(plugInNamed(c.plugIn, c.demanded)->allowForClient(*client), c.reason)
            << c.hostEntitlements.description() << " " << c.plugIn;
    }
}

TEST(TvdPlugInHostRightsTest, PrivacyServicesAreThoseGrantedToTheContainingApplication)
{
    test::LogCapture log;
    test::FakeVlistFiles files;
    std::string app = files.makeExampleApplication();
    auto previousBundles = TvBundle::setBundleService(std::make_shared<platform::LinuxBundleService>(
        test::FakeVlistFiles::reader()));
    std::string grants = files.path("grants.vlist");
    TvdPlugIn::setPrivacyConsentService(
        std::make_shared<platform::LinuxPrivacyConsentService>(grants, test::FakeVlistFiles::reader()));
    auto entry = [](const char* service, Value granted) {
        Value e{{"service", Value(service)}};
        return granted.isNull() ? e : e.with("granted", granted);
    };
    files.writeValue("grants.vlist",
                     Value{{"com.example.app", Value(Array{entry("network", Value(true)), entry("contacts", Value(false)),
                                                           entry("camera", Value()), entry("photos", Value(1))})},
                           {"com.example.other", Value(Array{entry("location", Value(true))})}});

    auto r = test::makePlugInRecord(app + "/PlugIns/K.vext", "com.example.keyboard");
    auto inApp = std::make_shared<platform::RegistryApplicationRecord>();
    inApp->bundlePath = app;
    r->containingApplication = inApp;
    auto plugIn = TvdPlugIn::initWithRSData(r);
    ASSERT_TRUE(plugIn);
    EXPECT_EQ(plugIn->allowedPCSServices(), (std::set<std::string>{"network", "photos"}));

    files.writeText("grants.vlist", "not a vlist");
    EXPECT_TRUE(plugIn->allowedPCSServices().empty());
    EXPECT_EQ(log.countContaining("PCSAccessCopyInformationForBundle failed for "), 1u);

    // A system plug-in has no application and so no grants.
    auto system = test::makePlugInRecord("/System/Library/PlugIns/S.vext", "com.example.system");
    system->containingApplication = nullptr;
    EXPECT_TRUE(TvdPlugIn::initWithRSData(system)->allowedPCSServices().empty());

    // An application that is gone.
    auto gone = test::makePlugInRecord(files.path("Gone.app/PlugIns/G.vext"), "com.example.gone");
    auto goneApp = std::make_shared<platform::RegistryApplicationRecord>();
    goneApp->bundlePath = files.path("Gone.app");
    gone->containingApplication = goneApp;
    EXPECT_TRUE(TvdPlugIn::initWithRSData(gone)->allowedPCSServices().empty());
    EXPECT_EQ(log.countContaining("failed to create bundle for " + files.path("Gone.app/PlugIns/G.vext")), 1u);

    TvdPlugIn::setPrivacyConsentService(nullptr);
    TvBundle::setBundleService(previousBundles);
}

} // namespace
} // namespace tv
