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
        {"com.example.raw", {"public.image"}},
        {"com.example.raw", {"public.archive"}}, // repeated declarations merge
        {"public.archive", {"public.data"}},
        {"", {"public.item"}}, {"com.example.blank", {""}}, // empty names are dropped
    });
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"public.jpeg", "public.jpeg", true}, {"public.jpeg", "public.image", true},
        {"public.jpeg", "public.item", true},        // three steps up
        {"public.jpeg", "public.content", true},     // second parent of a parent
        {"com.example.raw", "public.item", true},    // reached along two paths
        {"com.example.raw", "public.archive", true}, {"com.example.raw", "public.image", true}, // both declarations
        {"public.image", "public.jpeg", false},      // not downwards
        {"public.jpeg", "public.archive", false},    // a sibling's parent
        {"public.item", "public.item", true},        // named only as a parent
        {"com.undeclared", "com.undeclared", true},  // reflexive without a declaration
        {"com.undeclared", "public.item", false}, {"public.jpeg", "com.undeclared", false},
        {"PUBLIC.JPEG", "public.image", false},      // exact, case-sensitive
        {"", "", false},                             // the empty identifier is no type
        {"public.jpeg", "", false}, {"", "public.jpeg", false}, {"", "public.item", false},
        {"com.example.blank", "", false},
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

} // namespace
} // namespace tv::platform
