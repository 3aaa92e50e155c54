#include "platform/security/LinuxSandboxService.h"

#include "Tarvik/TvFileReadGrant.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tv::platform {
namespace {

namespace fs = std::filesystem;

class LinuxSandboxServiceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fs::create_directories(dir_ / "files");
        std::ofstream(dir_ / "files" / "a.txt") << "x";
    }

    test::TempDir tmp_;
    fs::path dir_ = tmp_.path();
};

TEST_F(LinuxSandboxServiceTest, IssuedTokensRoundTripAndGrantTheCanonicalPath)
{
    LinuxSandboxService sandbox((dir_ / "run").string());
    std::string indirect = (dir_ / "files" / ".." / "files" / "a.txt").string();
    auto token = sandbox.issueFileExtension(kSandboxExtensionClassAppReadOnly, indirect, kSandboxExtensionCanonical);
    ASSERT_TRUE(token) << token.error().localizedDescription();
    std::string canonical = fs::canonical(dir_ / "files" / "a.txt").string();
    std::string expectedPrefix = std::string("app-read-only;2;") + std::to_string(canonical.size()) + ":" +
                                 canonical + ";";
    EXPECT_EQ(token->substr(0, expectedPrefix.size()), expectedPrefix);
    EXPECT_EQ(token->size(), expectedPrefix.size() + 64);
    // A path the caller already holds in canonical form gets the same token
    // without being resolved again; a relative one is refused.
    EXPECT_EQ(sandbox.issueFileExtensionForCanonicalPath(kSandboxExtensionClassAppReadOnly, canonical).value(), *token);
    EXPECT_EQ(sandbox.issueFileExtensionForCanonicalPath("cls", "relative").error().code, EINVAL);

    // Each consumption is its own grant, released once.
    auto h1 = sandbox.consumeExtension(*token), h2 = sandbox.consumeExtension(*token);
    ASSERT_TRUE(h1 && h2 && *h1 != *h2);
    EXPECT_FALSE(sandbox.releaseExtension(*h1));
    EXPECT_EQ(sandbox.releaseExtension(*h1)->code, EINVAL);

    // A second service over the same runtime directory reads the same key.
    LinuxSandboxService sibling((dir_ / "run").string());
    EXPECT_TRUE(sibling.consumeExtension(*token));

    // Without the canonical flag the path is granted as written, if absolute.
    auto literal = sandbox.issueFileExtension("cls", "/no/such/file", 0);
    ASSERT_TRUE(literal);
    EXPECT_TRUE(sandbox.consumeExtension(*literal));
    // Paths holding the separators stay unambiguous; bad input never reaches
    // realpath or the token text.
    fs::create_directories(dir_ / "odd;dir");
    std::ofstream(dir_ / "odd;dir" / "b;1:2") << "x";
    auto odd = sandbox.issueFileExtension("app-read-only", (dir_ / "odd;dir" / "b;1:2").string(), kSandboxExtensionCanonical);
    ASSERT_TRUE(odd);
    EXPECT_TRUE(sandbox.consumeExtension(*odd));
    for (auto [cls, bad] : {std::pair{"cls", std::string("relative")}, {"a;b", "/tmp"}, {"", "/tmp"}, {"cls", std::string("/tmp\0/x", 7)}})
        EXPECT_EQ(sandbox.issueFileExtension(cls, bad, 0).error().code, EINVAL) << cls << " " << bad;
}

TEST_F(LinuxSandboxServiceTest, AlteredForeignAndMalformedTokensAreRefused)
{
    LinuxSandboxService sandbox((dir_ / "run").string());
    LinuxSandboxService other((dir_ / "other-run").string());
    std::string path = (dir_ / "files" / "a.txt").string();
    std::string token = *sandbox.issueFileExtension("app-read-only", path, kSandboxExtensionCanonical);

    auto expectRefused = [&](const std::string& t, int code) {
        errno = 0;
        auto r = sandbox.consumeExtension(t);
        ASSERT_FALSE(r) << t;
        EXPECT_EQ(r.error().code, code) << t;
        EXPECT_EQ(errno, code) << t;
    };
    // Every single-byte change is caught, in the text and in the MAC.
    for (std::size_t i = 0; i < token.size(); ++i) {
        std::string altered = token;
        altered[i] = altered[i] == 'a' ? 'b' : 'a';
        EXPECT_FALSE(sandbox.consumeExtension(altered)) << "byte " << i;
    }
    std::string forged = token;
    forged.replace(forged.find(':') + 1, path.size(), std::string(path.size(), 'x'));
    expectRefused(forged, EPERM);
    expectRefused(*other.issueFileExtension("app-read-only", path, kSandboxExtensionCanonical), EPERM);
    expectRefused("", EINVAL);
    expectRefused("app-read-only;2;5:/a;b;" + std::string(64, '0'), EINVAL);       // length disagrees
    expectRefused("app-read-only;2;2:/a;" + std::string(63, '0'), EINVAL);         // short MAC
    expectRefused("app-read-only;2;2:/a;" + std::string(64, 'G'), EINVAL);         // not hex
    expectRefused("app-read-only;2;99999999999999999999:/a;" + std::string(64, '0'), EINVAL);
    expectRefused(token + "0", EINVAL);
}

