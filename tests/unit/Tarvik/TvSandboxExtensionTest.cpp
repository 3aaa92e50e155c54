#include "Tarvik/TvSandboxExtension.h"

#include "platform/security/LinuxSandboxService.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

// consume() and expel() each act once per state change, and the holder
// releases its grant when it goes.
TEST(TvSandboxExtensionTest, ConsumesOnceExpelsOnceAndReleasesWhenDestroyed)
{
    test::TempDir dir;
    auto sandbox = std::make_shared<platform::LinuxSandboxService>(dir.path() + "/run");
    auto token = sandbox->issueFileExtension(platform::kSandboxExtensionClassAppReadOnly, dir.path(),
                                             platform::kSandboxExtensionCanonical);
    ASSERT_TRUE(token.ok());

    std::int64_t handle = 0;
    {
        TvSandboxExtension extension(*token, sandbox);
        EXPECT_EQ(extension.token(), *token);
        EXPECT_EQ(extension.handle(), 0);
        extension.consume();
        handle = extension.handle();
        EXPECT_GT(handle, 0);
        extension.consume(); // already consumed: the same grant
        EXPECT_EQ(extension.handle(), handle);
        extension.expel();
        EXPECT_EQ(extension.handle(), 0);
        EXPECT_TRUE(sandbox->releaseExtension(handle)) << "expel released the grant";
        extension.consume();
        handle = extension.handle();
        EXPECT_GT(handle, 0);
    }
    EXPECT_TRUE(sandbox->releaseExtension(handle)) << "destroying the holder released the grant";

    TvSandboxExtension forged("not a token", sandbox);
    forged.consume();
    EXPECT_EQ(forged.handle(), 0);
}

} // namespace
} // namespace tv
