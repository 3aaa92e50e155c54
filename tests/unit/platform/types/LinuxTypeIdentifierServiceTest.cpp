#include "platform/types/LinuxTypeIdentifierService.h"
#include "tests/support/FakeVlistFiles.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace tv::platform {
namespace {

Value declarations(std::initializer_list<Value> entries) { return Value{{"TypeDeclarations", Value(Array(entries))}}; }
Value declare(const char* identifier, Value conformsTo = Value())
{
    return Value{{"TypeIdentifier", identifier}, {"ConformsTo", conformsTo}};
}

class LinuxTypeIdentifierServiceTest : public ::testing::Test {
protected:
    test::FakeVlistFiles files_;
    std::string dir_ = files_.makeDirectory("Types");
    test::LogCapture log_;
};

TEST_F(LinuxTypeIdentifierServiceTest, ReadsEveryDeclarationFileAndRebuildsOnlyAfterAChange)
{
    files_.writeValue("Types/images.vlist", declarations({declare("public.image", "public.data"),
                                                          declare("public.jpeg", Value(Array{"public.image"}))}));
    files_.writeValue("Types/data.vlist", declarations({declare("public.data", "public.item")}));
    files_.writeValue("Types/.hidden.vlist", declarations({declare("public.jpeg", "com.hidden")}));
    files_.writeValue("Types/notes.txt", declarations({declare("public.jpeg", "com.txt")}));
    LinuxTypeIdentifierService service(dir_, test::FakeVlistFiles::reader());

    EXPECT_TRUE(service.conformsTo("public.jpeg", "public.item"));
    EXPECT_FALSE(service.conformsTo("public.jpeg", "com.hidden"));
    EXPECT_FALSE(service.conformsTo("public.jpeg", "com.txt"));
    for (int i = 0; i < 100; ++i)
        service.conformsTo("public.jpeg", "public.data");
    EXPECT_EQ(service.buildCount(), 1u);

    files_.writeValue("Types/movies.vlist", declarations({declare("public.movie", "public.data")}));
    EXPECT_TRUE(service.conformsTo("public.movie", "public.item"));
    EXPECT_EQ(service.buildCount(), 2u);

    std::remove(files_.path("Types/data.vlist").c_str());
    EXPECT_FALSE(service.conformsTo("public.jpeg", "public.item"));
    EXPECT_TRUE(service.conformsTo("public.jpeg", "public.data"));

    // A directory that appears later is read; missing, it is no error.
    LinuxTypeIdentifierService later(files_.path("Later"), test::FakeVlistFiles::reader());
    EXPECT_FALSE(later.conformsTo("a", "b"));
    files_.writeValue("Later/t.vlist", declarations({declare("a", "b")}));
    EXPECT_TRUE(later.conformsTo("a", "b"));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(LinuxTypeIdentifierServiceTest, BadFilesDeclarationsAndCyclesAreLogged)
{
    files_.writeText("Types/broken.vlist", "not a value");
    files_.writeValue("Types/array.vlist", Value(Array{declare("x", "y")}));
    files_.writeValue("Types/mixed.vlist",
                      declarations({Value("just a string"), declare(""), declare("n", 7),
                                    declare("m", Value(Array{Value(1), "good"})), declare("ok", "fine")}));
    LinuxTypeIdentifierService service(dir_, test::FakeVlistFiles::reader());

    EXPECT_TRUE(service.conformsTo("ok", "fine"));
    EXPECT_TRUE(service.conformsTo("m", "good"));
    EXPECT_TRUE(service.conformsTo("n", "n"));
    EXPECT_FALSE(service.conformsTo("x", "y"));
    for (const std::string& text : {"cannot read type file " + files_.path("Types/broken.vlist"),
                                    std::string("array.vlist has no TypeDeclarations array"),
                                    std::string("declaration 1 has no TypeIdentifier string"),
                                    std::string("declaration 2 has no TypeIdentifier string"),
                                    std::string("ConformsTo of n is neither a string nor an array"),
                                    std::string("m conforms to a non-string")})
        EXPECT_EQ(log_.countContaining(text), 1u) << text;

    // A cycle is logged once per rebuild.
    files_.writeValue("Types/cycle.vlist", declarations({declare("a", "b"), declare("b", "a")}));
    EXPECT_TRUE(service.conformsTo("a", "b"));
    EXPECT_TRUE(service.conformsTo("b", "a"));
    EXPECT_EQ(log_.countContaining("form a cycle through 2 types (a, b)"), 1u);
}

TEST(LinuxTypeIdentifierServiceExampleTest, TheExamplePlatformsTypesReadCleanly)
{
    test::LogCapture log;
    LinuxTypeIdentifierService service(std::string(TVD_SOURCE_DIR) + "/examples/platform/System/Library/Types");
    EXPECT_TRUE(service.conformsTo("public.jpeg", "public.item"));
    EXPECT_TRUE(service.conformsTo("public.url", "public.data"));
    EXPECT_FALSE(service.conformsTo("public.url", "public.content"));
    EXPECT_TRUE(log.lines().empty());
}

} // namespace
} // namespace tv::platform
