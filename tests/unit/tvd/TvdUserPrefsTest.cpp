#include "tvd/TvdUserPrefs.h"

#include "platform/formats/Vlist.h"
#include "platform/preferences/LinuxPreferencesService.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <fstream>

namespace tv {
namespace {

class TvdUserPrefsTest : public ::testing::Test {
protected:
    void write(const Value& domain)
    {
        // As another process would: its own service, an atomic replacement.
        platform::LinuxPreferencesService writer(dir.path());
        ASSERT_FALSE(platform::writeVlistFileAtomically(writer.pathForDomain(TvdUserPrefs::kDomain), domain));
    }

    test::TempDir dir;
    test::LogCapture log;
    std::shared_ptr<TvdUserPrefs> prefs =
        TvdUserPrefs::init(std::make_shared<platform::LinuxPreferencesService>(dir.path()));
};

TEST_F(TvdUserPrefsTest, ExclusionsWrittenByAnotherProcessAreSeenAtTheNextRead)
{
    ASSERT_TRUE(prefs);
    EXPECT_FALSE(prefs->exclusions()) << "not set: nothing is excluded";
    const Array rules{Value{{"KoExtensionPointIdentifier", "com.example.share"}}};
    write(Value{{"exclusions", Value(rules)}, {"other", 1}});
    ASSERT_TRUE(prefs->exclusions());
    EXPECT_EQ(Value(*prefs->exclusions()), Value(rules));
    write(Value{{"other", 1}});
    EXPECT_FALSE(prefs->exclusions()) << "removed again";
    EXPECT_EQ(log.lines().size(), 0u);
}

TEST_F(TvdUserPrefsTest, UnusableValuesOrFilesMeanNoExclusionAndAreLoggedOnce)
{
    auto doc = [](const Value& v) { return *platform::serializeVlist(v); };
    const std::pair<const char*, std::string> cases[] = {
        {"a string", doc(Value{{"exclusions", "everything"}})},
        {"a dictionary", doc(Value{{"exclusions", Value{{"KoExtensionPointIdentifier", "x"}}}})},
        {"a list with a non-dictionary", doc(Value{{"exclusions", Value(Array{Value{{"a", "b"}}, Value(1)})}})},
        {"an unparseable file", "<vlist"},
        {"a root that is not a dictionary", doc(Value(Array{}))},
    };
    platform::LinuxPreferencesService paths(dir.path());
    for (const auto& [name, fileText] : cases) {
        SCOPED_TRACE(name);
        write(Value{{"exclusions", Value(Array{Value{{"a", "b"}}})}});
        ASSERT_TRUE(prefs->exclusions());
        std::ofstream(paths.pathForDomain(TvdUserPrefs::kDomain), std::ios::trunc) << fileText;
        log.clear();
        EXPECT_FALSE(prefs->exclusions());
        EXPECT_FALSE(prefs->exclusions());
        EXPECT_EQ(log.countContaining("ignoring the preferences of com.veltra.tarvik.userprefs"), 1u);
    }
}

} // namespace
} // namespace tv
