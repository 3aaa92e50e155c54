// A full disk and a read-only annotation directory: the failed save is
// logged clearly, the daemon keeps the change in memory (the next save,
// once the disk takes it again, writes it), and nothing on disk is damaged.
// The full disk is a small tmpfs, which needs a mount namespace: ctest runs
// these under "unshare -rm" (and skips them where that is not allowed).
// Without root a read-only directory is a mode; as (namespace) root, who
// ignores modes, it is a read-only bind mount.
#include "tests/kill/KilledDaemon.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tv {
namespace {

Value stored(const std::string& file) { return test::storedAnnotation(file, "com.example.a"); }

TEST(DiskTest, AFullDiskFailsTheSaveAndLosesNothing)
{
    test::TempDir disk;
    if (::mount("tmpfs", disk.path().c_str(), "tmpfs", 0, "size=512k") != 0)
        GTEST_SKIP() << "no tmpfs can be mounted here (run under unshare -rm): " << std::strerror(errno);
    test::KilledDaemon d(disk.file("Annotations"), disk.file("registry.sqlite"));
    ASSERT_TRUE(d.start()) << d.daemon.log();
    ASSERT_EQ(d.annotate(1).code, 0);

    // Fill the disk to the last byte.
    int fd = ::open(disk.file("filler").c_str(), O_WRONLY | O_CREAT, 0600);
    static const char block[4096] = {};
    for (std::size_t chunk = sizeof block; chunk > 0;)
        if (::write(fd, block, chunk) < 0)
            chunk /= 2;
    ::close(fd);

    auto full = d.annotate(Value{{"election", 2}, {"extension", Value{{"big", std::string(8192, 'x')}}}});
    EXPECT_FALSE(full.transportFailed);
    EXPECT_TRUE(d.daemon.waitForLog("unable to save annotations:")) << d.daemon.log();
    EXPECT_NE(d.daemon.log().find("No space left on device"), std::string::npos) << d.daemon.log();
    EXPECT_EQ(stored(d.annotations), (Value{{"election", 1}})) << "the file on disk is the last one saved";
    auto added = d.pathRequest("add", d.bundles[0]);
    EXPECT_FALSE(added.transportFailed);
    EXPECT_EQ(test::sqliteIntegrity(d.database), "ok");

    // Room again: the next save carries the change kept in memory.
    std::filesystem::remove(disk.file("filler"));
    EXPECT_EQ(d.annotate(Value{{"extension", Value{{"k", "v"}}}}).code, 0);
    EXPECT_EQ(stored(d.annotations), (Value{{"election", 2}, {"extension", Value{{"k", "v"}}}}));
    EXPECT_EQ(d.pathRequest("add", d.bundles[1]).code, 0);
    EXPECT_EQ(test::sqliteIntegrity(d.database), "ok");
    EXPECT_EQ(test::registeredPaths(d.database).count(d.bundles[1]), 1u);
    EXPECT_TRUE(d.daemon.running());
    d.daemon.stop();
    ::umount2(disk.path().c_str(), MNT_DETACH);
}

TEST(DiskTest, AReadOnlyAnnotationDirectoryFailsTheSaveAndLosesNothing)
{
    test::TempDir dir;
    test::KilledDaemon d(dir.file("Annotations"));
    ASSERT_TRUE(d.start()) << d.daemon.log();
    ASSERT_EQ(d.annotate(1).code, 0);
    bool mounted = ::geteuid() == 0;
    if (mounted && (::mount(dir.path().c_str(), dir.path().c_str(), nullptr, MS_BIND, nullptr) != 0 ||
                    ::mount(nullptr, dir.path().c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0))
        GTEST_SKIP() << "root, and no read-only bind mount can be made here: " << std::strerror(errno);
    if (!mounted)
        ::chmod(dir.path().c_str(), 0555);

    EXPECT_FALSE(d.annotate(2).transportFailed);
    EXPECT_TRUE(d.daemon.waitForLog("unable to save annotations:")) << d.daemon.log();
    EXPECT_EQ(stored(d.annotations), (Value{{"election", 1}}));

    if (mounted)
        ::umount2(dir.path().c_str(), MNT_DETACH);
    else
        ::chmod(dir.path().c_str(), 0755);
    EXPECT_EQ(d.annotate(Value{{"extension", Value{{"k", "v"}}}}).code, 0);
    EXPECT_EQ(stored(d.annotations), (Value{{"election", 2}, {"extension", Value{{"k", "v"}}}}));
    EXPECT_TRUE(d.daemon.running());
}

} // namespace
} // namespace tv
