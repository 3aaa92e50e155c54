// Whole requests through the daemon's request path, in process: a server
// over the fakes of tests/support with manual queues, one client, and the
// requests decoded from the input (an array of request bodies, or one).
// The first byte says whether the client holds the manager entitlement
// (bit 0) and which of the first seven requests are one-way (bits 1-7).
// Every request (a dictionary) that expects a reply gets exactly one;
// one-way requests and messages that are not dictionaries (logged and
// dropped, not requests) get none; once the client is gone no hold keeps a
// transaction open.
#include "base/ValueCodec.h"
#include "tests/fuzz/FuzzSupport.h"
#include "tests/support/ServerHarness.h"
#include "tvd/Transaction.h"

#include <set>

using namespace tv;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::quietLog();
    if (size == 0)
        return 0;
    auto input = decodeValue({data + 1, size - 1}, ValueCodecOptions{.allowUrl = false});
    if (!input)
        return 0;
    const Array requests = input->isArray() ? *input->asArray() : Array{*input};
    if (requests.size() > 64)
        return 0;

    test::ServerHarness h;
    if (data[0] & 1)
        h.codeSigning->entitlements[42] = Value{{Transaction::kManagerEntitlement, true}};
    auto client = h.connect(42);
    std::set<std::uint64_t> awaited;
    for (std::size_t i = 0; i < requests.size(); ++i) {
        bool oneWay = i < 7 && (data[0] >> (i + 1)) & 1;
        std::uint64_t id = h.send(*client, requests[i], !oneWay);
        if (!oneWay && requests[i].isDictionary())
            awaited.insert(id);
    }
    h.drain();
    for (const auto& reply : client->sent())
        FUZZ_CHECK(awaited.erase(reply.replyTo()) == 1);
    FUZZ_CHECK(awaited.empty());
    client->deliver(platform::VynError{platform::VynError::Kind::ConnectionInvalid, "Connection invalid"});
    h.drain();
    FUZZ_CHECK(h.vyn->openTransactions() == 0);
    return 0;
}
