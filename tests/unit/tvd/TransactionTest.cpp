// Transaction: what every request goes through (protocol version, type,
// exactly one reply, yielding between elements), the path walker, "ready",
// and the "match" request: its checks and wire codes, what a host is
// offered, and duplicate resolution. Override marks are checked end to end
// (tests/e2e/MatchTest.cpp).
#include "tvd/Transaction.h"

#include "Tarvik/TvMessageConversion.h"
#include "base/InternalInconsistency.h"
#include "platform/preferences/PreferencesService.h"
#include "platform/security/SandboxService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PlugInBundles.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/ServerHarness.h"
#include "tests/support/TestDaemon.h"
#include "tvd/TvdMatchRules.h"
#include "tvd/TvdPlugIn.h"
#include "tvd/TvdPlugInHold.h"
#include "tvd/TvdUserPrefs.h"
#include "tvd/TvdVynClient.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <new>
#include <set>
#include <stdexcept>

namespace tv {
namespace {

using test::ServerHarness;

Value request(const char* type, Value version = Value(std::uint64_t{3}))
{
    Value r = Value::emptyDictionary().with("version", version);
    return type ? r.with("request", Value(type)) : r;
}

std::string failure(const platform::Message& reply)
{
    auto code = reply.get("errorcode").unsignedValue();
    auto text = reply.get("error").asString();
    return std::to_string(code) + " " + (text ? *text : "<none>");
}

TEST(TransactionTest, OnlyVersionsTwoAndThreeOfKnownTypesAreServed)
{
    test::LogCapture log;
    ServerHarness h;
    auto c = h.connect(42);
    const std::pair<Value, std::string> cases[] = {
        {request("bulk", Value(std::uint64_t{2})), "0 <none>"},
        {request("bulk"), "0 <none>"},
        {request("bulk", Value(3)), "7 unsupported protocol version 0 (current 3)"}, // signed reads as 0
        {request("bulk", Value()), "7 unsupported protocol version 0 (current 3)"},
        {request("bulk", Value(UINT64_MAX)), "7 unsupported protocol version 18446744073709551615 (current 3)"},
        {request(nullptr), "4 invalid request format (missing type)"},
        {request("Add"), "4 unrecognized request"},
        {request("bulk-annotatex"), "4 unrecognized request"},
        {request("ready-x"), "4 unrecognized request"},
        {request("bulk").with("flags", Value(std::uint64_t{0x10})), "0 <none>"},
    };
    for (const auto& [body, expected] : cases)
        h.send(*c, body);
    h.send(*c, request("bulk").with("flags", Value(std::uint64_t{1})), false); // one-way: no reply
    h.drain();
    auto r = c->sent();
    ASSERT_EQ(r.size(), std::size(cases));
    for (std::size_t i = 0; i < r.size(); ++i)
        EXPECT_EQ(failure(r[i]), cases[i].second) << cases[i].first.description();
    EXPECT_NE(r[0].replyTo(), r[1].replyTo());
    EXPECT_EQ(log.count("bulk options 0x10 not supported"), 1u);
    EXPECT_EQ(log.count("bulk options 0x1 not supported"), 1u);
    EXPECT_EQ(log.count("client 42 requested bulk"), 4u);
}

// Walks `paths` in an add request of a live client outside the queues;
// returns the steps seen and the reply.
std::pair<std::vector<std::pair<std::string, bool>>, platform::Message> walk(Value paths, bool stopOnUnresolved = false)
{
    ServerHarness h;
    auto c = h.connect(11);
    platform::Message m(request("add").with("paths", std::move(paths)));
    m.setMessageId(1);
    m.setExpectsReply(true);
    Transaction t(m, std::static_pointer_cast<TvdVynClient>(c->context()));
    std::vector<std::pair<std::string, bool>> seen;
    t.processPaths([&](const std::string& p, bool resolved) {
        seen.emplace_back(p, resolved);
        if (stopOnUnresolved && !resolved) {
            t.failMessage(9, "stopped at " + p);
            return false;
        }
        return true;
    });
    while (!t.resume()) {
    } // a walk that used up its time slice goes on
    EXPECT_EQ(c->sent().size(), 1u);
    return {seen, c->sent().back()};
}

TEST(TransactionTest, PathWalkerCanonicalisesAndRefusesRelativePaths)
{
    test::TempDir dir;
    std::filesystem::create_directories(dir.file("real/B.vext"));
    std::filesystem::create_directory_symlink(dir.file("real"), dir.file("link"));
    auto canonical = std::filesystem::canonical(dir.file("real/B.vext")).string();
    using Seen = std::vector<std::pair<std::string, bool>>;

    auto [seen, reply] = walk(Value(Array{Value(dir.file("link/B.vext")), Value(dir.file("link/../real/./B.vext")),
                                          Value(dir.file("missing/X.vext"))}));
    // An unresolvable path reaches the step spelled as received.
    EXPECT_EQ(seen, (Seen{{canonical, true}, {canonical, true}, {dir.file("missing/X.vext"), false}}));
    EXPECT_EQ(reply.body(), Value::emptyDictionary());
    std::tie(seen, reply) = walk(Value(Array{Value("/no/such/path"), Value("/")}), true);
    EXPECT_EQ(seen.size(), 1u);
    EXPECT_EQ(failure(reply), "9 stopped at /no/such/path");

    // Paths missing, not a list or not text are checked end to end with the
    // hold request, which walks them alike (tests/e2e/LockTest.cpp).
    // A NUL byte would make the file system read a shorter, other path.
    const std::string withNul = dir.file("real") + std::string("\0/x", 3);
    const std::tuple<Value, std::size_t, std::string> refused[] = {
        {Value(Array{Value(dir.file("real")), Value("rel/B.vext"), Value("/never")}), 1, "9 absolute path required: rel/B.vext"},
        {Value(Array{Value(withNul)}), 0, "9 invalid path: " + withNul},
    };
    for (const auto& [paths, steps, expected] : refused) {
        std::tie(seen, reply) = walk(paths);
        EXPECT_EQ(seen.size(), steps) << expected; // elements before the bad one were handled
        EXPECT_EQ(failure(reply), expected);
    }
}

TEST(TransactionTest, ExactlyOneReplyAndErrorValuesPassedOn)
{
    test::LogCapture log;
    ServerHarness h;
    auto c = h.connect(3);
    auto client = std::static_pointer_cast<TvdVynClient>(c->context());
    platform::Message m(request("bulk"));
    m.setMessageId(9);
    m.setExpectsReply(true);

    Transaction own(m, client);
    own.failError(2, makeError(11, "access to plugin x denied: y"));
    own.done();
    own.failMessage(4, "late");
    ASSERT_EQ(c->sent().size(), 1u);
    EXPECT_EQ(failure(c->sent()[0]), "11 access to plugin x denied: y");
    EXPECT_EQ(log.countContaining("second reply to one request of client 3 refused"), 2u);
    Transaction(m, client).failError(4, TvError{"POSIX", 2, "open: No such file or directory"});
    EXPECT_EQ(failure(c->sent().back()), "4 open: No such file or directory"); // a foreign domain's code is not passed on
    Transaction(m, client).failError(4, makeError(12));
    EXPECT_EQ(failure(c->sent().back()), "12 <none>");
}

TEST(TransactionTest, AnythingAHandlerThrowsEndsTheRequestWithOneReply)
{
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[] { raiseInternalInconsistency("broken"); }, "internal inconsistency while serving"},
        {[] { throw std::runtime_error("boom"); }, "exception while serving remove request"},
        {[] { throw std::bad_alloc(); }, "exception while serving remove request"},
        {[] { throw 42; }, "unknown exception while serving remove request"},
    };
    for (const auto& [thrower, logged] : cases) {
        SCOPED_TRACE(logged);
        test::LogCapture log;
        ServerHarness h;
        h.codeSigning->onLookup = thrower;
        auto c = h.connect(8);
        h.send(*c, request("remove").with("paths", Value(Array{Value("/")})));
        h.send(*c, request("bulk"));
        h.drain();
        auto r = c->sent();
        ASSERT_EQ(r.size(), 2u);
        EXPECT_EQ(failure(r[0]), "4 internal error");
        EXPECT_EQ(r[1].body(), Value::emptyDictionary()); // the next request is served
        EXPECT_EQ(log.countContaining(logged), 1u);
    }
}

