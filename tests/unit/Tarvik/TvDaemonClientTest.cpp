#include "Tarvik/TvDaemonClient.h"

#include "base/InternalInconsistency.h"
#include "tests/support/FakeVynService.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <future>

namespace tv {
namespace {

using platform::Message;
using platform::VynError;

Message replyWith(std::initializer_list<std::pair<const std::string, Value>> entries)
{
    return Message(Value(entries));
}

TEST(TvDaemonClientTest, ErrorInReplyMapsEveryShapeOfAnswer)
{
    const std::tuple<platform::VynEvent, int, std::string> cases[] = { // code 0: no error
        {replyWith({{"errorcode", 9u}, {"error", "no plugin at /x"}}), 9, "no plugin at /x"},
        {replyWith({{"errorcode", 2u}}), 2, "unknown error returned by Tarvik subsystem"},
        {replyWith({}), 0, ""},
        // A signed "errorcode" reads as 0, like any other kind but unsigned.
        {replyWith({{"errorcode", 9}}), 0, ""},
        // A broken connection is code 4 with the transport's text.
        {VynError{VynError::Kind::ConnectionInvalid, "connection invalid"}, 4, "connection invalid"},
    };
    for (const auto& [answer, code, description] : cases) {
        auto e = TvDaemonClient::errorInReply(answer);
        EXPECT_EQ(e, code ? std::optional(makeError(code, description)) : std::nullopt) << description;
    }

    // A text without a code is a protocol violation.
    try {
        (void)TvDaemonClient::errorInReply(replyWith({{"error", "oops"}}));
        FAIL() << "expected an internal-consistency failure";
    } catch (const TvInternalInconsistency& x) {
        EXPECT_STREQ(x.what(), "tvd reported error without a code: oops");
    }
}

TEST(TvDaemonClientTest, MessageEncodingRoundTripsOnlyForVersion3)
{
    Value forms(Array{Value{{"path", "/A.app/PlugIns/S.vext"},
                            {"url", Value::fileURL("/A.app")},
                            {"date", Value(Date::fromSeconds(1790000000))},
                            {"nested", Value{{"uuid", Value(Uuid::random())}, {"n", Value(-1)}}}}});
    Value encoded = TvDaemonClient::convertToVYNVersion(forms, 3);
    ASSERT_FALSE(encoded.isNull());
    EXPECT_TRUE(TvDaemonClient::convertToVYNVersion(forms, 2).isNull());
    EXPECT_TRUE(TvDaemonClient::convertToVYNVersion(forms, 4).isNull());

    auto vyn = std::make_shared<test::FakeVynService>();
    TvDaemonClient client(vyn);
    EXPECT_EQ(client.convertFromVYN(encoded), forms);
    EXPECT_TRUE(client.convertFromVYN(Value("not encoded")).isNull());
    Bytes garbage{0x76, 0x03, 0xFF};
    EXPECT_TRUE(client.convertFromVYN(Value::data(garbage)).isNull());
    client.setProtocolVersion(2);
    EXPECT_TRUE(client.convertFromVYN(encoded).isNull());
}

TEST(TvDaemonClientTest, RequestsGoToTheServiceWithUrlsAsText)
{
    auto vyn = std::make_shared<test::FakeVynService>();
    TvDaemonClient client(vyn, nullptr);
    EXPECT_EQ(vyn->lastConnectName(), "com.veltra.tarvik.tvd");
    auto connection = vyn->lastConnection();
    EXPECT_TRUE(connection->resumed());

    // Every call's request is checked end to end through tvkit and the e2e
    // tests; here what they do not send: a URL in the rules travels as its
    // text, and "version" is unsigned on the wire (a signed 3 reads as 0).
    client.matchPlugInsFlagsReply(Value{{"KoExtensionPointIdentifier", "com.example.share"}, {"where", Value::fileURL("/x")}},
                                  1, [](const platform::VynEvent&) {});
    auto sent = connection->sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(sent[0].expectsReply());
    EXPECT_EQ(sent[0].body(), (Value{{"request", "match"}, {"version", std::uint64_t{3}}, {"flags", std::uint64_t{1}},
                                     {"rules", Value{{"KoExtensionPointIdentifier", "com.example.share"}, {"where", "file:///x"}}}}));
}

TEST(TvDaemonClientTest, CompletionRunsOnTheClientQueueWithTrafficLogged)
{
    test::LogCapture log;
    auto vyn = std::make_shared<test::FakeVynService>();
    TvDaemonClient client(vyn);
    std::promise<bool> onQueue;
    client.bulkPluginsReply(0, [&](const platform::VynEvent& answer) {
        EXPECT_FALSE(TvDaemonClient::errorInReply(answer));
        onQueue.set_value(client.replyQueue()->isCurrent() && client.replyQueue()->label() == "tvd_client");
    });
    vyn->lastConnection()->answer(Message());
    auto f = onQueue.get_future();
    ASSERT_EQ(f.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(f.get());
    EXPECT_EQ(log.countContaining("request: "), 1u);
    EXPECT_EQ(log.countContaining("reply: "), 1u);
    for (const auto& l : log.lines())
        EXPECT_EQ(l.category, "traffic");
}

} // namespace
} // namespace tv
