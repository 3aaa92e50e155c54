// Discovery through the registry database: election normalisation, the
// election filter and the records that are skipped.
#include "tvd/TvDatabase.h"

#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/ServerHarness.h"
#include "tvd/TvdPlugIn.h"

#include <gtest/gtest.h>

#include <set>

namespace tv {
namespace {

using Ids = std::set<std::string>;

// The server is the registry database; its registry is a fake.
class TvDatabaseFindTest : public ::testing::Test {
protected:
    std::shared_ptr<platform::RegistryPlugInRecord> add(const std::string& id, Value entitlements = Value())
    {
        auto r = test::makePlugInRecord("/apps/A.app/PlugIns/" + id + ".vext", id);
        if (!entitlements.isNull())
            r->entitlements = entitlements;
        h.registry->plugIns.push_back(r);
        return r;
    }
    void elect(const std::string& id, std::int64_t election)
    {
        h.server->setAnnotationForPlugIn(Value{{"election", Value(election)}}, *TvdPlugIn::initWithRSData(add(id)));
    }
    Ids found(const Value& query)
    {
        Ids ids;
        auto plugIns = h.server->findPlugIns(query);
        for (const auto& p : plugIns.value())
            ids.insert(*p->identifier());
        return ids;
    }

    test::ServerHarness h;
};

TEST_F(TvDatabaseFindTest, FilterComparesTheLowByteOfStoredOrAutomaticElections)
{
    elect("stored1", 1);
    elect("stored257", 257);
    elect("storedMinus1", -1);
    add("none");
    add("auto", Value{{"com.veltra.developer.auto-elect-plugin", Value(true)}});
    add("autoText", Value{{"com.veltra.developer.auto-elect-plugin", Value("yes")}}); // not a number
    // Filtered by the election stored under the identifier it replaces.
    add("replacer", Value{{kReplacePlugInEntitlement, Value("stored1")}});

    const Ids all{"stored1", "stored257", "storedMinus1", "none", "auto", "autoText", "replacer"};
    // A valid election list filters; an invalid one (an element that is not a
    // string starting with "=" or a letter or digit) filters nothing.
    const std::pair<Value, Ids> cases[] = {
        {Value("=1"), {"stored1", "stored257", "auto", "replacer"}},
        {Value("255"), {"storedMinus1"}},
        {Value(Array{Value("0"), Value("=1")}), {"stored1", "stored257", "none", "auto", "autoText", "replacer"}},
        {Value("="), {}},
        {Value("\xC3\xA9"), {}}, // a letter, but no election
        {Value(Array{Value("=1"), Value("-1")}), all},
        {Value(Array{Value("=1"), Value("")}), all},
        {Value(Array{Value("=1"), Value(std::int64_t{1})}), all},
        {Value(std::int64_t{1}), all},
    };
    for (const auto& [elections, expected] : cases)
        EXPECT_EQ(found(Value{{"KoUserElection", elections}, {"KoExtensionPointIdentifier", Value("p")}}), expected)
            << elections.description();
    EXPECT_EQ(h.registry->lastQuery["KoExtensionPointIdentifier"], Value("p")); // handed on unchanged
}

TEST_F(TvDatabaseFindTest, SkipsRecordsWithoutBundleInPlaceholdersOrInNonApplicationsOnce)
{
    test::LogCapture log;
    add("kept");
    add("noUrl")->bundleUrl = Value();
    auto placeholder = std::make_shared<platform::RegistryApplicationRecord>();
    placeholder->bundlePath = "/apps/B.app";
    placeholder->isPlaceholder = true;
    add("placeholder")->containingApplication = placeholder;
    auto folder = std::make_shared<platform::RegistryApplicationRecord>();
    folder->bundlePath = "/apps/Folder";
    add("folder")->containingApplication = folder;
    h.registry->plugIns.push_back(h.registry->plugIns.front()); // reported twice
    EXPECT_EQ(found(Value()), Ids{"kept"});
    EXPECT_EQ(found(Value{{"KoExtensionIdentifier", Value("x")}}), Ids{"kept"});
    EXPECT_EQ(log.count("RS reported containingBundle is not an application"), 2u);
    EXPECT_EQ(log.countContaining("with nil bundleURL"), 2u);
    EXPECT_EQ(log.countContaining("because its app is a placeholder"), 2u);
    h.registry->queryFails = true;
    EXPECT_FALSE(h.server->findPlugIns(Value{{"KoExtensionIdentifier", Value("kept")}}));
}

} // namespace
} // namespace tv
