// The "match" request through the server: request checks and their wire
// codes, what a host is offered, duplicate resolution and override marks.
#include "tvd/Transaction.h"

#include "Tarvik/TvMessageConversion.h"
#include "platform/preferences/PreferencesService.h"
#include "platform/security/SandboxService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/ServerHarness.h"
#include "tvd/TvdMatchRules.h"
#include "tvd/TvdPlugIn.h"
#include "tvd/TvdPlugInHold.h"
#include "tvd/TvdUserPrefs.h"
#include "tvd/TvdVynClient.h"

#include <gtest/gtest.h>

#include <set>

namespace tv {
namespace {

using platform::RegistryPlugInRecord;

struct FakeSandbox final : platform::SandboxService {
    std::set<pid_t> sandboxed;
    Result<std::string> issueFileExtension(std::string_view, std::string_view path, std::uint32_t) override
    {
        return "token:" + std::string(path);
    }
    Result<std::int64_t> consumeExtension(std::string_view) override { return std::int64_t{1}; }
    MaybeError releaseExtension(std::int64_t) override { return std::nullopt; }
    bool isProcessSandboxed(pid_t pid) override { return sandboxed.count(pid) > 0; }
};

struct FakePreferences final : platform::PreferencesService {
    Value exclusions;
    MaybeError synchronize(const std::string&) override { return std::nullopt; }
    Value copyValue(const std::string&, const std::string& key) override
    {
        return key == "exclusions" ? exclusions : Value();
    }
};

constexpr const char* kManager = "com.veltra.private.tarvik.manager";

class TransactionMatchTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TvdPlugIn::setSystemVolumeRoot("/System");
        TvdMatchRules::setShared(nullptr);
        previousSandbox_ = platform::setSandboxService(sandbox);
        harness.server->setUserPrefs(TvdUserPrefs::init(prefs));
    }
    void TearDown() override { platform::setSandboxService(previousSandbox_); }

    // A plug-in of `identifier` at `version`, in an application unless
    // `system`, recorded at `modified` seconds.
    std::shared_ptr<RegistryPlugInRecord> add(const std::string& identifier, const std::string& version = "1",
                                              bool system = false, std::int64_t modified = 1000)
    {
        std::string name = identifier + "-" + std::to_string(next_++) + ".vext";
        auto r = test::makePlugInRecord(system ? "/System/Library/PlugIns/" + name : "/apps/A.app/PlugIns/" + name,
                                        identifier);
        if (system)
            r->containingApplication = nullptr;
        r->onSystemVolume = system;
        r->registrationDate = Date::fromSeconds(modified);
        r->plugInDictionary = Value{{"KoExtensionPointIdentifier", Value("com.example.point")},
                                    {"KoExtensionAttributes", Value{{"KoExtensionVersion", Value(version)}}}};
        r->infoDictionary = r->infoDictionary.with("KoExtension", r->plugInDictionary);
        harness.registry->plugIns.push_back(r);
        return r;
    }
    void setPlugInKey(const std::shared_ptr<RegistryPlugInRecord>& r, const char* key, Value value)
    {
        r->plugInDictionary = r->plugInDictionary.with(key, std::move(value));
        r->infoDictionary = r->infoDictionary.with("KoExtension", r->plugInDictionary);
    }

    // The reply to one "match" from a client with `pid`.
    platform::Message match(std::uint64_t flags = 0, Value rules = Value{{"KoExtensionPointIdentifier",
                                                                         Value("com.example.point")}},
                            pid_t pid = 50, std::uint64_t version = 3)
    {
        auto c = connection(pid);
        Dictionary body{{"request", Value("match")}, {"version", Value(version)}, {"flags", Value(flags)}};
        if (!rules.isNull())
            body["rules"] = std::move(rules);
        std::size_t before = harness.replies(*c).size();
        harness.send(*c, Value(std::move(body)));
        harness.drain();
        auto replies = harness.replies(*c);
        EXPECT_EQ(replies.size(), before + 1);
        return replies.empty() ? platform::Message() : replies.back();
    }
    std::shared_ptr<test::FakeVynConnection> connection(pid_t pid)
    {
        auto& c = connections_[pid];
        if (!c)
            c = harness.connect(pid);
        return c;
    }
    static Array forms(const platform::Message& reply)
    {
        Value decoded = messageDecode(reply.get("matches"));
        return decoded.asArray() ? *decoded.asArray() : Array{};
    }
    // The UUIDs of the matched plug-ins.
    std::set<std::string> matched(std::uint64_t flags = 0, pid_t pid = 50)
    {
        std::set<std::string> uuids;
        for (const Value& f : forms(match(flags, Value{{"KoExtensionPointIdentifier", Value("com.example.point")}}, pid)))
            uuids.insert(*f["uuid"].asString());
        return uuids;
    }

