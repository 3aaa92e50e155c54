#include "tvd/Transaction.h"

#include "tests/support/LogCapture.h"
#include "tests/support/PlugInBundles.h"
#include "tests/support/RegistryRecords.h"
#include "tests/support/ServerHarness.h"
#include "tvd/TvdPlugIn.h"
#include "tvd/TvdVynClient.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

using test::ServerHarness;

// Walks the "uuids" of `body` for a client of `h`; records the plug-ins the
// step saw, and stops after `stopAfter` of them when set.
struct Walk {
    bool result = false;
    std::vector<Uuid> seen;
    std::vector<platform::Message> replies;
};

Walk walk(ServerHarness& h, Value uuids, int stopAfter = -1)
{
    auto c = h.connect(42);
    auto client = std::static_pointer_cast<TvdVynClient>(c->context());
    Dictionary body{{"request", Value("ready")}, {"version", Value(std::uint64_t{3})}};
    if (!uuids.isNull())
        body["uuids"] = uuids;
    platform::Message request{Value(std::move(body))};
    request.setMessageId(7);
    request.setExpectsReply(true);
    Transaction t(request, client);
    Walk w;
    w.result = t.processUuidList([&](const std::shared_ptr<TvdPlugIn>& plugIn) {
        w.seen.push_back(*plugIn->uuid());
        if (static_cast<int>(w.seen.size()) == stopAfter) {
            t.failMessage(4, "stopped by step");
            return false;
        }
        return true;
    });
    w.replies = c->sent();
    return w;
}

class TransactionUuidListTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TvdPlugIn::setSystemVolumeRoot("/System");
        a_ = test::makePlugInRecord("/apps/A.app/PlugIns/A.vext", "com.example.a");
        b_ = test::makePlugInRecord("/apps/A.app/PlugIns/B.vext", "com.example.b");
        h_.registry->plugIns = {a_, b_};
    }
    ServerHarness h_;
    platform::RegistryPlugInRecordPtr a_, b_;
};

TEST_F(TransactionUuidListTest, WalksEveryUuidInOrderAndLeavesTheReplyToTheHandler)
{
    Walk w = walk(h_, Value(Array{Value(b_->uuid), Value(a_->uuid), Value(b_->uuid)}));
    EXPECT_TRUE(w.result);
    EXPECT_EQ(w.seen, (std::vector<Uuid>{b_->uuid, a_->uuid, b_->uuid}));
    EXPECT_TRUE(w.replies.empty());
    EXPECT_TRUE(walk(h_, Value(Array{})).replies.empty());

    // A step that stops ends the walk with its own reply.
    Walk stopped = walk(h_, Value(Array{Value(a_->uuid), Value(b_->uuid)}), 1);
    EXPECT_FALSE(stopped.result);
    EXPECT_EQ(stopped.seen.size(), 1u);
    EXPECT_EQ(stopped.replies.size(), 1u);
}

TEST_F(TransactionUuidListTest, RefusalsEndTheRequestAfterTheEarlierElements)
{
    const Uuid unknown = Uuid::random();
    const std::tuple<Value, std::size_t, const char*> cases[] = { // uuids, seen before the refusal, error
        {Value(), 0, "invalid request format (uuid)"},
        {Value(a_->uuid), 0, "invalid request format (uuid)"},
        {Value(Array{Value(a_->uuid), Value(a_->uuid.string())}), 1, "invalid request (bad uuid array)"},
        {Value(Array{Value(a_->uuid), Value::data(Bytes(16, 1))}), 1, "invalid request (bad uuid array)"},
        {Value(Array{Value(a_->uuid), Value(b_->uuid), Value(unknown)}), 2, "no such plugin (uuid not found)"},
    };
    for (const auto& [uuids, seenBefore, error] : cases) {
        SCOPED_TRACE(uuids.description());
        Walk w = walk(h_, uuids);
        EXPECT_FALSE(w.result);
        EXPECT_EQ(w.seen.size(), seenBefore);
        ASSERT_EQ(w.replies.size(), 1u);
        EXPECT_EQ(w.replies[0].body(), (Value{{"errorcode", std::uint64_t{4}}, {"error", error}}));
    }
}

// "ready" enables every plug-in it kept, once each, even after one failed,
// and answers with the first failure. (These bundles are not on disk, so
// each has no executable.)
TEST_F(TransactionUuidListTest, ReadyEnablesEveryKeptPlugInOnceAndReportsTheFirstFailure)
{
    test::LogCapture log;
    auto c = h_.connect(42);
    h_.send(*c, Value{{"request", "ready"},
                      {"version", std::uint64_t{3}},
                      {"uuids", Value(Array{Value(a_->uuid), Value(b_->uuid), Value(a_->uuid)})}});
    h_.drain();
    auto replies = h_.replies(*c);
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].body(),
              (Value{{"errorcode", std::uint64_t{4}},
                     {"error", "cannot obtain executable path for plug-in com.example.a(" + a_->uuid.string() + ")"}}));
    EXPECT_EQ(log.countContaining("failed to obtain execPath for plug-in com.example.a("), 1u);
    EXPECT_EQ(log.countContaining("failed to obtain execPath for plug-in com.example.b("), 1u);

    // A job manager that refuses the registration (its table is full).
    test::TempDir disk;
    auto onDisk = test::makePlugInRecord(disk.path() + "/A.app/PlugIns/C.vext", "com.example.c");
    test::makePlugInBundle(onDisk->bundlePath, "com.example.c", "/bin/true");
    h_.registry->plugIns.push_back(onDisk);
    h_.jobManager->addResult = ENOSPC;
    h_.send(*c, Value{{"request", "ready"}, {"version", std::uint64_t{3}}, {"uuids", Value(Array{Value(onDisk->uuid)})}});
    h_.drain();
    replies = h_.replies(*c);
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[1].body(), (Value{{"errorcode", std::uint64_t{4}},
                                        {"error", "unable to enable plug-in com.example.c(" + onDisk->uuid.string() + ")"}}));
    EXPECT_EQ(log.countContaining("jobd error 28 trying to allow 42 "), 1u);
}

} // namespace
} // namespace tv