TEST_F(LinuxSandboxServiceTest, KeyFileIsPrivateAndAnUnsafeOneIsReplaced)
{
    std::string run = (dir_ / "run").string();
    std::string path = (dir_ / "files" / "a.txt").string();
    std::string token;
    {
        LinuxSandboxService sandbox(run);
        token = *sandbox.issueFileExtension("app-read-only", path, kSandboxExtensionCanonical);
    }
    struct stat st;
    ASSERT_EQ(::stat((run + "/sandbox.key").c_str(), &st), 0);
    EXPECT_EQ(std::tuple(st.st_mode & 07777, st.st_size, st.st_uid), std::tuple(0600u, 32, ::geteuid()));
    for (const auto& entry : fs::directory_iterator(run))
        EXPECT_EQ(entry.path().filename(), "sandbox.key"); // no temporary left behind

    // Readable by others: not trusted, replaced, and old tokens die with it.
    tv::test::LogCapture log;
    ASSERT_EQ(::chmod((run + "/sandbox.key").c_str(), 0644), 0);
    LinuxSandboxService reopened(run);
    EXPECT_EQ(reopened.consumeExtension(token).error().code, EPERM);
    ASSERT_EQ(::stat((run + "/sandbox.key").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);

    // A symbolic link in the key's place is replaced, not followed.
    fs::remove(run + "/sandbox.key");
    fs::create_symlink(path, run + "/sandbox.key");
    LinuxSandboxService linked(run);
    EXPECT_TRUE(linked.issueFileExtension("cls", path, 0));
    EXPECT_FALSE(fs::is_symlink(run + "/sandbox.key"));
    EXPECT_EQ(log.countContaining("sandbox key"), 2u);
    EXPECT_EQ(test::readFile(path), "x");
}

TEST_F(LinuxSandboxServiceTest, FileReadGrantLeavesErrnoOfTheFailure)
{
    LinuxSandboxService sandbox((dir_ / "run").string());
    for (const auto& [url, code] : {std::pair{Value::fileURL((dir_ / "files" / "missing").string()), ENOENT},
                                    std::pair{Value::fileURL((dir_ / "files" / "a.txt" / "x").string()), ENOTDIR},
                                    std::pair{Value("/not/a/url"), EINVAL}}) {
        errno = 0;
        EXPECT_FALSE(fileReadGrant(url, sandbox));
        EXPECT_EQ(errno, code) << url.description();
    }
}

TEST_F(LinuxSandboxServiceTest, SandboxedProcessesAreRecognised)
{
    EXPECT_TRUE(LinuxSandboxService::statusShowsSandbox("Name:\tx\nNoNewPrivs:\t1\nSeccomp:\t2\n"));
    // Strict mode, privileges not dropped, no privileges line, nothing.
    for (const char* status : {"NoNewPrivs:\t1\nSeccomp:\t1\n", "NoNewPrivs:\t0\nSeccomp:\t2\n", "Seccomp:\t2", ""})
        EXPECT_FALSE(LinuxSandboxService::statusShowsSandbox(status)) << status;

    // A fake process table: one with a sandbox marker file, one with a filter.
    fs::path proc = dir_ / "proc";
    fs::create_directories(proc / "10" / "root");
    std::ofstream(proc / "10" / "root" / ".flatpak-info") << "[Application]\n";
    fs::create_directories(proc / "11");
    std::ofstream(proc / "11" / "status") << "Name:\tsh\nNoNewPrivs:\t1\nSeccomp:\t2\nSeccomp_filters:\t1\n";
    fs::create_directories(proc / "12");
    std::ofstream(proc / "12" / "status") << "Name:\tsh\nNoNewPrivs:\t0\nSeccomp:\t0\n";
    LinuxSandboxService fake((dir_ / "run").string(), proc.string());
    for (int pid : {10, 11, 12, 13 /* gone */, 0, -1})
        EXPECT_EQ(fake.isProcessSandboxed(pid), pid == 10 || pid == 11) << pid;
}

} // namespace
} // namespace tv::platform