    test::ServerHarness harness;
    std::shared_ptr<FakeSandbox> sandbox = std::make_shared<FakeSandbox>();
    std::shared_ptr<FakePreferences> prefs = std::make_shared<FakePreferences>();

private:
    std::shared_ptr<platform::SandboxService> previousSandbox_;
    std::map<pid_t, std::shared_ptr<test::FakeVynConnection>> connections_;
    int next_ = 0;
};

TEST_F(TransactionMatchTest, RequestChecksAnswerWithTheirCodes)
{
    const struct {
        Value rules;
        std::uint64_t flags;
        Value entitlements;
        bool sandboxed;
        std::uint64_t code; // 0: success
        const char* error;
    } cases[] = {
        {Value("x"), 0, Value(), false, 4, "invalid request format (bad rules dictionary)"},
        {Value(Array{}), 0x200, Value{{kManager, Value(true)}}, false, 4,
         "invalid request format (bad rules dictionary)"},
        {Value(), 0x200, Value(), false, 11, "unauthorized discovery flag (TvDiscoverAll)"},
        {Value(), 0x200, Value{{kManager, Value(false)}}, false, 11, "unauthorized discovery flag (TvDiscoverAll)"},
        {Value(), 0x200, Value{{kManager, Value(true)}}, true, 11, "unauthorized discovery flag (TvDiscoverAll)"},
        {Value(), 0x200, Value{{kManager, Value(true)}}, false, 0, nullptr},
        {Value(), 0x1FF, Value(), false, 0, nullptr},
        {Value::emptyDictionary(), 0, Value(), true, 0, nullptr},
    };
    pid_t pid = 100;
    for (const auto& c : cases) {
        harness.codeSigning->entitlements[pid] = c.entitlements;
        if (c.sandboxed)
            sandbox->sandboxed.insert(pid);
        auto reply = match(c.flags, c.rules, pid++);
        SCOPED_TRACE(reply.description());
        if (c.code) {
            EXPECT_EQ(reply.get("errorcode"), Value(c.code));
            EXPECT_EQ(reply.get("error"), Value(c.error));
            EXPECT_TRUE(reply.get("matches").isNull());
        } else {
            EXPECT_TRUE(reply.get("errorcode").isNull());
            EXPECT_TRUE(messageDecode(reply.get("matches")).isArray()); // empty registry: an empty list
        }
    }
    // Protocol version 2 is served without "matches".
    add("com.example.a");
    auto v2 = match(0, Value(), 60, 2);
    EXPECT_TRUE(v2.get("errorcode").isNull());
    EXPECT_TRUE(v2.get("matches").isNull());
}

TEST_F(TransactionMatchTest, DuplicatesResolveByVersionThenSystemVolumeThenModificationTime)
{
    struct Copy {
        const char* version;
        bool system;
        std::int64_t modified;
    };
    const std::uint64_t all = 0x1, dups = 0x4;
    const struct {
        std::uint64_t flags;
        std::vector<Copy> copies;
        std::set<std::size_t> kept;
    } cases[] = {
        {0, {{"1.2", false, 1}, {"1.10", false, 1}}, {1}},
        {0, {{"1.10", false, 1}, {"1.2", false, 9}}, {0}},
        {all, {{"1.2", false, 1}, {"1.10", false, 1}}, {0, 1}},
        {all, {{"1.10", false, 1}, {"1.10", false, 2}}, {1}},
        {all, {{"1.10", false, 2}, {"1.10", true, 1}}, {1}},
        // Not on the system volume itself, the later copy still wins.
        {all, {{"1.10", true, 1}, {"1.10", false, 2}}, {1}},
        {all, {{"1.10", true, 2}, {"1.10", false, 1}}, {0}},
        {all, {{"1.10", true, 1}, {"1.10", true, 2}}, {1}},
        {all | dups, {{"1.10", false, 1}, {"1.10", false, 2}, {"1.2", false, 3}}, {0, 1, 2}},
        {dups, {{"1.10", false, 1}, {"1.10", false, 2}}, {1}},
        {0, {{"1.01", false, 5}, {"1.1", false, 5}}, {0}}, // the same version, equal times: the first stays
        {0, {{"2", false, 1}, {"10", false, 1}, {"9", false, 1}}, {1}},
        {all, {{"1", false, 1}, {"2", false, 1}, {"2", false, 3}}, {0, 2}},
    };
    for (const auto& c : cases) {
        harness.registry->plugIns.clear();
        std::vector<std::string> uuids;
        for (const auto& copy : c.copies)
            uuids.push_back(add("com.example.dup", copy.version, copy.system, copy.modified)->uuid.string());
        add("com.example.other"); // another identifier is never a duplicate
        std::set<std::string> expected{harness.registry->plugIns.back()->uuid.string()};
        for (std::size_t i : c.kept)
            expected.insert(uuids[i]);
        EXPECT_EQ(matched(c.flags), expected) << "case with flags " << c.flags << " and " << c.copies.size()
                                              << " copies, first " << c.copies[0].version;
    }
}

