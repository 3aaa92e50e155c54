// "annotate" and "bulk-annotate" through the real daemon and the client
// library: every refusal with its code and text, one annotation-change
// notification per successful request, partial failures that keep earlier
// changes, and the annotation file across a restart. (Values the file cannot
// hold: the store's unit test; a kill at any instant: tests/kill; huge
// requests: FairnessTest and LockTest.)
#include "tests/support/DaemonConnection.h"
#include "tests/support/PlugInBundles.h"

#include <gtest/gtest.h>

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
    Value stored(const std::string& identifier) { return test::storedAnnotation(file_, identifier); }

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
    // The request, its "annotations" and "uuids" (each left out when null), the answer.
    const std::tuple<const char*, Value, Value, Answer> cases[] = {
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
    for (const auto& [type, annotations, uuids, answer] : cases) {
        SCOPED_TRACE(std::string(type) + " " + annotations.description() + " " + uuids.description());
        Message m = client().request(type);
        m.set("annotations", annotations);
        m.set("uuids", uuids);
        EXPECT_EQ(ask([&](auto reply) { client().sendReply(m, reply); }), answer);
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

} // namespace
} // namespace tv
