#include "Tarvik/TvInterfaceSpec.h"

#include "Tarvik/InterfaceDescriptorRegistry.h"
#include "base/InternalInconsistency.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tv {
namespace {

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
        p_ = declare("ist.P", {"ping"});
    }
    std::shared_ptr<const InterfaceDescriptor> p_;
};

TEST_F(TvInterfaceSpecTest, TypesRequestAndReplyArguments)
{
    ConnectionInterface iface;
    EXPECT_FALSE(parseInterfaceSpec(iface, "open", std::string("request:1:{ist.A+ist.B},reply:0:ist.P")));

    auto request = iface.argumentTyping("open", MessageDirection::Request, 1);
    ASSERT_TRUE(request);
    auto* types = std::get_if<std::vector<ArgumentType>>(&*request);
    ASSERT_TRUE(types);
    EXPECT_EQ(*types, (std::vector<ArgumentType>{{"ist.A", std::nullopt}, {"ist.B", std::nullopt}}));

    auto reply = iface.argumentTyping("open", MessageDirection::Reply, 0);
    ASSERT_TRUE(reply);
    auto* nested = std::get_if<std::shared_ptr<ConnectionInterface>>(&*reply);
    ASSERT_TRUE(nested && *nested);
    EXPECT_EQ((*nested)->descriptor(), p_);

    EXPECT_FALSE(iface.argumentTyping("open", MessageDirection::Reply, 1));
    EXPECT_FALSE(iface.argumentTyping("open", MessageDirection::Request, 0));
    EXPECT_FALSE(iface.argumentTyping("close", MessageDirection::Request, 1));
    EXPECT_EQ(iface.typedArgumentCount(), 2u);

    // Builtin kind names resolve to their kinds; repeated names count once;
    // a position that is not a number reads as 0.
    EXPECT_FALSE(parseInterfaceSpec(iface, "send", std::string("request:x:{string+data+string}")));
    auto send = iface.argumentTyping("send", MessageDirection::Request, 0);
    ASSERT_TRUE(send);
    EXPECT_EQ(std::get<std::vector<ArgumentType>>(*send),
              (std::vector<ArgumentType>{{"string", ValueKind::String}, {"data", ValueKind::Data}}));
}

TEST_F(TvInterfaceSpecTest, MalformedItemsFailWithCodeSixNamingTheCulprit)
{
    struct Case {
        std::string spec;
        std::string description;
    } cases[] = {
        {"request:1", "request:1"},                           // two fields: the whole spec
        {"reply:0:ist.P,request:1:{ist.A}:x", "reply:0:ist.P,request:1:{ist.A}:x"},
        {"answer:0:ist.P", "answer"},                         // bad kind
        {"Request:0:ist.P", "Request"},                       // kinds are case-sensitive
        {"request:0:{ist.A+ist.B", "{ist.A+ist.B"},           // unclosed brace
        {"request:0:{", "{"},
        {"request:0:{ist.A+nosuch}", "nosuch"},               // unknown type name
        {"request:0:{ist.A+}", ""},                           // empty type name
        {"request:0: {ist.A}", " {ist.A}"},                   // nothing is trimmed
        {"request:0:", ""},                                   // empty type
        {"request:0:ist.NoSuchDescriptor", "ist.NoSuchDescriptor"},
        {"", ""},                                             // one empty item: the whole (empty) spec
    };
    test::LogCapture log;
    for (const auto& c : cases) {
        ConnectionInterface iface;
        MaybeError error = parseInterfaceSpec(iface, "m", c.spec);
        ASSERT_TRUE(error) << c.spec;
        EXPECT_EQ(error->domain, "Tarvik");
        EXPECT_EQ(error->code, 6) << c.spec;
        EXPECT_EQ(error->description, c.description) << c.spec;
    }
    // The unknown descriptor was looked up, and the look-up logged.
    EXPECT_EQ(log.countContaining("\"ist.NoSuchDescriptor\""), 1u);

    // Items before the failing one stay applied; an absent spec succeeds.
    ConnectionInterface iface;
    EXPECT_TRUE(parseInterfaceSpec(iface, "m", std::string("request:2:{ist.A},bogus")));
    EXPECT_TRUE(iface.argumentTyping("m", MessageDirection::Request, 2));
    EXPECT_FALSE(parseInterfaceSpec(iface, "m", std::nullopt));
    EXPECT_EQ(iface.typedArgumentCount(), 1u);
}

TEST_F(TvInterfaceSpecTest, UnknownDescriptorIsCodeTwelveAndAlwaysLogged)
{
    const std::string text = "unable to locate protocol \"ist.Missing\" - check that it is defined and not "
                             "inadvertently optimized away";
    test::LogCapture log;
    EXPECT_FALSE(lookUpInterfaceDescriptor("ist.Missing"));
    auto line = log.find(text);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, platform::LogLevel::Default);
    EXPECT_EQ(line->category, "ops");

    TvError error = makeError(99, "untouched");
    EXPECT_FALSE(lookUpInterfaceDescriptor("ist.Missing", &error));
    EXPECT_EQ(error, makeError(12, text));
    EXPECT_EQ(log.count(text), 2u);

    TvError kept = makeError(99, "untouched");
    EXPECT_EQ(lookUpInterfaceDescriptor("ist.P", &kept), p_);
    EXPECT_EQ(kept, makeError(99, "untouched"));
}

