#include "platform/types/TypeConformanceTable.h"

#include <gtest/gtest.h>

namespace tv::platform {
namespace {

TEST(TypeConformanceTableTest, ConformanceIsReflexiveTransitiveAndDirected)
{
    TypeConformanceTable table({
        {"public.data", {"public.item"}},
        {"public.image", {"public.data", "public.content"}},
        {"public.jpeg", {"public.image"}},
        {"com.example.raw", {"public.image", "public.archive"}},
        {"public.archive", {"public.data"}},
    });
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"public.jpeg", "public.jpeg", true}, {"public.jpeg", "public.image", true},
        {"public.jpeg", "public.item", true},        // three steps up
        {"public.jpeg", "public.content", true},     // second parent of a parent
        {"com.example.raw", "public.item", true},    // reached along two paths
        {"public.image", "public.jpeg", false},      // not downwards
        {"public.jpeg", "public.archive", false},    // a sibling's parent
        {"public.item", "public.item", true},        // named only as a parent
        {"com.undeclared", "com.undeclared", true},  // reflexive without a declaration
        {"com.undeclared", "public.item", false}, {"public.jpeg", "com.undeclared", false},
        {"PUBLIC.JPEG", "public.image", false},      // exact, case-sensitive
        {"", "", false},                             // the empty identifier is no type
        {"public.jpeg", "", false}, {"", "public.jpeg", false},
    };
    for (const auto& [type, other, conforms] : cases)
        EXPECT_EQ(table.conformsTo(type, other), conforms) << type << " -> " << other;
    EXPECT_TRUE(table.cycleMembers().empty());
}

TEST(TypeConformanceTableTest, CyclesAreToleratedAndReported)
{
    TypeConformanceTable table({{"a", {"b"}}, {"b", {"c"}}, {"c", {"a", "top"}}, {"self", {"self"}}, {"below", {"a"}}});
    EXPECT_TRUE(table.conformsTo("a", "c"));
    EXPECT_TRUE(table.conformsTo("c", "b"));
    EXPECT_TRUE(table.conformsTo("a", "top"));
    EXPECT_TRUE(table.conformsTo("below", "c"));
    EXPECT_FALSE(table.conformsTo("a", "below"));
    EXPECT_EQ(table.cycleMembers(), (std::vector<std::string>{"a", "b", "c", "self"}));
}

TEST(TypeConformanceTableTest, RepeatedDeclarationsMergeTheirParents)
{
    TypeConformanceTable table({{"t", {"p"}}, {"t", {"q"}}, {"", {"x"}}, {"u", {""}}});
    EXPECT_TRUE(table.conformsTo("t", "p"));
    EXPECT_TRUE(table.conformsTo("t", "q"));
    EXPECT_FALSE(table.conformsTo("u", ""));
    EXPECT_EQ(table.typeCount(), 4u); // t, p, q, u: empty names are dropped
}

TEST(TypeConformanceTableTest, LongChainsCostNoNativeStack)
{
    std::vector<TypeDeclaration> chain;
    for (int i = 0; i < 2000; ++i)
        chain.push_back({"t" + std::to_string(i), {"t" + std::to_string(i + 1)}});
    TypeConformanceTable table(chain);
    EXPECT_TRUE(table.conformsTo("t0", "t2000"));
    EXPECT_FALSE(table.conformsTo("t2000", "t0"));
}

} // namespace
} // namespace tv::platform
