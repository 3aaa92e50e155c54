// "annotate" and "bulk-annotate" through the real daemon and the client
// library: every refusal with its code and text, one annotation-change
// notification per successful request, partial failures that keep earlier
// changes, hostile input, and the annotation file across a restart.
#include "platform/formats/Vlist.h"
#include "tests/support/DaemonConnection.h"
#include "tests/support/PlugInBundles.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <future>
#include <random>
#include <signal.h>
#include <thread>

namespace tv {
namespace {

using platform::Message;

class AnnotateTest : public ::testing::Test {
protected:
    AnnotateTest() : daemon_({"application_roots = " + apps_.path()}) {}

    void SetUp() override
    {
        ASSERT_TRUE(daemon_.start({"-d", file_})) << daemon_.log();
        connect();
        test::makeApplicationWithPlugIn(apps_.path(), "com.example.a");
        test::makeApplicationWithPlugIn(apps_.path(), "com.example.b");
        a_ = test::installedUuid(daemon_, "com.example.a").value_or(Uuid());
        b_ = test::installedUuid(daemon_, "com.example.b").value_or(Uuid());
        ASSERT_FALSE(a_.isNil() || b_.isNil()) << daemon_.log();
    }

    void connect() { connection_ = std::make_unique<test::DaemonConnection>(daemon_); }
    TvDaemonClient& client() { return connection_->client(); }

    // Sends what `send` builds; the answer's error code and text (0 and ""
    // for success). A connection the transport cut is made again.
    using Answer = std::pair<std::int64_t, std::string>;
    Answer ask(const std::function<void(TvDaemonClient::Reply)>& send)
    {
        platform::VynEvent answer = connection_->ask(send);
        if (platform::eventError(answer))
            connect();
        auto error = TvDaemonClient::errorInReply(answer);
        return error ? Answer{error->code, error->description.value_or("")} : Answer{0, ""};
    }
    Answer annotate(const Value& change, const std::vector<Uuid>& uuids)
    {
        return ask([&](auto reply) { client().setPluginAnnotationsAnnotationsReply(uuids, change, reply); });
    }
    Answer bulk(const Value& annotations)
    {
        return ask([&](auto reply) { client().bulkSetPluginAnnotationsReply(annotations, reply); });
    }
    std::uint64_t notifications() { return test::annotationChanges(daemon_); }
    // The annotation stored in the file for `identifier` (null: none).
    Value stored(const std::string& identifier)
    {
        if (!std::filesystem::exists(file_))
            return Value();
        auto root = platform::readVlistFile(file_);
        EXPECT_TRUE(root.ok()) << "the annotation file must always load";
        return root.ok() ? (*root)["data"][identifier] : Value();
    }

    test::TempDir dir_, apps_;
    std::string file_ = dir_.file("Annotations");
    test::TestDaemon daemon_;
    std::unique_ptr<test::DaemonConnection> connection_;
    Uuid a_, b_;
};

TEST_F(AnnotateTest, RefusalsCarryTheirCodeAndTextAndChangeNothing)
{
    const Value none, a(Array{Value(a_)}), ok{{"election", 1}}, empty(Dictionary{});
    const std::string badDictionary = "invalid request format (bad annotations dictionary)",
                      badElection = "invalid request format (annotation election)",
                      badUuid = "invalid request (bad uuid array)", unknown = "FFFFFFFF-0000-4000-8000-000000000000";
    struct Case {
        const char* type;
        Value annotations, uuids; // each left out of the request when null
        Answer answer;
    };
    const Case cases[] = {
        {"annotate", none, a, {4, badDictionary}},
        {"annotate", Value("election"), a, {4, badDictionary}},
        {"annotate", Value{{"election", "1"}}, a, {4, badElection}},
        {"annotate", Value{{"election", true}}, a, {4, badElection}},
        {"annotate", Value{{"election", 1}, {"extension", Value(Array{})}}, a,
         {4, "invalid request format (annotation extension)"}},
        {"annotate", ok, none, {4, "invalid request format (uuid)"}},
        {"annotate", ok, Value(Array{Value(a_.string())}), {4, badUuid}},
        {"annotate", ok, Value(Array{Value(*Uuid::parse(unknown)), Value(a_)}), {4, "no such plugin (uuid not found)"}},
        {"bulk-annotate", none, none, {4, badDictionary}},
        {"bulk-annotate", Value(Array{}), none, {4, badDictionary}},
        {"bulk-annotate", Value{{a_.string(), "x"}}, none, {18, "annotations values must be dictionaries"}},
        {"bulk-annotate", Value{{"not-a-uuid", empty}}, none, {18, "invalid plug-in UUID value"}},
        {"bulk-annotate", Value{{a_.string() + " ", empty}}, none, {18, "invalid plug-in UUID value"}},
        {"bulk-annotate", Value{{unknown, empty}}, none, {2, "no plug-in with the requested uuid"}},
    };
    std::uint64_t before = notifications();
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.annotations.description() + " " + c.uuids.description());
        Message m = client().request(c.type);
        m.set("annotations", c.annotations);
        m.set("uuids", c.uuids);
        EXPECT_EQ(ask([&](auto reply) { client().sendReply(m, reply); }), c.answer);
    }
    EXPECT_EQ(notifications(), before);
    EXPECT_TRUE(stored("com.example.a").isNull());
}