// Long requests yield between elements: with a time slice of zero every
// element is one turn, and other clients' requests run in between. The add
// ends once: served, failed at a bad element, or dropped with its client.
TEST(TransactionTest, ALongRequestYieldsToOtherClientsAndEndsOnce)
{
    struct Case {
        bool relative, dies;
        const char* reply;
    };
    for (const Case& tc : {Case{false, false, "0 <none>"}, Case{true, false, "9 absolute path required: relative"},
                           Case{false, true, nullptr}}) {
        SCOPED_TRACE(tc.reply ? tc.reply : "client died");
        test::TempDir dir;
        ServerHarness h;
        h.server->setRequestTimeSlice(std::chrono::nanoseconds(0));
        auto a = h.connect(21), b = h.connect(22);
        Array paths;
        for (const char* name : {"P1.vext", "P2.vext", "P3.vext"}) {
            std::filesystem::create_directories(dir.file(name));
            paths.push_back(Value(std::filesystem::canonical(dir.file(name)).string()));
        }
        if (tc.relative)
            paths[1] = Value("relative");
        auto addId = h.send(*a, request("add").with("paths", Value(paths)));
        h.send(*a, request("bulk"));
        h.send(*b, request("bulk"));
        h.queues["vyn"]->runUntilIdle();
        ASSERT_TRUE(h.queues["service"]->runOne()); // the first element of the add
        ASSERT_TRUE(h.queues["service"]->runOne()); // the other client's turn
        EXPECT_EQ(b->sent().size(), 1u);
        EXPECT_TRUE(a->sent().empty());
        if (tc.dies) {
            a->deliver(platform::VynError{platform::VynError::Kind::ConnectionInvalid, "gone"});
            h.queues["vyn"]->runUntilIdle();
        }
        h.drain();
        auto r = a->sent(); // the add's one reply, then the client's next request
        ASSERT_EQ(r.size(), tc.reply ? 2u : 0u);
        if (tc.reply) {
            EXPECT_EQ(r[0].replyTo(), addId);
            EXPECT_EQ(failure(r[0]), tc.reply);
        }
        EXPECT_EQ(h.registry->registered().size(), tc.relative || tc.dies ? 1u : 3u); // nothing after the end
    }
}

