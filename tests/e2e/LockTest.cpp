// "lock" through the real daemon and the client library: every refusal with
// its code and text (and "conflicts" for busy plug-ins), holds taking
// plug-ins out of "match" until released by token, and tvkit's hold and
// release. Holds of a client that dies are released by the server (unit
// tests of the hold table and of the transport's broken connections).
#include "tests/support/DaemonConnection.h"
#include "tests/support/PlugInBundles.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tv {
namespace {

using platform::Message;
using test::DaemonConnection;

class LockTest : public ::testing::Test {
protected:
    LockTest() : daemon_({"application_roots = " + apps_.path()}) {}

    void SetUp() override
    {
        ASSERT_TRUE(daemon_.start()) << daemon_.log();
        main_ = std::make_unique<DaemonConnection>(daemon_);
        plugInA_ = test::makeApplicationWithPlugIn(apps_.path(), "com.example.a");
        test::makeApplicationWithPlugIn(apps_.path(), "com.example.b");
        a_ = test::installedUuid(daemon_, "com.example.a").value_or(Uuid());
        b_ = test::installedUuid(daemon_, "com.example.b").value_or(Uuid());
        ASSERT_FALSE(a_.isNil() || b_.isNil()) << daemon_.log();
    }

    void TearDown() override
    {
        if (busyPid_ > 0) {
            kill(busyPid_, SIGKILL);
            waitpid(busyPid_, nullptr, 0);
        }
    }

    std::string app(const std::string& identifier) const
    {
        return std::filesystem::canonical(apps_.path() + "/" + identifier + ".app").string();
    }

    Message lock(const Value& paths, const Value& flags)
    {
        Message m = main_->client().request("lock");
        m.set("paths", paths);
        m.set("flags", flags);
        return main_->send(m);
    }
    // The token of a granted hold (nil when refused).
    Uuid hold(const std::vector<std::string>& paths, std::uint64_t flags)
    {
        Array list;
        for (const auto& p : paths)
            list.push_back(Value(p));
        Message reply = lock(Value(std::move(list)), Value(flags));
        EXPECT_EQ(reply.get("errorcode"), Value()) << reply.get("error").description();
        const Uuid* token = reply.get("uuids").asUuid();
        return token ? *token : Uuid();
    }
    Message release(const Array& tokens, DaemonConnection& c)
    {
        Message m = c.client().request("lock");
        m.set("uuids", Value(tokens));
        return c.send(m);
    }
    // The UUIDs "match" answers for the plug-ins' extension point.
    std::set<Uuid> matched()
    {
        Message m = main_->client().request("match");
        m.set("rules", Value{{"KoExtensionPointIdentifier", "com.veltra.share-services"}});
        m.set("flags", Value(std::uint64_t{0}));
        Value forms = main_->client().convertFromVYN(main_->send(m).get("matches"));
        std::set<Uuid> uuids;
        for (const Value& form : forms.asArray() ? *forms.asArray() : Array{})
            uuids.insert(Uuid::parse(*form["uuid"].asString()).value_or(Uuid()));
        return uuids;
    }
    std::uint64_t notifications() { return test::annotationChanges(daemon_); }