TEST_F(AnnotateTest, OneNotificationPerSuccessfulRequestAndEarlierChangesStay)
{
    const Answer ok{0, ""};
    std::uint64_t n = notifications();
    EXPECT_EQ(annotate(Value{{"election", 1}}, {a_, b_}), ok); // both plug-ins, one notification
    // Only keys that are not a change: nothing stored, no notification,
    // "uuids" not even read.
    Message noChange = client().request("annotate");
    noChange.set("annotations", Value{{"colour", "red"}});
    EXPECT_EQ(ask([&](auto reply) { client().sendReply(noChange, reply); }), ok);
    // "extension" merges beside "election"; bulk replaces "extension" whole
    // and keeps "election"; an empty bulk request still notifies.
    EXPECT_EQ(annotate(Value{{"extension", Value{{"k", "v"}}}}, {a_}), ok);
    EXPECT_EQ(bulk(Value{{a_.string(), Value{{"x", 2}}}}), ok);
    EXPECT_EQ(bulk(Value(Dictionary{})), ok);
    EXPECT_EQ(notifications(), n + 4);
    const Value a{{"election", 1}, {"extension", Value{{"x", 2}}}};
    EXPECT_EQ(stored("com.example.a"), a);

    // A failure part-way keeps what came before it and does not notify.
    Uuid unknown = *Uuid::parse("FFFFFFFF-0000-4000-8000-000000000000");
    EXPECT_EQ(annotate(Value{{"election", 0}}, {b_, unknown, a_}).first, 4);
    EXPECT_EQ(bulk(Value{{b_.string(), Value{{"y", 3}}}, {unknown.string(), Value(Dictionary{})}}).first, 2);
    EXPECT_EQ(notifications(), n + 4);
    EXPECT_EQ(stored("com.example.a"), a);
    EXPECT_EQ(stored("com.example.b"), (Value{{"election", 0}, {"extension", Value{{"y", 3}}}}));

    // A restarted daemon starts from the file: a change merges over it.
    daemon_.stop();
    ASSERT_TRUE(daemon_.start({"-d", file_})) << daemon_.log();
    connect();
    EXPECT_EQ(annotate(Value{{"election", 0}}, {a_}), ok);
    EXPECT_EQ(stored("com.example.a"), a.with("election", 0));
}

TEST_F(AnnotateTest, HostileInputIsRefusedOrServedWithoutHarm)
{
    // Values the file cannot hold, nesting up to and past the transport's
    // depth: each request gets an answer (success, or code 4 when the
    // transport refuses it), the file stays loadable and the other plug-in's
    // entry is untouched.
    ASSERT_EQ(annotate(Value{{"election", 1}}, {b_}).first, 0);
    std::vector<Value> values{Value(std::nan("")), Value("bad\x01text"), Value("\xff\xfe"), Value(a_)};
    for (int depth : {60, 61, 62, 63}) {
        Value nested = Value(Dictionary{});
        for (int i = 0; i < depth; ++i)
            nested = Value{{"n", nested}};
        values.push_back(nested);
    }
    for (const Value& value : values) {
        SCOPED_TRACE(value.description());
        auto answer = annotate(Value{{"extension", Value{{"v", value}}}}, {a_});
        EXPECT_TRUE(answer.first == 0 || answer.first == 4) << answer.second;
        EXPECT_EQ(stored("com.example.b"), (Value{{"election", 1}}));
    }

    // A huge "uuids" array is served (one save, one notification); one
    // larger than a request frame may be is refused by the transport.
    std::uint64_t n = notifications();
    std::vector<Uuid> many(100'000, a_);
    EXPECT_EQ(annotate(Value{{"election", 0}}, many).first, 0);
    EXPECT_EQ(notifications(), n + 1);
    many.resize(300'000, b_);
    EXPECT_EQ(annotate(Value{{"election", 0}}, many).first, 4);
    EXPECT_EQ(annotate(Value{{"election", 2}}, {b_}).first, 0);
    EXPECT_EQ(stored("com.example.b"), (Value{{"election", 2}}));
    EXPECT_TRUE(daemon_.running());
}

// A daemon killed at any instant during a burst of changes leaves a file
// that loads and holds every acknowledged change, with the change in flight
// either whole or not at all. Each round goes on from what the file holds.
TEST_F(AnnotateTest, KilledAtAnyInstantTheFileKeepsEveryAcknowledgedChange)
{
    std::mt19937 random(std::random_device{}());
    for (int round = 0; round < 25; ++round) {
        SCOPED_TRACE(round);
        const std::int64_t from = stored("com.example.a")["election"].integerValue();
        std::atomic<std::int64_t> acknowledged{from};
        std::atomic<bool> killed{false};
        auto burst = std::async(std::launch::async, [&] {
            for (std::int64_t v = from + 1; !killed; ++v) {
                if (annotate(Value{{"election", v}}, {a_}).first != 0)
                    return;
                acknowledged = v;
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<>(2, 80)(random)));
        ASSERT_EQ(::kill(daemon_.pid(), SIGKILL), 0);
        killed = true;
        burst.wait();
        daemon_.stop(); // collects the killed process
        const std::int64_t election = stored("com.example.a")["election"].integerValue();
        EXPECT_GE(election, acknowledged.load());
        EXPECT_LE(election, acknowledged.load() + 1);
        ASSERT_TRUE(daemon_.start({"-d", file_})) << daemon_.log();
        connect();
    }
    EXPECT_GT(stored("com.example.a")["election"].integerValue(), 25) << "the bursts hardly ran";
}

} // namespace
} // namespace tv
