// The "match" request through the server: request checks and their wire
// codes, what a host is offered, and duplicate resolution. Override marks
// are checked end to end (tests/e2e/MatchTest.cpp).
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

using Record = std::shared_ptr<platform::RegistryPlugInRecord>;
using Set = std::set<std::string>;

struct FakeSandbox final : platform::SandboxService {
    std::set<pid_t> sandboxed;
    Result<std::string> issueFileExtension(std::string_view, std::string_view, std::uint32_t) override { return std::string("t"); }
    Result<std::int64_t> consumeExtension(std::string_view) override { return std::int64_t{1}; }
    MaybeError releaseExtension(std::int64_t) override { return std::nullopt; }
    bool isProcessSandboxed(pid_t pid) override { return sandboxed.count(pid) > 0; }
};

struct FakePreferences final : platform::PreferencesService {
    Value exclusions;
    MaybeError synchronize(const std::string&) override { return std::nullopt; }
    Value copyValue(const std::string&, const std::string&) override { return exclusions; }
};

constexpr const char* kManager = "com.veltra.private.tarvik.manager";

class TransactionMatchTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TvdPlugIn::setSystemVolumeRoot("/System");
        TvdMatchRules::setShared(nullptr);
        previous_ = platform::setSandboxService(sandbox);
        h.server->setUserPrefs(TvdUserPrefs::init(prefs));
        h.codeSigning->entitlements[51] = Value{{kManager, Value(true)}};
    }
    void TearDown() override { platform::setSandboxService(previous_); }

    // A plug-in at `version`, in an application unless `system`.
    Record add(const std::string& id, const std::string& version = "1", bool system = false, std::int64_t time = 0)
    {
        auto r = test::makePlugInRecord((system ? "/System/Library/PlugIns/" : "/apps/A.app/PlugIns/") + id +
                                            std::to_string(h.registry->plugIns.size()) + ".vext", id);
        if (system)
            r->containingApplication = nullptr;
        r->onSystemVolume = system;
        r->registrationDate = Date::fromSeconds(time);
        r->plugInDictionary = Value{{"KoExtensionPointIdentifier", Value("point")},
                                    {"KoExtensionAttributes", Value{{"KoExtensionVersion", Value(version)}}}};
        h.registry->plugIns.push_back(r);
        return r;
    }
    platform::Message match(std::uint64_t flags, Value rules, pid_t pid = 50, std::uint64_t version = 3)
    {
        if (!connections_[pid])
            connections_[pid] = h.connect(pid);
        auto& c = *connections_[pid];
        Dictionary body{{"request", Value("match")}, {"version", Value(version)}, {"flags", Value(flags)}};
        if (!rules.isNull())
            body["rules"] = std::move(rules);
        h.send(c, Value(std::move(body)));
        h.drain();
        return h.replies(c).back();
    }
    // The forms of a match for "point", by UUID.
    std::map<std::string, Value> matched(std::uint64_t flags = 0, pid_t pid = 50)
    {
        std::map<std::string, Value> forms;
        Value decoded = messageDecode(match(flags, Value{{"KoExtensionPointIdentifier", "point"}}, pid).get("matches"));
        for (const Value& f : *decoded.asArray())
            forms[*f["uuid"].asString()] = f;
        return forms;
    }
    Set uuids(std::uint64_t flags = 0, pid_t pid = 50)
    {
        Set result;
        for (const auto& [uuid, form] : matched(flags, pid))
            result.insert(uuid);
        return result;
    }

    test::ServerHarness h;
    std::shared_ptr<FakeSandbox> sandbox = std::make_shared<FakeSandbox>();
    std::shared_ptr<FakePreferences> prefs = std::make_shared<FakePreferences>();
    std::map<pid_t, std::shared_ptr<test::FakeVynConnection>> connections_;
    std::shared_ptr<platform::SandboxService> previous_;
};

TEST_F(TransactionMatchTest, RequestChecksAnswerWithTheirCodes)
{
    sandbox->sandboxed.insert(52);
    h.codeSigning->entitlements[52] = Value{{kManager, Value(true)}};
    const char* badRules = "invalid request format (bad rules dictionary)";
    const char* unauthorized = "unauthorized discovery flag (TvDiscoverAll)";
    const struct {
        Value rules;
        std::uint64_t flags;
        pid_t pid; // 50: no entitlement, 51: manager, 52: sandboxed manager
        std::uint64_t code;
        const char* error;
    } cases[] = {
        {Value("x"), 0, 50, 4, badRules}, {Value(Array{}), 0x200, 51, 4, badRules},
        {Value(), 0x200, 50, 11, unauthorized}, {Value(), 0x200, 52, 11, unauthorized},
        {Value(), 0x200, 51, 0, nullptr}, {Value(), 0x1FF, 50, 0, nullptr},
    };
    for (const auto& c : cases) {
        auto reply = match(c.flags, c.rules, c.pid);
        EXPECT_EQ(reply.get("errorcode"), c.code ? Value(c.code) : Value()) << reply.description();
        EXPECT_EQ(reply.get("error"), c.error ? Value(c.error) : Value());
        EXPECT_EQ(messageDecode(reply.get("matches")).isArray(), c.code == 0); // empty registry: an empty list
    }
    add("a");
    auto v2 = match(0, Value(), 50, 2); // protocol 2: served, without "matches"
    EXPECT_TRUE(v2.get("errorcode").isNull());
    EXPECT_TRUE(v2.get("matches").isNull());
}

