#include "tvd/TvdCommandLine.h"

#include <gtest/gtest.h>

#include <vector>

namespace tv {
namespace {

std::optional<TvdCommandLine> parse(std::vector<std::string> args)
{
    args.insert(args.begin(), "tvd");
    std::vector<char*> argv;
    for (auto& s : args)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    return TvdCommandLine::parse(static_cast<int>(args.size()), argv.data());
}

// Usage errors and -v are checked against the real binary.
TEST(TvdCommandLineTest, DefaultsLaterOptionsWinAndTheCacheLimitConvertsLikeAtoi)
{
    auto d = parse({});
    ASSERT_TRUE(d);
    EXPECT_EQ(std::tuple(d->serviceName, d->cacheLimit, d->databaseLocation, d->verbose),
              std::tuple("com.veltra.tarvik.tvd", 1000000u, std::nullopt, 0u));
    auto l = parse({"-S", "one", "-c", "5", "-d", "/tmp/db", "-c", "7", "-S", "two"});
    ASSERT_TRUE(l);
    EXPECT_EQ(std::tuple(l->serviceName, l->cacheLimit, l->databaseLocation), std::tuple("two", 7u, "/tmp/db"));
    for (auto [text, limit] : {std::pair{"abc", 0u}, {"12abc", 12u}, {"  42", 42u}})
        EXPECT_EQ(parse({"-c", text})->cacheLimit, limit) << text;
}

} // namespace
} // namespace tv
