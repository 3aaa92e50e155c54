// Discovery through the registry database: election normalisation, the
// election filter and the records that are skipped.
#include "tvd/TvDatabase.h"

#include "tests/support/FakeApplicationRegistry.h"
#include "tests/support/FakeContainerService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/TestDaemon.h"
#include "tvd/TvdPlugIn.h"

#include <gtest/gtest.h>

#include <set>

namespace tv {
namespace {

using platform::RegistryPlugInRecord;

class TvDatabaseFindTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TvdPlugIn::setSystemVolumeRoot("/System");
        TvdAnnotationStore::Services store;
        auto containers = std::make_shared<test::FakeContainerService>();
        containers->path = dir.file("container");
        store.containers = containers;
        db = TvDatabase::initWithDatabase(dir.file("Annotations").c_str(), registry, store);
        ASSERT_TRUE(db);
    }
    std::shared_ptr<RegistryPlugInRecord> add(const std::string& identifier)
    {
        auto r = test::makePlugInRecord("/apps/A.app/PlugIns/" + identifier + ".vext", identifier);
        registry->plugIns.push_back(r);
        return r;
    }
    void elect(const std::shared_ptr<RegistryPlugInRecord>& r, Value election)
    {
        auto plugIn = TvdPlugIn::initWithRSData(r);
        ASSERT_TRUE(plugIn);
        db->setAnnotationForPlugIn(Value{{"election", std::move(election)}}, *plugIn);
    }
    std::set<std::string> found(const Value& query)
    {
        std::set<std::string> identifiers;
        auto plugIns = db->findPlugIns(query);
        EXPECT_TRUE(plugIns);
        for (const auto& p : plugIns.value_or(std::vector<std::shared_ptr<TvdPlugIn>>{}))
            identifiers.insert(*p->identifier());
        return identifiers;
    }

    test::TempDir dir;
    std::shared_ptr<test::FakeApplicationRegistry> registry = std::make_shared<test::FakeApplicationRegistry>();
    std::shared_ptr<TvDatabase> db;
};

TEST(TvDatabaseElectionListTest, NormalisesOrSwitchesFilteringOff)
{
    using List = std::optional<std::vector<std::string>>;
    const struct {
        Value elections;
        List expected;
    } cases[] = {
        {Value(), std::nullopt},
        {Value(std::int64_t{1}), std::nullopt},
        {Value("=1"), List{{"1"}}},
        {Value("1"), List{{"1"}}},
        {Value("-1"), std::nullopt},
        {Value(""), std::nullopt},
        {Value("="), List{{""}}},
        {Value("\xC3\xA9t\xC3\xA9"), List{{"\xC3\xA9t\xC3\xA9"}}}, // a non-ASCII letter first
        {Value(Array{Value("0"), Value("=1")}), List{{"0", "1"}}},
        {Value(Array{Value("0"), Value("-1")}), std::nullopt},
        {Value(Array{Value("0"), Value("")}), std::nullopt},
        {Value(Array{Value("0"), Value(std::int64_t{1})}), std::nullopt},
        {Value(Array{}), List{std::vector<std::string>{}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(TvDatabase::electionList(Value{{"KoUserElection", c.elections}}), c.expected)
            << c.elections.description();
}

TEST_F(TvDatabaseFindTest, ElectionFilterComparesTheLowByteOfStoredOrAutomaticElections)
{
    elect(add("stored1"), Value(std::int64_t{1}));
    elect(add("stored257"), Value(std::int64_t{257}));
    elect(add("storedMinus1"), Value(std::int64_t{-1}));
    elect(add("stored0"), Value(std::int64_t{0}));
    add("none");
    add("auto")->entitlements = Value{{"com.veltra.developer.auto-elect-plugin", Value(true)}};
    add("autoText")->entitlements = Value{{"com.veltra.developer.auto-elect-plugin", Value("yes")}};
    // Filtered by the election stored under the identifier it replaces.
    add("replacer")->entitlements = Value{{kReplacePlugInEntitlement, Value("stored1")}};

    using Ids = std::set<std::string>;
    const Ids all{"stored1", "stored257", "storedMinus1", "stored0", "none", "auto", "autoText", "replacer"};
    const struct {
        Value elections;
        Ids expected;
    } cases[] = {
        {Value("=1"), {"stored1", "stored257", "auto", "replacer"}},
        {Value("255"), {"storedMinus1"}},
        {Value(Array{Value("0"), Value("=1")}), {"stored1", "stored257", "stored0", "none", "auto", "autoText",
                                                  "replacer"}},
        {Value(Array{Value("=1"), Value("-1")}), all},
        {Value("="), {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(found(Value{{"KoUserElection", c.elections},
                              {"KoExtensionPointIdentifier", Value("com.example.point")}}),
                  c.expected)
            << c.elections.description();
}

TEST_F(TvDatabaseFindTest, SkipsRecordsWithoutBundleInPlaceholdersOrInNonApplications)
{
    test::LogCapture log;
    add("kept");
    add("system")->containingApplication = nullptr;
    add("noUrl")->bundleUrl = Value();
    auto placeholder = std::make_shared<platform::RegistryApplicationRecord>();
    placeholder->bundlePath = "/apps/B.app";
    placeholder->isPlaceholder = true;
    add("placeholder")->containingApplication = placeholder;
    auto notAnApp = std::make_shared<platform::RegistryApplicationRecord>();
    notAnApp->bundlePath = "/apps/Folder";
    add("folder")->containingApplication = notAnApp;
    registry->plugIns.push_back(registry->plugIns.front()); // reported twice

    // "system" is not under /System: the record cannot be built.
    const std::set<std::string> expected{"kept"};
    EXPECT_EQ(found(Value()), expected);
    EXPECT_EQ(found(Value{{"KoExtensionPointIdentifier", Value("com.example.point")}}), expected);
    EXPECT_EQ(registry->lastQuery["KoExtensionPointIdentifier"], Value("com.example.point"));
    EXPECT_EQ(log.count("RS reported containingBundle is not an application"), 2u);
    EXPECT_EQ(log.countContaining("with nil bundleURL"), 2u);
    EXPECT_EQ(log.countContaining("because its app is a placeholder"), 2u);

    registry->queryFails = true;
    EXPECT_FALSE(db->findPlugIns(Value{{"KoExtensionIdentifier", Value("kept")}}));
}

} // namespace
} // namespace tv
