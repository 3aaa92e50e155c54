// Registry records for tests of the daemon's plug-in records and database:
// a well-formed code plug-in inside an application, for tests to adjust.
#pragma once

#include "platform/registry/RegistryPlugInRecord.h"

#include <memory>
#include <string>

namespace tv::test {

inline std::shared_ptr<platform::RegistryPlugInRecord> makePlugInRecord(
    const std::string& path = "/apps/A.app/PlugIns/P.vext", const std::string& identifier = "com.example.p")
{
    auto r = std::make_shared<platform::RegistryPlugInRecord>();
    r->uuid = Uuid::random();
    r->bundlePath = path;
    r->bundleUrl = Value::fileURL(path);
    r->plugInIdentifier = identifier;
    r->originalIdentifier = identifier + ".orig";
    r->bundleIdentifier = identifier;
    r->bundleVersion = "1";
    r->registrationDate = Date::fromMicroseconds(1'700'000'000'900'000);
    r->dataContainerPath = "/containers/Data/PlugIn/x/";
    r->entitlements = Value(Dictionary{});
    r->plugInDictionary = Value{{"KoExtensionPointIdentifier", Value("com.example.point")},
                                {"KoExtensionAttributes", Value{{"KoExtensionVersion", Value("3")}}}};
    r->infoDictionary = Value{{"KbBundleIdentifier", Value(identifier)}, {"KoExtension", r->plugInDictionary}};
    auto app = std::make_shared<platform::RegistryApplicationRecord>();
    app->bundlePath = "/apps/A.app";
    app->localizedName = "App A";
    r->containingApplication = app;
    return r;
}

} // namespace tv::test
