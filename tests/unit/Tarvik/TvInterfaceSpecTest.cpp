// Interface specs and compound descriptors have no caller in the daemon yet:
// one test of parsing, of its refusals and of the compound look-up.
#include "Tarvik/TvInterfaceSpec.h"

#include "Tarvik/InterfaceDescriptorRegistry.h"
#include "base/InternalInconsistency.h"

#include <gtest/gtest.h>

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

TEST(TvInterfaceSpecTest, TypesArgumentsRefusesBadItemsAndBuildsCompoundsOnce)
{
    TypeNameRegistry::shared().registerTypeName("ist.A");
    auto p = declare("ist.P", {"ping"}), q = declare("ist.Q", {"pong"});
    ConnectionInterface iface;
    EXPECT_FALSE(parseInterfaceSpec(iface, "open", std::string("request:1:{ist.A+string},reply:0:ist.P")));
    EXPECT_EQ(std::get<std::vector<ArgumentType>>(*iface.argumentTyping("open", MessageDirection::Request, 1)),
              (std::vector<ArgumentType>{{"ist.A", std::nullopt}, {"string", ValueKind::String}}));
    EXPECT_EQ(std::get<std::shared_ptr<ConnectionInterface>>(*iface.argumentTyping("open", MessageDirection::Reply, 0))->descriptor(), p);
    EXPECT_FALSE(iface.argumentTyping("open", MessageDirection::Reply, 1));

    // Code 6 names the culprit: the whole spec when the fields do not count three.
    const std::pair<std::string, std::string> cases[] = {
        {"request:1", "request:1"},
        {"reply:0:ist.P,request:1:{ist.A}:x", "reply:0:ist.P,request:1:{ist.A}:x"},
        {"Request:0:ist.P", "Request"}, // kinds are case-sensitive
        {"request:0:{ist.A+string", "{ist.A+string"},
        {"request:0:{ist.A+nosuch}", "nosuch"},
        {"request:0:{ist.A+}", ""},
        {"request:0: {ist.A}", " {ist.A}"}, // nothing is trimmed
        {"request:0:ist.NoSuchDescriptor", "ist.NoSuchDescriptor"},
        {"", ""},
    };
    for (const auto& [spec, culprit] : cases)
        EXPECT_EQ(parseInterfaceSpec(iface, "m", spec), makeError(6, culprit)) << spec;

    Value names(Array{Value("ist.P"), Value("ist.Q")});
    auto compound = compoundInterfaceDescriptor(names);
    ASSERT_TRUE(compound);
    EXPECT_EQ(compound->name(), "__XX_COMPOUND__ist.P__ist.Q");
    EXPECT_EQ(compound->adoptedDescriptors(), (std::vector<std::shared_ptr<const InterfaceDescriptor>>{p, q}));
    EXPECT_EQ(compoundInterfaceDescriptor(names), compound);
    // A missing component fails and frees the name: once declared, a retry builds it.
    static int run = 0; // a fresh name each run: the registry outlives a repeated test
    const std::string later = "ist.Later" + std::to_string(++run);
    Value withLater(Array{Value("ist.P"), Value(later)});
    TvError error;
    EXPECT_FALSE(compoundInterfaceDescriptor(withLater, &error));
    EXPECT_EQ(error.code, 12);
    declare(later);
    EXPECT_TRUE(compoundInterfaceDescriptor(withLater));

    // A name is taken once; a registered descriptor is frozen.
    InterfaceDescriptorRegistry registry;
    auto a = registry.allocate("A", {"m"});
    ASSERT_TRUE(a);
    EXPECT_FALSE(registry.allocate("A"));
    EXPECT_TRUE(registry.registerDescriptor(a));
    EXPECT_THROW(a->addAdoptedDescriptor(a), TvInternalInconsistency);
}

} // namespace
} // namespace tv