TEST_F(TransactionMatchTest, DuplicatesResolveByVersionThenSystemVolumeThenModificationTime)
{
    struct Copy {
        const char* version;
        bool system;
        std::int64_t time;
    };
    const std::uint64_t all = 0x1, dups = 0x4;
    const struct {
        std::uint64_t flags;
        std::vector<Copy> copies;
        std::set<std::size_t> kept;
    } cases[] = {
        {0, {{"1.2", false, 1}, {"1.10", false, 1}}, {1}},
        {0, {{"1.10", false, 1}, {"1.2", false, 9}}, {0}},
        {0, {{"1.01", false, 5}, {"1.1", false, 5}}, {0}}, // same version, same time: the first stays
        {all, {{"1.2", false, 1}, {"1.10", false, 1}}, {0, 1}},
        {all, {{"1.10", false, 2}, {"1.10", true, 1}}, {1}},
        {all, {{"1.10", true, 2}, {"1.10", false, 1}}, {0}},
        {all, {{"1.10", true, 1}, {"1.10", false, 2}}, {1}}, // only the later copy gets the system advantage
        {all, {{"1", false, 1}, {"2", false, 1}, {"2", false, 3}}, {0, 2}},
        {all | dups, {{"1.10", false, 1}, {"1.10", false, 2}, {"1.2", false, 3}}, {0, 1, 2}},
        {dups, {{"1.10", false, 1}, {"1.10", false, 2}}, {1}},
    };
    for (const auto& c : cases) {
        h.registry->plugIns.clear();
        std::vector<std::string> ids;
        for (const auto& copy : c.copies)
            ids.push_back(add("dup", copy.version, copy.system, copy.time)->uuid.string());
        Set expected{add("other")->uuid.string()}; // another identifier is never a duplicate
        for (std::size_t i : c.kept)
            expected.insert(ids[i]);
        EXPECT_EQ(uuids(c.flags), expected) << "flags " << c.flags << ", first " << c.copies[0].version;
    }
}

TEST_F(TransactionMatchTest, VisibilityHoldsExclusionsAndHostRights)
{
    test::LogCapture log;
    auto s = [](const Record& r) { return r->uuid.string(); };
    auto app = add("app"), system = add("system", "1", true), held = add("held"), excluded = add("excluded");
    auto demanding = add("demanding"), dedicated = add("dedicated"), outside = add("outside");
    demanding->plugInDictionary = demanding->plugInDictionary.with("KoExtensionHostEntitlement", "host.right");
    dedicated->plugInDictionary = dedicated->plugInDictionary.with("Dedicated", true);
    outside->containingApplication = nullptr; // neither in an application nor on the system volume
    outside->bundlePath = "/System/Library/PlugIns/Outside.vext";
    outside->bundleUrl = Value::fileURL(outside->bundlePath);
    prefs->exclusions = Value(Array{Value{{"KoExtensionIdentifier", Value("excluded")}}});
    auto holder = h.connect(70);
    h.server->addHold(TvdPlugInHold::initWithPlugInsForClient(
        {h.server->findPlugIn(held->uuid)}, std::static_pointer_cast<TvdVynClient>(holder->context())));

    EXPECT_EQ(uuids(0), (Set{s(app), s(system)}));
    EXPECT_EQ(uuids(0x8), Set{s(system)});
    EXPECT_EQ(uuids(0x200, 51), (Set{s(app), s(system), s(held), s(demanding), s(dedicated), s(outside)}));
    EXPECT_TRUE(log.contains("client 50 plugin " + s(excluded) + " globally excluded"));
    EXPECT_TRUE(log.contains("client 50 cannot use plugin " + s(demanding) +
                             ": the host does not have the \"host.right\" entitlement"));
    EXPECT_TRUE(log.contains("match returned 2 plug-ins"));

    const Value elected{{"election", Value(std::int64_t{1})}};
    h.server->setAnnotationForPlugIn(elected, *h.server->findPlugIn(app->uuid));
    auto forms = matched(); // the stored annotation, else an empty dictionary
    EXPECT_EQ(forms[s(app)]["annotations"], elected);
    EXPECT_EQ(forms[s(system)]["annotations"], Value::emptyDictionary());

    holder->deliver(platform::VynError{platform::VynError::Kind::ConnectionInvalid, "gone"});
    h.drain();
    EXPECT_TRUE(uuids(0).count(s(held))); // the holder died: offered again
}

} // namespace
} // namespace tv
