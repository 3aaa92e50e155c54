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

TEST(TvdPlugInHostRightsTest, RestrictionFirstThenThePlugInsDemand)
{
    TvdPlugIn::setSystemVolumeRoot("/System");
    TvdMatchRules::setShared(nullptr);
    const char* restrict = "com.veltra.developer.tarvik.allowedplugins";
    const Value onlyAB{{"KoExtensionIdentifier", Value(Array{Value("a"), Value("b")})}};
    const std::string refused = "the host's plug-in entitlement does not allow this plug-in";
    const std::string lacks = "the host does not have the \"com.example.host\" entitlement";
    const struct {
        Value host;
        std::string plugIn;
        Value demanded;
        std::optional<std::string> reason;
    } cases[] = {
        {Value::emptyDictionary(), "a", Value(), std::nullopt},
        {Value{{restrict, Value(true)}}, "a", Value(), "invalid host restriction entitlement"},
        {Value{{restrict, Value::emptyDictionary()}}, "c", Value(), std::nullopt},
        {Value{{restrict, onlyAB}}, "b", Value(), std::nullopt},
        {Value{{restrict, onlyAB}}, "c", Value("com.example.host"), refused}, // restriction first
        {Value{{restrict, onlyAB}}, "a", Value("com.example.host"), lacks},
        {Value{{"com.example.host", Value(false)}}, "a", Value("com.example.host"), lacks},
        {Value{{"com.example.host", Value(true)}}, "a", Value("com.example.host"), std::nullopt},
    };
    test::ServerHarness h;
    pid_t pid = 100;
    for (const auto& c : cases) {
        h.codeSigning->entitlements[pid] = c.host;
        auto client = std::static_pointer_cast<TvdVynClient>(h.connect(pid++)->context());
        auto r = test::makePlugInRecord("/apps/A.app/PlugIns/" + c.plugIn + ".vext", c.plugIn);
        r->plugInDictionary = r->plugInDictionary.with("KoExtensionHostEntitlement", c.demanded);
        EXPECT_EQ(TvdPlugIn::initWithRSData(r)->allowForClient(*client), c.reason) << c.host.description();
    }
}

TEST(TvdPlugInHostRightsTest, PrivacyServicesAreThoseGrantedToTheContainingApplication)
{
    test::LogCapture log;
    test::FakeVlistFiles files;
    auto bundles = TvBundle::setBundleService(
        std::make_shared<platform::LinuxBundleService>(test::FakeVlistFiles::reader()));
    TvdPlugIn::setPrivacyConsentService(std::make_shared<platform::LinuxPrivacyConsentService>(
        files.path("grants.vlist"), test::FakeVlistFiles::reader()));
    auto entry = [](const char* service, Value granted) { return Value{{"service", service}, {"granted", granted}}; };
    files.writeValue("grants.vlist",
                     Value{{"com.example.app", Value(Array{entry("network", Value(true)), entry("contacts", Value(false)),
                                                           Value{{"service", "camera"}}})},
                           {"com.example.other", Value(Array{entry("location", Value(true))})}});
    auto inApp = [&](const std::string& app) {
        auto r = test::makePlugInRecord(app + "/PlugIns/K.vext");
        auto record = std::make_shared<platform::RegistryApplicationRecord>();
        record->bundlePath = app;
        r->containingApplication = record;
        return TvdPlugIn::initWithRSData(r);
    };
    auto plugIn = inApp(files.makeExampleApplication());
    EXPECT_EQ(plugIn->allowedPCSServices(), std::set<std::string>{"network"});
    files.writeText("grants.vlist", "not a vlist");
    EXPECT_TRUE(plugIn->allowedPCSServices().empty());
    EXPECT_EQ(log.countContaining("PCSAccessCopyInformationForBundle failed for "), 1u);
    EXPECT_TRUE(inApp(files.path("Gone.app"))->allowedPCSServices().empty()); // no bundle there
    EXPECT_TRUE(log.contains("failed to create bundle for " + files.path("Gone.app/PlugIns/K.vext")));

    TvdPlugIn::setPrivacyConsentService(nullptr);
    TvBundle::setBundleService(bundles);
}

// The job manager's sandbox profile follows the extension point; a keyboard
// leaves the keyboard sandbox only when it asks for open access and its
// application was granted network access for keyboards.
TEST(TvdPlugInHostRightsTest, SandboxProfileFollowsTheExtensionPoint)
{
    test::FakeVlistFiles files;
    auto bundles = TvBundle::setBundleService(
        std::make_shared<platform::LinuxBundleService>(test::FakeVlistFiles::reader()));
    TvdPlugIn::setPrivacyConsentService(std::make_shared<platform::LinuxPrivacyConsentService>(
        files.path("grants.vlist"), test::FakeVlistFiles::reader()));
    files.writeValue("grants.vlist", Value{{"com.example.app", Value(Array{Value{
                                                                  {"service", platform::kPrivacyServiceKeyboardNetwork},
                                                                  {"granted", true}}})}});
    const std::string granted = files.makeExampleApplication(), other = files.path("Other.app");
    const struct {
        const char* point;
        Value openAccess;
        std::string app;
        const char* profile;
    } cases[] = {
        {"com.veltra.keyboard-service", Value(), granted, "keyboard"},
        {"com.veltra.keyboard-service", Value(true), granted, "plugin"},
        {"com.veltra.keyboard-service", Value(true), other, "keyboard"},
        {"com.veltra.flowguard.filter-data", Value(), granted, "network-filter"},
        {"com.veltra.peek.extension.preview", Value(), granted, "peekd"},
        {"com.veltra.app.non-ui-extension", Value(), granted, "playground-devtools"},
        {"com.veltra.app.non-ui-extension.multiple-instances", Value(), granted, "playground-devtools"},
        {"com.example.point", Value(true), granted, "plugin"},
    };
    for (const auto& c : cases) {
        auto r = test::makePlugInRecord(c.app + "/PlugIns/K.vext");
        r->plugInDictionary = Value{{"KoExtensionPointIdentifier", c.point},
                                    {"KoExtensionAttributes", Value{{"RequestsOpenAccess", c.openAccess}}}};
        auto app = std::make_shared<platform::RegistryApplicationRecord>();
        app->bundlePath = c.app;
        r->containingApplication = app;
        EXPECT_EQ(TvdPlugIn::initWithRSData(r)->sandboxProfile(), c.profile) << c.point << " " << c.app;
    }
    TvdPlugIn::setPrivacyConsentService(nullptr);
    TvBundle::setBundleService(bundles);
}

} // namespace
} // namespace tv