TEST_F(TvInterfaceSpecTest, CompoundIsBuiltOnceAndAdoptsInOrder)
{
    auto q = declare("ist.Q", {"pong"});
    Value names(Array{Value("ist.P"), Value("ist.Q")});
    TvError error;
    auto first = compoundInterfaceDescriptor(names, &error);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->name(), "__XX_COMPOUND__ist.P__ist.Q");
    ASSERT_EQ(first->adoptedDescriptors().size(), 2u);
    EXPECT_EQ(first->adoptedDescriptors()[0], p_);
    EXPECT_EQ(first->adoptedDescriptors()[1], q);
    EXPECT_TRUE(first->answersMessage("ping") && first->answersMessage("pong"));
    EXPECT_TRUE(first->conformsTo("ist.Q"));
    EXPECT_EQ(compoundInterfaceDescriptor(names), first);
    EXPECT_EQ(InterfaceDescriptorRegistry::shared().lookUp(first->name()), first);

    auto reversed = compoundInterfaceDescriptor(Value(Array{Value("ist.Q"), Value("ist.P")}));
    ASSERT_TRUE(reversed);
    EXPECT_NE(reversed, first);

    // A single name is a plain look-up; other kinds give nothing and no error.
    EXPECT_EQ(compoundInterfaceDescriptor(Value("ist.P")), p_);
    TvError untouched = makeError(1);
    EXPECT_FALSE(compoundInterfaceDescriptor(Value(5), &untouched));
    EXPECT_FALSE(compoundInterfaceDescriptor(Value(), &untouched));
    EXPECT_EQ(untouched, makeError(1));
}

TEST_F(TvInterfaceSpecTest, CompoundWithMissingComponentFailsAndCanBeRetried)
{
    // A fresh name each run: the registry outlives a repeated test.
    static int run = 0;
    const std::string later = "ist.Later" + std::to_string(++run);
    test::LogCapture log;
    Value names(Array{Value("ist.P"), Value(later)});
    TvError error;
    EXPECT_FALSE(compoundInterfaceDescriptor(names, &error));
    EXPECT_EQ(error.code, 12);
    EXPECT_EQ(error.description, "unable to locate protocol \"" + later +
                                     "\" - check that it is defined and not inadvertently optimized away");
    // The dropped compound left its name free.
    EXPECT_FALSE(InterfaceDescriptorRegistry::shared().lookUp("__XX_COMPOUND__ist.P__" + later));

    declare(later);
    auto built = compoundInterfaceDescriptor(names, &error);
    ASSERT_TRUE(built);
    EXPECT_TRUE(built->conformsTo(later));

    TvError nonString;
    EXPECT_FALSE(compoundInterfaceDescriptor(Value(Array{Value("ist.P"), Value(7)}), &nonString));
    EXPECT_EQ(nonString.code, 12);
}

TEST_F(TvInterfaceSpecTest, CompoundNameTakenByNothingRegisteredFails)
{
    auto& registry = InterfaceDescriptorRegistry::shared();
    auto blocker = registry.allocate("__XX_COMPOUND__ist.Blocked");
    ASSERT_TRUE(blocker);
    declare("ist.Blocked");
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        registry.abandon(*blocker);
    });
    // Waits for the pending name, which is then given up.
    TvError error;
    EXPECT_FALSE(compoundInterfaceDescriptor(Value(Array{Value("ist.Blocked")}), &error));
    release.join();
    EXPECT_EQ(error, makeError(12, "unable to create compound protocol"));
}

TEST_F(TvInterfaceSpecTest, ConcurrentBuildersShareOneCompound)
{
    declare("ist.C1");
    declare("ist.C2");
    Value names(Array{Value("ist.C1"), Value("ist.C2")});
    constexpr int kThreads = 8;
    std::vector<std::shared_ptr<const InterfaceDescriptor>> results(kThreads);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] {
            while (!go.load())
                std::this_thread::yield();
            TvError error;
            results[i] = compoundInterfaceDescriptor(names, &error);
        });
    go = true;
    for (auto& t : threads)
        t.join();
    for (const auto& r : results) {
        ASSERT_TRUE(r);
        EXPECT_EQ(r, results[0]);
    }
    EXPECT_EQ(results[0]->adoptedDescriptors().size(), 2u);
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
    EXPECT_EQ(registry.lookUp("A"), a);
    EXPECT_THROW(registry.registerDescriptor(a), TvInternalInconsistency);
    EXPECT_THROW(a->addAdoptedDescriptor(a), TvInternalInconsistency);

    // Only registered descriptors can be adopted, which keeps adoption acyclic.
    auto b = registry.allocate("B");
    EXPECT_THROW(b->addAdoptedDescriptor(std::make_shared<InterfaceDescriptor>("loose")), TvInternalInconsistency);
    b->addAdoptedDescriptor(a);
    EXPECT_TRUE(b->answersMessage("m"));
    EXPECT_FALSE(b->answersMessage("n"));

    // Dropping an allocation without registering frees the name.
    b.reset();
    EXPECT_TRUE(registry.allocate("B"));
}

TEST(TypeNameRegistryTest, KnowsValueKindsAndRefusesUnwritableNames)
{
    TypeNameRegistry types;
    EXPECT_EQ(types.resolve("dictionary"), (ArgumentType{"dictionary", ValueKind::Dictionary}));
    EXPECT_FALSE(types.resolve("Dictionary"));
    EXPECT_TRUE(types.registerTypeName("Photo"));
    EXPECT_FALSE(types.registerTypeName("Photo"));
    EXPECT_FALSE(types.registerTypeName("string"));
    for (const char* bad : {"", "a+b", "{a}", "a,b", "a:b"})
        EXPECT_FALSE(types.registerTypeName(bad)) << bad;
    EXPECT_EQ(types.resolve("Photo"), (ArgumentType{"Photo", std::nullopt}));
}

} // namespace
} // namespace tv
