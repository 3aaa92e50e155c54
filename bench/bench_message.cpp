// Cost of the IPC message path: encoding and decoding frames of a typical
// request and of a large reply, and a request/reply round trip through the
// transport over a real Unix socket.
#include "base/SerialQueue.h"
#include "platform/ipc/LinuxVynService.h"
#include "platform/ipc/VynFrame.h"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <future>
#include <unistd.h>

using namespace tv;
using namespace tv::platform;

namespace {

Message matchRequest()
{
    Message m;
    m.set("request", "match");
    m.set("version", Value(3u));
    m.set("flags", Value(0u));
    m.set("rules", Value::dictionary({
                       {"KoExtensionPointIdentifier", "com.example.share-services"},
                       {"KbBundleIdentifier", "com.example.*"},
                       {"KoExtensionAttributes", Value::dictionary({{"MaxItems", Value(10)}, {"Images", true}})},
                   }));
    return m;
}

Value plugInForm(int i)
{
    std::string id = "com.example.app" + std::to_string(i) + ".share";
    Uuid::Bytes bytes{};
    for (std::size_t b = 0; b < bytes.size(); ++b)
        bytes[b] = static_cast<std::uint8_t>(i * 31 + static_cast<int>(b));
    return Value::dictionary({
        {"KbBundleIdentifier", id},
        {"KoExtensionIdentifier", id},
        {"KbBundleVersion", "1." + std::to_string(i % 17)},
        {"KbBundleShortVersionString", "1.0"},
        {"KbBundleDisplayName", "Share with App " + std::to_string(i)},
        {"path", "/Applications/App" + std::to_string(i) + ".app/PlugIns/Share.vext"},
        {"uuid", Value(Uuid(bytes))},
        {"registered", Value(Date::fromMicroseconds(1'790'000'000'000'000 + i))},
        {"election", Value(1)},
        {"onSystemPartition", false},
        {"KoExtension",
         Value::dictionary({
             {"KoExtensionPointIdentifier", "com.example.share-services"},
             {"KoExtensionAttributes",
              Value::dictionary({{"MaxItems", Value(10)}, {"Types", Value::array({"public.image", "public.url"})}})},
             {"KoExtensionPrincipalClass", "ShareViewController"},
         })},
        {"entitlements", Value::dictionary({{"com.example.sandbox", true}})},
    });
}

Message largeReply()
{
    Array forms;
    for (int i = 0; i < 500; ++i)
        forms.push_back(plugInForm(i));
    Message m;
    m.set("matches", Value(std::move(forms)));
    return m;
}

void encode(benchmark::State& state, const Message& m)
{
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto frame = VynFrame::encode(m, true, 64);
        bytes = frame->size();
        benchmark::DoNotOptimize(frame->data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
    state.counters["frame_bytes"] = static_cast<double>(bytes);
}

void decode(benchmark::State& state, const Message& m)
{
    auto frame = *VynFrame::encode(m, true, 64);
    VynFrame::setMessageId(frame, 1);
    auto header = *VynFrame::parseHeader(std::span<const std::uint8_t, VynFrame::kHeaderSize>(frame.data(), 24));
    std::span<const std::uint8_t> body(frame.data() + VynFrame::kHeaderSize, header.bodyLength);
    for (auto _ : state) {
        auto message = VynFrame::decodeBody(header, body, 64);
        benchmark::DoNotOptimize(message.ok());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * frame.size()));
}

void BM_EncodeMatchRequest(benchmark::State& state) { encode(state, matchRequest()); }
void BM_DecodeMatchRequest(benchmark::State& state) { decode(state, matchRequest()); }
void BM_EncodeReply500Forms(benchmark::State& state) { encode(state, largeReply()); }
void BM_DecodeReply500Forms(benchmark::State& state) { decode(state, largeReply()); }

// A daemon side answering every request with the given reply body.
void roundTrip(benchmark::State& state, const Message& request, Value replyBody)
{
    char templ[] = "/tmp/vyn-bench-XXXXXX";
    std::string dir = ::mkdtemp(templ);
    PlatformConfig config;
    config.socketDir = dir;
    auto server = LinuxVynService::create(config, SocketActivation());
    auto serverQueue = SerialQueue::create("bench.vyn");
    auto listener = server->listen("bench", serverQueue);
    (*listener)->setConnectionHandler([replyBody](std::shared_ptr<VynConnection> c) {
        std::weak_ptr<VynConnection> weak = c;
        c->setEventHandler([weak, replyBody](const VynEvent& e) {
            auto m = eventMessage(e);
            auto conn = weak.lock();
            if (!m || !conn)
                return;
            if (auto reply = Message::createReply(*m)) {
                reply->setBody(replyBody);
                conn->send(std::move(*reply));
            }
        });
        c->resume();
    });
    (*listener)->resume();

    auto client = LinuxVynService::create(config, SocketActivation());
    auto clientQueue = SerialQueue::create("bench.client");
    auto connection = client->connect("bench", clientQueue);
    connection->resume();
    for (auto _ : state) {
        std::promise<bool> answered;
        connection->sendWithReply(request, clientQueue,
                                  [&](const VynEvent& e) { answered.set_value(eventMessage(e) != nullptr); });
        if (!answered.get_future().get()) {
            state.SkipWithError("no reply");
            break;
        }
    }
    connection->cancel();
    client.reset();
    server.reset();
    std::filesystem::remove_all(dir);
}

void BM_RoundTripMatchRequest(benchmark::State& state)
{
    roundTrip(state, matchRequest(), Value::emptyDictionary());
}
void BM_RoundTripReply500Forms(benchmark::State& state)
{
    roundTrip(state, matchRequest(), largeReply().body());
}

} // namespace

BENCHMARK(BM_EncodeMatchRequest);
BENCHMARK(BM_DecodeMatchRequest);
BENCHMARK(BM_EncodeReply500Forms)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecodeReply500Forms)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RoundTripMatchRequest)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_RoundTripReply500Forms)->Unit(benchmark::kMicrosecond)->UseRealTime();

BENCHMARK_MAIN();