    test::TempDir apps_;
    test::TestDaemon daemon_;
    std::unique_ptr<DaemonConnection> main_;
    std::string plugInA_;
    Uuid a_, b_;
    pid_t busyPid_ = -1;
};

TEST_F(LockTest, RefusalsCarryTheirCodeTextAndConflictsAndHoldNothing)
{
    // An application whose plug-in is running: a copy of sleep as the
    // plug-in's executable.
    const std::string busyPlugIn = test::makeApplicationWithPlugIn(apps_.path(), "com.example.busy", "/bin/sleep");
    ASSERT_TRUE(test::installedUuid(daemon_, "com.example.busy")) << daemon_.log();
    busyPid_ = test::startProgram({busyPlugIn + "/plugin", "60"}, {}, "/dev/null", "/dev/null");
    std::this_thread::sleep_for(std::chrono::milliseconds(200)); // until its image is the copy

    const Value none, a(app("com.example.a")), missing("/no/such/app");
    auto u = [](std::uint64_t flags) { return Value(flags); }; // flags are unsigned on the wire
    const Value busyConflicts(Array{Value{{"ExtensionBundleIdentifier", "com.example.busy"}}});
    const std::string flagsText = "invalid request format (unsupported hold flags)";
    // Paths and flags (each left out of the request when null), the answer.
    const std::tuple<Value, Value, std::int64_t, std::string, Value> cases[] = {
        {none, u(1), 4, "invalid request format", none},
        {Value("/x"), u(1), 4, "invalid request format", none},
        {Value(Array{Value(1)}), u(1), 4, "invalid request format", none},
        {Value(Array{Value("rel/x")}), u(1), 9, "absolute path required: rel/x", none},
        {Value(Array{missing}), u(1), 9, "invalid path: /no/such/app", none},
        {Value(Array{missing}), none, 9, "invalid path: /no/such/app", none}, // before the flags
        {Value(Array{a}), none, 4, flagsText, none},
        {Value(Array{a}), u(0), 4, flagsText, none},
        {Value(Array{a}), u(3), 4, flagsText, none},
        {Value(Array{a}), u(2), 9, "no plug-in at path:" + *a.asString(), none},
        {Value(Array{Value(plugInA_), missing}), u(2), 9, "invalid path: /no/such/app", none},
        {Value(Array{a, Value(app("com.example.busy"))}), u(1), 14, "plug-ins are busy", busyConflicts},
    };
    const std::uint64_t before = notifications();
    for (const auto& [paths, flags, code, text, conflicts] : cases) {
        SCOPED_TRACE(paths.description() + " flags " + flags.description());
        Message reply = lock(paths, flags);
        EXPECT_EQ(reply.get("errorcode").integerValue(), code);
        EXPECT_EQ(reply.get("error"), Value(text)) << reply.get("error").description();
        EXPECT_EQ(reply.get("conflicts"), conflicts);
        EXPECT_TRUE(reply.get("uuids").isNull());
    }
    EXPECT_EQ(notifications(), before);
    EXPECT_TRUE(matched().count(a_));
    // A plug-in named by its own path is never refused as busy.
    EXPECT_FALSE(hold({busyPlugIn}, 2).isNil());
}

TEST_F(LockTest, HeldPlugInsLeaveMatchUntilTheirTokenIsReleased)
{
    const std::uint64_t n = notifications();
    ASSERT_EQ(matched(), (std::set<Uuid>{a_, b_}));
    Uuid onA = hold({plugInA_}, 2);
    EXPECT_EQ(matched(), (std::set<Uuid>{b_}));
    Uuid onB = hold({app("com.example.b")}, 1);
    EXPECT_EQ(matched(), (std::set<Uuid>{}));
    // Nothing named: a token for a hold that blocks nothing.
    EXPECT_FALSE(hold({}, 0).isNil());
    EXPECT_EQ(notifications(), n + 3);

    // Non-UUID elements are skipped; a second release of a token and an
    // unknown token change nothing and still succeed.
    Message released = release(Array{Value("x"), Value(onA), Value(onA), Value(Uuid::random())}, *main_);
    EXPECT_TRUE(released.get("errorcode").isNull());
    EXPECT_EQ(matched(), (std::set<Uuid>{a_}));
    EXPECT_EQ(notifications(), n + 4);
    // Any client may release a token.
    DaemonConnection other(daemon_);
    EXPECT_TRUE(release(Array{Value(onB)}, other).get("errorcode").isNull());
    EXPECT_EQ(matched(), (std::set<Uuid>{a_, b_}));
    EXPECT_EQ(notifications(), n + 5);
}

// A lock on thousands of paths is served; a holder that goes away with its
// lock request in flight leaves no hold behind.
TEST_F(LockTest, HugeLocksAreServedAndAHolderThatDiesMidRequestLeavesNoHold)
{
    Array many(5'000, Value(plugInA_));
    Message reply = lock(Value(many), Value(std::uint64_t{2}));
    const Uuid* token = reply.get("uuids").asUuid();
    ASSERT_NE(token, nullptr) << reply.get("error").description();
    EXPECT_EQ(matched(), (std::set<Uuid>{b_}));
    EXPECT_TRUE(release(Array{Value(*token)}, *main_).get("errorcode").isNull());

    // Gone at different moments of the request's service (about 200 ms).
    for (int waitMs : {0, 20, 60, 120, 200}) {
        DaemonConnection dying(daemon_);
        Message m = dying.client().request("lock");
        m.set("paths", Value(many));
        m.set("flags", Value(std::uint64_t{2}));
        dying.client().sendReply(m, [](const platform::VynEvent&) {});
        std::this_thread::sleep_for(std::chrono::milliseconds(waitMs));
    }
    test::eventually([&] { return matched() == std::set<Uuid>{a_, b_}; }, std::chrono::seconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(matched(), (std::set<Uuid>{a_, b_}));
    EXPECT_TRUE(daemon_.running());
}

TEST_F(LockTest, TvkitHoldKeepsItsHoldUntilStoppedAndReleaseEndsOne)
{
    auto tvkit = [&](std::vector<std::string> args) { return daemon_.tvkit(std::move(args)); };
    // Until SIGTERM: the token is printed and the plug-in stays held.
    int in[2];
    ASSERT_EQ(pipe2(in, O_CLOEXEC), 0);
    test::TempDir out;
    pid_t pid = test::startProgram({TVKIT_BINARY, "--service", daemon_.socketPath(), "hold", plugInA_},
                                   daemon_.clientEnv(), out.file("token"), out.file("err"), in[0]);
    close(in[0]);
    test::eventually([&] { return test::readFile(out.file("token")).size() >= 37; }, std::chrono::seconds(10));
    ASSERT_EQ(test::readFile(out.file("token")).size(), 37u) << test::readFile(out.file("err"));
    EXPECT_EQ(matched(), (std::set<Uuid>{b_}));
    kill(pid, SIGTERM);
    int status = -1;
    waitpid(pid, &status, 0);
    close(in[1]);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(matched(), (std::set<Uuid>{a_, b_}));

    // Standard input at its end: placed and released at once.
    const std::uint64_t n = notifications();
    auto held = tvkit({"hold", "--apps", app("com.example.b")});
    EXPECT_EQ(held.exitStatus, 0) << held.err;
    EXPECT_TRUE(Uuid::parse(held.out.substr(0, 36))) << held.out;
    EXPECT_EQ(notifications(), n + 2);
    auto refused = tvkit({"hold", "/no/such"});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_NE(refused.err.find("invalid path: /no/such (error 9)"), std::string::npos) << refused.err;

    Uuid token = hold({plugInA_}, 2);
    EXPECT_EQ(tvkit({"release", token.string()}).exitStatus, 0);
    EXPECT_EQ(matched(), (std::set<Uuid>{a_, b_}));
    EXPECT_EQ(tvkit({"release", "not-a-token"}).exitStatus, 2);
}

} // namespace
} // namespace tv
