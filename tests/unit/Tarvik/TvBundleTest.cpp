#include "Tarvik/TvBundle.h"

#include "base/InternalInconsistency.h"
#include "platform/process/LinuxBundleService.h"
#include "tests/support/FakeVlistFiles.h"
#include "tests/support/LogCapture.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace tv {
namespace {

using test::FakeVlistFiles;

class TvBundleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        app_ = files_.makeExampleApplication();
        previous_ = TvBundle::setBundleService(service_);
    }
    void TearDown() override { TvBundle::setBundleService(previous_); }

    FakeVlistFiles files_;
    std::string app_;
    TvBundle::ServicePtr service_ = std::make_shared<platform::LinuxBundleService>(FakeVlistFiles::reader());
    TvBundle::ServicePtr previous_;
};

TEST_F(TvBundleTest, OpensByExecutableOrFallsBackToTheBundleDirectoryWhichStandsInForAMissingExecutable)
{
    auto byExecutable = TvBundle::initWithExecutableURL(Value::fileURL(app_ + "/example"));
    ASSERT_NE(byExecutable, nullptr);
    EXPECT_EQ(byExecutable->path(), app_);
    EXPECT_EQ(byExecutable->executablePath(), app_ + "/example");

    // The bundle directory given as if it were the executable: nothing maps
    // it, so it is opened as a bundle directory.
    auto byDirectory = TvBundle::initWithExecutablePath(app_);
    ASSERT_NE(byDirectory, nullptr);
    EXPECT_EQ(byDirectory->path(), app_);

    files_.writeText("loose", "x", 0755);
    EXPECT_EQ(TvBundle::initWithExecutablePath(files_.path("loose")), nullptr);
    EXPECT_EQ(TvBundle::initWithURL(Value::fileURL(files_.path("loose"))), nullptr);
    EXPECT_EQ(TvBundle::initWithVynBundle(nullptr), nullptr);

    // Without an executable the bundle directory stands in for it.
    const std::string bare = files_.makeDirectory("Bare.vext");
    files_.writeValue("Bare.vext/Info.vlist", Value{{"KbBundleName", Value("Bare")}});
    auto bundle = TvBundle::initWithPath(bare);
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(bundle->stringProperty(TvBundle::StringProperty::ExecutablePath), std::nullopt);
    EXPECT_EQ(bundle->executablePath(), bare);
    EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt);
}

TEST_F(TvBundleTest, UnreadableInformationIsLoggedAndNeverCached)
{
    auto bundle = TvBundle::initWithPath(app_);
    ASSERT_NE(bundle, nullptr);
    test::LogCapture log;

    files_.writeText("Example.app/Info.vlist", "garbage");
    EXPECT_TRUE(bundle->infoDictionary().isNull());
    EXPECT_TRUE(log.contains("failed to retrieve Info.vlist for " + app_ + " through <bundle " + app_ + ">"));

    files_.writeValue("Example.app/Info.vlist", Value(Array{Value("x")}));
    EXPECT_TRUE(bundle->infoDictionary().isNull());
    EXPECT_EQ(log.countContaining("failed to convert Info.vlist to dictionary: " + app_ + " source="), 1u);

    files_.writeValue("Example.app/Info.vlist", Value{{"KbBundleIdentifier", Value("com.example.new")}});
    EXPECT_EQ(bundle->infoDictionary()["KbBundleIdentifier"], Value("com.example.new"));
    EXPECT_EQ(bundle->bundleIdentifier(), "com.example.new");
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(TvBundleTest, MainBundleAndMissingService)
{
    std::filesystem::create_symlink(app_ + "/example", files_.path("self"));
    auto service = std::make_shared<platform::LinuxBundleService>(FakeVlistFiles::reader(), files_.path("self"));
    auto main = TvBundle::initForMainBundle(service);
    ASSERT_NE(main, nullptr);
    EXPECT_EQ(main->path(), app_);

    TvBundle::setBundleService(nullptr);
    EXPECT_THROW(TvBundle::initWithPath(app_), TvInternalInconsistency);
    EXPECT_THROW(main->setVynBundle(nullptr), TvInternalInconsistency);
}

} // namespace
} // namespace tv
