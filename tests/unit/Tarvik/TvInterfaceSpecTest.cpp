#include "Tarvik/TvInterfaceSpec.h"

#include "Tarvik/InterfaceDescriptorRegistry.h"
#include "base/InternalInconsistency.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace tv {
namespace {

const std::string kMissing = "\" - check that it is defined and not inadvertently optimized away";

// The registries are process-wide: every name here carries this test's prefix.
std::shared_ptr<const InterfaceDescriptor> declare(const std::string& name, std::set<std::string, std::less<>> messages = {})
{
    auto& registry = InterfaceDescriptorRegistry::shared();
    if (auto existing = registry.lookUp(name))
        return existing;
    auto d = std::make_shared<InterfaceDescriptor>(name, std::move(messages));
    EXPECT_TRUE(registry.registerDescriptor(d));
    return d;
}

class TvInterfaceSpecTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TypeNameRegistry::shared().registerTypeName("ist.A");
        TypeNameRegistry::shared().registerTypeName("ist.B");
    }
    std::shared_ptr<const InterfaceDescriptor> p_ = declare("ist.P", {"ping"});
};

TEST_F(TvInterfaceSpecTest, TypesRequestAndReplyArguments)
{
    ConnectionInterface iface;
    EXPECT_FALSE(parseInterfaceSpec(iface, "open", std::string("request:1:{ist.A+ist.B},reply:0:ist.P")));
    auto request = iface.argumentTyping("open", MessageDirection::Request, 1);
    ASSERT_TRUE(request);
    EXPECT_EQ(std::get<std::vector<ArgumentType>>(*request), (std::vector<ArgumentType>{{"ist.A", std::nullopt}, {"ist.B", std::nullopt}}));
    auto reply = iface.argumentTyping("open", MessageDirection::Reply, 0);
    ASSERT_TRUE(reply);
    EXPECT_EQ(std::get<std::shared_ptr<ConnectionInterface>>(*reply)->descriptor(), p_);
    EXPECT_FALSE(iface.argumentTyping("open", MessageDirection::Reply, 1));
    EXPECT_FALSE(iface.argumentTyping("close", MessageDirection::Request, 1));

    // Builtin kind names resolve to their kinds; repeated names count once;
    // a position that is not a number reads as 0.
    EXPECT_FALSE(parseInterfaceSpec(iface, "send", std::string("request:x:{string+data+string}")));
    EXPECT_EQ(std::get<std::vector<ArgumentType>>(*iface.argumentTyping("send", MessageDirection::Request, 0)),
              (std::vector<ArgumentType>{{"string", ValueKind::String}, {"data", ValueKind::Data}}));
    EXPECT_EQ(iface.typedArgumentCount(), 3u);
}

TEST_F(TvInterfaceSpecTest, MalformedItemsFailWithCodeSixNamingTheCulprit)
{
    const std::pair<std::string, std::string> cases[] = {
        {"request:1", "request:1"}, // two fields: the whole spec
        {"reply:0:ist.P,request:1:{ist.A}:x", "reply:0:ist.P,request:1:{ist.A}:x"},
        {"Request:0:ist.P", "Request"}, // kinds are case-sensitive
        {"request:0:{ist.A+ist.B", "{ist.A+ist.B"},
        {"request:0:{ist.A+nosuch}", "nosuch"},
        {"request:0:{ist.A+}", ""},
        {"request:0: {ist.A}", " {ist.A}"}, // nothing is trimmed
        {"request:0:ist.NoSuchDescriptor", "ist.NoSuchDescriptor"},
        {"", ""},
    };
    test::LogCapture log;
    for (const auto& [spec, culprit] : cases) {
        ConnectionInterface iface;
        MaybeError error = parseInterfaceSpec(iface, "m", spec);
        ASSERT_TRUE(error) << spec;
        EXPECT_EQ(*error, makeError(6, culprit)) << spec;
    }
    EXPECT_EQ(log.countContaining("\"ist.NoSuchDescriptor\""), 1u); // looked up, and the look-up logged

    // Items before the failing one stay applied; an absent spec succeeds.
    ConnectionInterface iface;
    EXPECT_TRUE(parseInterfaceSpec(iface, "m", std::string("request:2:{ist.A},bogus")));
    EXPECT_FALSE(parseInterfaceSpec(iface, "m", std::nullopt));
    EXPECT_TRUE(iface.argumentTyping("m", MessageDirection::Request, 2));
}