TEST_F(TransactionMatchTest, VisibilityHoldsExclusionsAndHostRights)
{
    test::LogCapture log;
    auto app = add("com.example.app");
    auto system = add("com.example.system", "1", true);
    auto held = add("com.example.held");
    auto excluded = add("com.example.excluded");
    auto demanding = add("com.example.demanding");
    setPlugInKey(demanding, "KoExtensionHostEntitlement", Value("com.example.host"));
    auto dedicated = add("com.example.dedicated");
    setPlugInKey(dedicated, "Dedicated", Value(true));
    auto outside = add("com.example.outside"); // outside any application, not on the system volume
    outside->containingApplication = nullptr;
    outside->bundlePath = "/System/Library/PlugIns/Outside.vext";
    outside->bundleUrl = Value::fileURL(outside->bundlePath);

    prefs->exclusions = Value(Array{Value{{"KoExtensionIdentifier", Value("com.example.excluded")}}});
    auto plugIn = harness.server->findPlugIn(held->uuid);
    ASSERT_TRUE(plugIn);
    auto holder = std::static_pointer_cast<TvdVynClient>(connection(70)->context());
    harness.server->addHold(TvdPlugInHold::initWithPlugInsForClient({plugIn}, holder));
    harness.codeSigning->entitlements[51] = Value{{kManager, Value(true)}};

    auto s = [](const std::shared_ptr<RegistryPlugInRecord>& r) { return r->uuid.string(); };
    using Set = std::set<std::string>;
    EXPECT_EQ(matched(0), (Set{s(app), s(system)}));
    EXPECT_EQ(matched(0x8), (Set{s(system)}));
    EXPECT_EQ(matched(0x200, 51), (Set{s(app), s(system), s(held), s(demanding), s(dedicated), s(outside)}));
    EXPECT_TRUE(log.contains("client 50 plugin " + s(excluded) + " globally excluded"));
    EXPECT_TRUE(log.contains("client 50 cannot use plugin " + s(demanding) +
                             ": the host does not have the \"com.example.host\" entitlement"));
    EXPECT_TRUE(log.contains("match returned 2 plug-ins"));

    // The hold's client dies: the plug-in is offered again.
    connection(70)->deliver(platform::VynError{platform::VynError::Kind::ConnectionInvalid, "gone"});
    harness.drain();
    EXPECT_TRUE(matched(0).count(s(held)));
}

TEST_F(TransactionMatchTest, FormsCarryAnnotationsAndOverrideMarks)
{
    test::LogCapture log;
    auto replaced = add("com.example.old");
    auto replacer = add("com.example.new");
    replacer->entitlements = Value{{kReplacePlugInEntitlement, Value(Array{Value("com.example.old"), Value(3),
                                                                             Value("com.example.absent")})}};
    auto plain = add("com.example.plain");
    auto elected = harness.server->findPlugIn(plain->uuid);
    harness.server->setAnnotationForPlugIn(Value{{"election", Value(std::int64_t{1})}}, *elected);

    std::map<std::string, Value> byIdentifier;
    for (const Value& f : forms(match()))
        byIdentifier[*f["identifier"].asString()] = f;
    ASSERT_EQ(byIdentifier.size(), 3u);
    EXPECT_EQ(byIdentifier["com.example.old"]["overrider"], Value(replacer->uuid.string()));
    EXPECT_EQ(byIdentifier["com.example.new"]["overriding"], Value("com.example.old"));
    EXPECT_TRUE(byIdentifier["com.example.plain"]["overrider"].isNull());
    EXPECT_EQ(byIdentifier["com.example.plain"]["annotations"], (Value{{"election", Value(std::int64_t{1})}}));
    EXPECT_EQ(byIdentifier["com.example.old"]["annotations"], Value::emptyDictionary());
    EXPECT_TRUE(log.contains("plug-in " + replacer->uuid.string() + " overrides " + replaced->uuid.string()));
}

} // namespace
} // namespace tv
