#include "platform/security/LinuxCodeSigningService.h"

#include "platform/process/LinuxBundleService.h"
#include "tests/support/FakeClientIdentity.h"
#include "tests/support/FakeVlistFiles.h"
#include "tests/support/LogCapture.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tv::platform {
namespace {

using test::FakeVlistFiles;

class LinuxCodeSigningServiceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        app_ = files_.makeExampleApplication();
        processes_->paths[100] = files_.path("Example.app/example");
        processes_->paths[200] = files_.writeText("bin/tool", "x", 0755);
        dropIns_ = files_.makeDirectory("entitlements.d");
    }

    LinuxCodeSigningService service()
    {
        return LinuxCodeSigningService(processes_, std::make_shared<LinuxBundleService>(FakeVlistFiles::reader()),
                                       dropIns_, FakeVlistFiles::reader());
    }

    Value lookup(pid_t pid, std::string_view key, MaybeError* error = nullptr)
    {
        LinuxCodeSigningService codesign = service();
        auto task = codesign.createTask(AuditToken{pid, 0, 0, -1});
        return codesign.entitlementValueForKey(*task, key, error);
    }

    FakeVlistFiles files_;
    std::string app_;
    std::string dropIns_;
    std::shared_ptr<test::FakeProcessInfo> processes_ = std::make_shared<test::FakeProcessInfo>();
};

TEST_F(LinuxCodeSigningServiceTest, BundleEntitlementsAreASnapshotPerTask)
{
    const std::string file =
        files_.writeValue("Example.app/Entitlements.vlist", Value{{"com.example.manager", Value(true)}});
    LinuxCodeSigningService codesign = service();
    auto task = codesign.createTask(AuditToken{100, 0, 0, -1});
    MaybeError error;
    EXPECT_EQ(codesign.entitlementValueForKey(*task, "com.example.manager", &error), Value(true));
    EXPECT_FALSE(error.has_value());

    // Taken once: a later change does not reach the existing task.
    ::unlink(file.c_str());
    EXPECT_EQ(codesign.entitlementValueForKey(*task, "com.example.manager", nullptr), Value(true));
    EXPECT_TRUE(lookup(100, "com.example.manager").isNull());

    // A process whose executable cannot be read answers with the error.
    EXPECT_TRUE(lookup(300, "com.example.manager", &error).isNull());
    EXPECT_EQ(error.value_or(TvError{}).code, ESRCH);
}

TEST_F(LinuxCodeSigningServiceTest, FilesOthersCouldWriteAreIgnoredWithALogLine)
{
    const std::string file =
        files_.writeValue("Example.app/Entitlements.vlist", Value{{"com.example.manager", Value(true)}});
    test::LogCapture log;

    ::chmod(file.c_str(), 0664);
    MaybeError error;
    EXPECT_TRUE(lookup(100, "com.example.manager", &error).isNull());
    EXPECT_FALSE(error.has_value());
    EXPECT_TRUE(log.contains("ignoring " + file + ": writable by group or others"));
    ::chmod(file.c_str(), 0644);
    ::chmod(app_.c_str(), 0757); // the directory too
    EXPECT_TRUE(lookup(100, "com.example.manager").isNull());
    ::chmod(app_.c_str(), 0755);

    // A link is not the file that was checked.
    const std::string elsewhere = files_.writeValue("elsewhere.vlist", Value{{"com.example.manager", Value(1)}});
    ::unlink(file.c_str());
    fs::create_symlink(elsewhere, file);
    EXPECT_TRUE(lookup(100, "com.example.manager").isNull());
    EXPECT_TRUE(log.contains("ignoring " + file + ": not a regular file"));
    ::unlink(file.c_str());

    // An executable anyone could replace earns nothing either.
    files_.writeValue("Example.app/Entitlements.vlist", Value{{"com.example.manager", Value(true)}});
    ::chmod(processes_->paths[100].c_str(), 0777);
    EXPECT_TRUE(lookup(100, "com.example.manager").isNull());
    const std::string& exe = processes_->paths[100];
    EXPECT_TRUE(log.contains("ignoring entitlements of " + exe + ": " + exe + " is writable by group or others"));

    if (::geteuid() == 0) {
        ::chmod(processes_->paths[100].c_str(), 0755);
        ASSERT_EQ(::chown(file.c_str(), 65534, 65534), 0);
        EXPECT_TRUE(lookup(100, "com.example.manager").isNull());
        EXPECT_TRUE(log.contains("ignoring " + file + ": owned by uid 65534, neither root nor the daemon's user"));
    }
}

TEST_F(LinuxCodeSigningServiceTest, DropInsGrantEntitlementsToExecutablesOutsideBundles)
{
    const std::string tool = processes_->paths[200];
    files_.writeValue("entitlements.d/10-tool.vlist",
                      Value{{"Executable", Value(tool)},
                            {"Entitlements", Value{{"com.example.a", Value(1)}, {"com.example.b", Value(1)}}}});
    // Named through a "..": the same executable, later in order, so it wins.
    files_.writeValue("entitlements.d/20-tool.vlist",
                      Value{{"Executable", Value(files_.path("bin/../bin/tool"))},
                            {"Entitlements", Value{{"com.example.b", Value(2)}}}});
    files_.writeValue("entitlements.d/40-bad.vlist", Value{{"Entitlements", Value{{"com.example.c", Value(1)}}}});
    files_.writeValue("entitlements.d/50-app.vlist",
                      Value{{"Executable", Value(processes_->paths[100])},
                            {"Entitlements", Value{{"com.example.c", Value(1)}}}});
    files_.writeValue("entitlements.d/README", Value{{"Executable", Value(tool)}});
    test::LogCapture log;

    LinuxCodeSigningService codesign = service();
    EXPECT_EQ(*codesign.entitlementsOfExecutable(tool), (Value{{"com.example.a", Value(1)}, {"com.example.b", Value(2)}}));
    EXPECT_EQ(log.countContaining("40-bad.vlist"), 1u);

    // Drop-ins never reach into a bundle.
    EXPECT_TRUE(lookup(100, "com.example.c").isNull());

    // A drop-in directory others could write to is not the administrator's.
    ::chmod(dropIns_.c_str(), 0777);
    EXPECT_EQ(*codesign.entitlementsOfExecutable(tool), Value::emptyDictionary());
    ::chmod(dropIns_.c_str(), 0755);

    EXPECT_EQ(codesign.entitlementsOfExecutable(files_.path("bin/missing")).error().code, ENOENT);
}

} // namespace
} // namespace tv::platform