TEST_F(TvInterfaceSpecTest, CompoundIsBuiltOnceAndAdoptsInOrder)
{
    auto q = declare("ist.Q", {"pong"});
    Value names(Array{Value("ist.P"), Value("ist.Q")});
    auto first = compoundInterfaceDescriptor(names);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->name(), "__XX_COMPOUND__ist.P__ist.Q");
    EXPECT_EQ(first->adoptedDescriptors(), (std::vector<std::shared_ptr<const InterfaceDescriptor>>{p_, q}));
    EXPECT_TRUE(first->answersMessage("ping") && first->answersMessage("pong"));
    EXPECT_EQ(compoundInterfaceDescriptor(names), first);
    EXPECT_NE(compoundInterfaceDescriptor(Value(Array{Value("ist.Q"), Value("ist.P")})), first);
    // A single name is a plain look-up; other kinds give nothing and no error.
    EXPECT_EQ(compoundInterfaceDescriptor(Value("ist.P")), p_);
    TvError untouched = makeError(1);
    EXPECT_FALSE(compoundInterfaceDescriptor(Value(5), &untouched));
    EXPECT_EQ(untouched, makeError(1));
}

TEST_F(TvInterfaceSpecTest, CompoundWithMissingComponentFailsAndCanBeRetried)
{
    static int run = 0; // a fresh name each run: the registry outlives a repeated test
    const std::string later = "ist.Later" + std::to_string(++run);
    test::LogCapture log;
    Value names(Array{Value("ist.P"), Value(later)});
    TvError error;
    EXPECT_FALSE(compoundInterfaceDescriptor(names, &error));
    EXPECT_EQ(error, makeError(12, "unable to locate protocol \"" + later + kMissing));
    EXPECT_EQ(log.count(*error.description), 1u); // logged as well
    EXPECT_FALSE(InterfaceDescriptorRegistry::shared().lookUp("__XX_COMPOUND__ist.P__" + later)); // the name is free
    declare(later);
    ASSERT_TRUE(compoundInterfaceDescriptor(names, &error));
    EXPECT_TRUE(compoundInterfaceDescriptor(names)->conformsTo(later));

    // A name pending with another builder is waited for; here it is given up.
    auto& registry = InterfaceDescriptorRegistry::shared();
    auto blocker = registry.allocate("__XX_COMPOUND__ist.Blocked");
    ASSERT_TRUE(blocker);
    declare("ist.Blocked");
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        registry.abandon(*blocker);
    });
    EXPECT_FALSE(compoundInterfaceDescriptor(Value(Array{Value("ist.Blocked")}), &error));
    release.join();
    EXPECT_EQ(error, makeError(12, "unable to create compound protocol"));
}

TEST(InterfaceDescriptorRegistryTest, NamesAreTakenOnceAndDescriptorsFreezeOnRegistration)
{
    InterfaceDescriptorRegistry registry;
    auto a = registry.allocate("A", {"m"});
    ASSERT_TRUE(a);
    EXPECT_FALSE(registry.allocate("A"));
    EXPECT_FALSE(registry.lookUp("A")); // allocated, not registered
    EXPECT_FALSE(registry.registerDescriptor(std::make_shared<InterfaceDescriptor>("A")));
    EXPECT_TRUE(registry.registerDescriptor(a));
    EXPECT_THROW(registry.registerDescriptor(a), TvInternalInconsistency);
    EXPECT_THROW(a->addAdoptedDescriptor(a), TvInternalInconsistency);
    // Only registered descriptors can be adopted, which keeps adoption acyclic.
    auto b = registry.allocate("B");
    EXPECT_THROW(b->addAdoptedDescriptor(std::make_shared<InterfaceDescriptor>("loose")), TvInternalInconsistency);
    b->addAdoptedDescriptor(a);
    EXPECT_TRUE(b->answersMessage("m"));
    b.reset(); // dropping an allocation frees the name
    EXPECT_TRUE(registry.allocate("B"));

    TypeNameRegistry types;
    EXPECT_EQ(types.resolve("dictionary"), (ArgumentType{"dictionary", ValueKind::Dictionary}));
    EXPECT_TRUE(types.registerTypeName("Photo"));
    for (const char* bad : {"Photo", "string", "", "a+b", "{a}", "a,b", "a:b"})
        EXPECT_FALSE(types.registerTypeName(bad)) << bad;
}

} // namespace
} // namespace tv