// "ready" enables every plug-in it kept, once each, even after one failed,
// and answers with the first failure. (These bundles are not on disk, so
// each has no executable.)
TEST(TransactionTest, ReadyEnablesEveryKeptPlugInOnceAndReportsTheFirstFailure)
{
    test::LogCapture log;
    ServerHarness h;
    TvdPlugIn::setSystemVolumeRoot("/System");
    auto a = test::makePlugInRecord("/apps/A.app/PlugIns/A.vext", "com.example.a");
    auto b = test::makePlugInRecord("/apps/A.app/PlugIns/B.vext", "com.example.b");
    h.registry->plugIns = {a, b};
    auto c = h.connect(42);
    h.send(*c, request("ready").with("uuids", Value(Array{Value(a->uuid), Value(b->uuid), Value(a->uuid)})));
    h.drain();
    auto replies = c->sent();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].body(),
              (Value{{"errorcode", std::uint64_t{4}},
                     {"error", "cannot obtain executable path for plug-in com.example.a(" + a->uuid.string() + ")"}}));
    EXPECT_EQ(log.countContaining("failed to obtain execPath for plug-in com.example.a("), 1u);
    EXPECT_EQ(log.countContaining("failed to obtain execPath for plug-in com.example.b("), 1u);

    // A job manager that refuses the registration (its table is full).
    test::TempDir disk;
    auto onDisk = test::makePlugInRecord(disk.path() + "/A.app/PlugIns/C.vext", "com.example.c");
    test::makePlugInBundle(onDisk->bundlePath, "com.example.c", "/bin/true");
    h.registry->plugIns.push_back(onDisk);
    h.jobManager->addResult = ENOSPC;
    h.send(*c, request("ready").with("uuids", Value(Array{Value(onDisk->uuid)})));
    h.drain();
    replies = c->sent();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[1].body(), (Value{{"errorcode", std::uint64_t{4}},
                                        {"error", "unable to enable plug-in com.example.c(" + onDisk->uuid.string() + ")"}}));
    EXPECT_EQ(log.countContaining("jobd error 28 trying to allow 42 "), 1u);
}

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
        return c.sent().back();
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

// A match yields between candidates like any long request: with a time
// slice of zero another client's request is answered before the match.
TEST_F(TransactionMatchTest, AMatchYieldsBetweenCandidates)
{
    for (const char* id : {"a", "b", "c"})
        add(id);
    h.server->setRequestTimeSlice(std::chrono::nanoseconds(0));
    auto a = h.connect(50), b = h.connect(60);
    h.send(*a, Value{{"request", "match"}, {"version", std::uint64_t{3}},
                     {"rules", Value{{"KoExtensionPointIdentifier", "point"}}}});
    h.send(*b, Value{{"request", "bulk"}, {"version", std::uint64_t{3}}});
    h.queues["vyn"]->runUntilIdle();
    ASSERT_TRUE(h.queues["service"]->runOne()); // the first candidate
    ASSERT_TRUE(h.queues["service"]->runOne()); // the other client's turn
    EXPECT_EQ(b->sent().size(), 1u);
    EXPECT_TRUE(a->sent().empty());
    h.drain();
    ASSERT_EQ(a->sent().size(), 1u);
    EXPECT_EQ(messageDecode(a->sent()[0].get("matches")).count(), 3u);
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
    EXPECT_EQ(forms[s(system)]["annotations"], Value::emptyDictionary()); // a dead holder's release: TvdPlugInHoldTest
}

} // namespace
} // namespace tv
