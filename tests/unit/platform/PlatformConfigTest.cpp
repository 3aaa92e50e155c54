#include "platform/PlatformConfig.h"

#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tv::platform {
namespace {

TEST(PlatformConfigTest, ConnectionCapsFitTheDescriptorBudget)
{
    const std::tuple<std::uint64_t, std::size_t, std::size_t> cases[] = { // descriptors, caps in all and per uid
        {1024, 448, 56},         // the usual soft limit: (1024 - 128) / 2
        {4096, 1984, 248},       // just short of 2048 in all
        {4224, 2048, 256},       // enough: the configured caps stand
        {1048576, 2048, 256},
        {100, 1, 1},             // below the reserve: still one
    };
    for (const auto& [descriptors, total, perUid] : cases) {
        VynLimits fitted = VynLimits{}.fittedToDescriptors(descriptors);
        EXPECT_EQ(std::tuple(fitted.maxConnections, fitted.maxConnectionsPerUid), std::tuple(total, perUid)) << descriptors;
    }
    // A per-uid cap configured above an eighth is kept while nothing is cut.
    VynLimits generous;
    generous.maxConnectionsPerUid = 2048;
    EXPECT_EQ(generous.fittedToDescriptors(1048576).maxConnectionsPerUid, 2048u);
}

TEST(PlatformConfigTest, RuntimeFallbackMustBeAPrivateDirectoryOfOurs)
{
    test::TempDir dir;
    const std::tuple<const char*, std::function<void(const std::string&)>, bool> cases[] = { // accepted
        {"missing: made 0700", [](const std::string&) {}, true},
        {"ours, 0700", [](const std::string& p) { ::mkdir(p.c_str(), 0700); }, true},
        {"ours, 0755", [](const std::string& p) { ::mkdir(p.c_str(), 0700), ::chmod(p.c_str(), 0755); }, false},
        {"ours, 1777", [](const std::string& p) { ::mkdir(p.c_str(), 0700), ::chmod(p.c_str(), 01777); }, false},
        {"link to ours", [&](const std::string& p) {
             ::mkdir(dir.file("target").c_str(), 0700);
             ::symlink(dir.file("target").c_str(), p.c_str());
         }, false},
        {"a file", [](const std::string& p) { ::close(::creat(p.c_str(), 0700)); }, false},
    };
    int n = 0;
    for (const auto& [name, prepare, accepted] : cases) {
        std::string path = dir.file("runtime" + std::to_string(n++));
        prepare(path);
        EXPECT_EQ(!PlatformConfig::ensurePrivateDirectory(path), accepted) << name;
        struct stat st{};
        EXPECT_TRUE(!accepted || (::lstat(path.c_str(), &st) == 0 && (st.st_mode & 07777) == 0700)) << name;
    }
    // Another user's directory, where this test may give one away.
    if (::geteuid() == 0) {
        std::string foreign = dir.file("foreign");
        ::mkdir(foreign.c_str(), 0700);
        ASSERT_EQ(::chown(foreign.c_str(), 4242, 4242), 0);
        auto err = PlatformConfig::ensurePrivateDirectory(foreign);
        ASSERT_TRUE(err);
        EXPECT_NE(err->description->find("owner 4242"), std::string::npos);
    }
}

// The system instance runs as its own user and says so in its file; any
// other value than 0 or 1 is a typo and refused.
TEST(PlatformConfigTest, MultiUserDefaultsToNotRootAndTheFileDecides)
{
    EXPECT_EQ(PlatformConfig::defaults().multiUser, ::geteuid() != 0);
    for (auto [text, expected] : {std::pair{"multi_user = 0", 0}, {"multi_user = 1", 1}, {"multi_user = yes", -1}}) {
        auto c = PlatformConfig::parse(text, "/");
        ASSERT_EQ(c.ok(), expected >= 0) << text;
        if (c) {
            EXPECT_EQ(c->multiUser, expected == 1) << text;
        }
    }
}

} // namespace
} // namespace tv::platform
