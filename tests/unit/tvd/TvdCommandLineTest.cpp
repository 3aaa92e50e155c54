#include "tvd/TvdCommandLine.h"

#include <gtest/gtest.h>

#include <vector>

namespace tv {
namespace {

std::optional<TvdCommandLine> parse(std::initializer_list<const char*> args)
{
    std::vector<std::string> storage{"tvd"};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : storage)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    return TvdCommandLine::parse(static_cast<int>(storage.size()), argv.data());
}

TEST(TvdCommandLineTest, DefaultsLaterOptionsWinAndTheCacheLimitConvertsLikeAtoi)
{
    auto d = parse({});
    ASSERT_TRUE(d);
    EXPECT_EQ(d->serviceName, "com.veltra.tarvik.tvd");
    EXPECT_EQ(d->cacheLimit, 1000000u);
    EXPECT_FALSE(d->databaseLocation);
    EXPECT_EQ(d->verbose, 0u); // usage errors and -v are checked against the real binary

    auto l = parse({"-S", "one", "-c", "5", "-d", "/tmp/db", "-c", "7", "-S", "two"});
    ASSERT_TRUE(l);
    EXPECT_EQ(l->serviceName, "two");
    EXPECT_EQ(l->cacheLimit, 7u);
    EXPECT_EQ(l->databaseLocation, "/tmp/db");
    // The cache limit converts like atoi.
    EXPECT_EQ(parse({"-c", "abc"})->cacheLimit, 0u);
    EXPECT_EQ(parse({"-c", "12abc"})->cacheLimit, 12u);
    EXPECT_EQ(parse({"-c", "  42"})->cacheLimit, 42u);
}

} // namespace
} // namespace tv
