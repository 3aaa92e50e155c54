#include "Tarvik/TvBundle.h"

#include "Tarvik/base/InternalInconsistency.h"
#include "platform/LinuxBundleService.h"
#include "tests/support/FakeVlistFiles.h"
#include "tests/support/LogCapture.h"

#include <atomic>
#include <filesystem>
#include <gtest/gtest.h>
#include <thread>

namespace tv {
namespace {

using test::FakeVlistFiles;

// The real service over fake vlist files, counting support-directory
// requests; optionally answering opens by executable with a handle that
// names no bundle, as some services do.
class CountingBundleService final : public platform::BundleService {
public:
    explicit CountingBundleService(bool unmappedHandles = false)
        : inner_(FakeVlistFiles::reader()), unmappedHandles_(unmappedHandles)
    {
    }

    std::atomic<int> supportRequests{0};

    std::shared_ptr<platform::BundleHandle> openBundleDirectory(const std::string& path) override
    {
        return inner_.openBundleDirectory(path);
    }
    std::shared_ptr<platform::BundleHandle> openBundleWithExecutable(const std::string& path) override
    {
        if (auto handle = inner_.openBundleWithExecutable(path))
            return handle;
        return unmappedHandles_ ? std::make_shared<Unmapped>() : nullptr;
    }
    std::shared_ptr<platform::BundleHandle> openMainBundle() override { return inner_.openMainBundle(); }
    std::optional<std::string> bundlePath(const platform::BundleHandle& b) override { return inner_.bundlePath(b); }
    std::optional<std::string> executablePath(const platform::BundleHandle& b) override
    {
        return inner_.executablePath(b);
    }
    std::optional<std::string> supportDirectory(const platform::BundleHandle& b) override
    {
        ++supportRequests;
        return inner_.supportDirectory(b);
    }
    Value infoDictionary(const platform::BundleHandle& b) override { return inner_.infoDictionary(b); }
    std::optional<std::string> bundleIdentifier(const platform::BundleHandle& b) override
    {
        return inner_.bundleIdentifier(b);
    }

private:
    struct Unmapped final : platform::BundleHandle {
        std::string description() const override { return "<unmapped>"; }
    };
    platform::LinuxBundleService inner_;
    bool unmappedHandles_;
};

class TvBundleTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        app_ = files_.makeDirectory("Example.app");
        files_.writeValue("Example.app/Info.vlist", Value{{"KbBundleIdentifier", Value("com.example.app")},
                                                          {"KbBundleExecutable", Value("example")}});
        files_.writeText("Example.app/example", "x", 0755);
        previous_ = TvBundle::setBundleService(service_);
    }
    void TearDown() override { TvBundle::setBundleService(previous_); }

    FakeVlistFiles files_;
    std::string app_;
    std::shared_ptr<CountingBundleService> service_ = std::make_shared<CountingBundleService>();
    TvBundle::ServicePtr previous_;
};

TEST_F(TvBundleTest, OpensByExecutableOrFallsBackToTheBundleDirectory)
{
    auto byExecutable = TvBundle::initWithExecutableURL(Value::fileURL(app_ + "/example"));
    ASSERT_NE(byExecutable, nullptr);
    EXPECT_EQ(byExecutable->path(), app_);
    EXPECT_EQ(byExecutable->executablePath(), app_ + "/example");
    EXPECT_EQ(byExecutable->url(), Value::fileURL(app_));

    // The bundle directory given as if it were the executable: nothing maps
    // it, so it is opened as a bundle directory.
    auto byDirectory = TvBundle::initWithExecutablePath(app_);
    ASSERT_NE(byDirectory, nullptr);
    EXPECT_EQ(byDirectory->path(), app_);

    // Likewise when the service answers with a handle that names no bundle.
    auto unmapping = std::make_shared<CountingBundleService>(true);
    auto viaUnmapped = TvBundle::initWithExecutablePath(app_, unmapping);
    ASSERT_NE(viaUnmapped, nullptr);
    EXPECT_EQ(viaUnmapped->path(), app_);
    EXPECT_EQ(TvBundle::initWithExecutablePath(files_.path("nothing-here"), unmapping), nullptr);

    files_.writeText("loose", "x", 0755);
    EXPECT_EQ(TvBundle::initWithExecutablePath(files_.path("loose")), nullptr);
    EXPECT_EQ(TvBundle::initWithURL(Value::fileURL(files_.path("loose"))), nullptr);
    EXPECT_EQ(TvBundle::initWithVynBundle(nullptr), nullptr);
}

TEST_F(TvBundleTest, BundleWithoutExecutableOrIdentifier)
{
    const std::string bare = files_.makeDirectory("Bare.vext");
    files_.writeValue("Bare.vext/Info.vlist", Value{{"KbBundleName", Value("Bare")}});
    auto bundle = TvBundle::initWithPath(bare);
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(bundle->stringProperty(TvBundle::StringProperty::ExecutablePath), std::nullopt);
    EXPECT_EQ(bundle->executablePath(), bare);
    EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt);
    EXPECT_EQ(bundle->plugInsPath(), bare + "/PlugIns");
    EXPECT_EQ(bundle->bundleDirectory("Resources"), bare + "/Resources");

    auto app = TvBundle::initWithPath(app_);
    ASSERT_NE(app, nullptr);
    EXPECT_EQ(app->bundleIdentifier(), "com.example.app");
    EXPECT_EQ(app->infoDictionary()["KbBundleExecutable"], Value("example"));
}

TEST_F(TvBundleTest, UnreadableInformationIsLoggedAndNeverCached)
{
    auto bundle = TvBundle::initWithPath(app_);
    ASSERT_NE(bundle, nullptr);
    test::LogCapture log;

    files_.writeText("Example.app/Info.vlist", "garbage");
    EXPECT_TRUE(bundle->infoDictionary().isNull());
    auto line = log.find("failed to retrieve Info.vlist for " + app_ + " through <bundle " + app_ + ">");
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(line->level, platform::LogLevel::Info);
    EXPECT_EQ(line->subsystem, "com.veltra.Tarvik");
    EXPECT_EQ(line->category, "ops");

    files_.writeValue("Example.app/Info.vlist", Value(Array{Value("x")}));
    EXPECT_TRUE(bundle->infoDictionary().isNull());
    EXPECT_EQ(log.countContaining("failed to convert Info.vlist to dictionary: " + app_ + " source="), 1u);

    files_.writeValue("Example.app/Info.vlist", Value{{"KbBundleIdentifier", Value("com.example.new")}});
    EXPECT_EQ(bundle->infoDictionary()["KbBundleIdentifier"], Value("com.example.new"));
    EXPECT_EQ(bundle->bundleIdentifier(), "com.example.new");
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(TvBundleTest, SupportPathIsFetchedOnceAndShared)
{
    auto bundle = TvBundle::initWithPath(app_);
    ASSERT_NE(bundle, nullptr);
    std::vector<std::thread> readers;
    std::atomic<int> mismatches{0};
    for (int i = 0; i < 4; ++i)
        readers.emplace_back([&] {
            for (int j = 0; j < 50; ++j)
                if (bundle->supportPath() != app_)
                    ++mismatches;
        });
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(mismatches, 0);
    // Racing first reads may each ask; after that the cache answers.
    EXPECT_GE(service_->supportRequests, 1);
    EXPECT_LE(service_->supportRequests, 4);
    const int asked = service_->supportRequests;
    EXPECT_EQ(bundle->plugInsPath(), app_ + "/PlugIns");
    EXPECT_EQ(service_->supportRequests, asked);
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
