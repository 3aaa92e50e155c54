// Host discovery through the real daemon: "match" requests from tvkit over
// the socket, against applications and system plug-ins on disk.
#include "platform/formats/Vlist.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tv {
namespace {

using test::runProgram;
using test::TestDaemon;

constexpr const char* kPoint = "com.veltra.share-services";

class MatchTest : public ::testing::Test {
protected:
    MatchTest()
        : daemon_({"application_roots = " + platform_.file("Applications"),
                   "system_volume_root = " + platform_.file("System"),
                   "system_plugins_dir = " + platform_.file("System/Library/PlugIns")})
    {
    }

    void SetUp() override
    {
        std::string apps = platform_.file("Applications");
        makeBundle(apps + "/One.app", Value{{"KbBundleIdentifier", "com.test.one"}});
        makeBundle(apps + "/Two.app", Value{{"KbBundleIdentifier", "com.test.two"}});
        dupOld_ = makePlugIn(apps + "/One.app/PlugIns/Dup.vext", "com.test.dup", "1.2");
        dupNew_ = makePlugIn(apps + "/Two.app/PlugIns/Dup.vext", "com.test.dup", "1.10");
        replacer_ = makePlugIn(apps + "/One.app/PlugIns/Replacer.vext", "com.test.replacer", "1", Value(),
                               Value{{"com.veltra.developer.replace-plugin", "com.test.sys"}});
        elected_ = makePlugIn(apps + "/One.app/PlugIns/Elected.vext", "com.test.elected", "1", Value(),
                              Value{{"com.veltra.developer.auto-elect-plugin", true}});
        demand_ = makePlugIn(apps + "/Two.app/PlugIns/Demand.vext", "com.test.demand", "1", Value("com.test.need"));
        sys_ = makePlugIn(platform_.file("System/Library/PlugIns/Sys.vext"), "com.test.sys", "1");
        std::filesystem::create_directories(daemon_.root() + "/entitlements.d");
        ::chmod((daemon_.root() + "/entitlements.d").c_str(), 0755);
        ASSERT_TRUE(daemon_.start()) << daemon_.log();
    }

    static void makeBundle(const std::string& dir, Value info, const Value& entitlements = Value())
    {
        std::filesystem::create_directories(dir);
        ASSERT_FALSE(platform::writeVlistFileAtomically(dir + "/Info.vlist", info));
        if (!entitlements.isNull()) {
            ASSERT_FALSE(platform::writeVlistFileAtomically(dir + "/Entitlements.vlist", entitlements));
        }
    }
    // A plug-in bundle with its executable; returns its canonical path.
    std::string makePlugIn(const std::string& dir, const std::string& identifier, const std::string& version,
                           Value hostEntitlement = Value(), Value entitlements = Value())
    {
        Value extension{{"KoExtensionPointIdentifier", kPoint},
                        {"KoExtensionAttributes", Value{{"KoExtensionVersion", Value(version)}}}};
        if (!hostEntitlement.isNull())
            extension = extension.with("KoExtensionHostEntitlement", hostEntitlement);
        makeBundle(dir,
                   Value{{"KbBundleIdentifier", identifier},
                         {"KbBundleVersion", version},
                         {"KbBundleExecutable", "run"},
                         {"KoExtension", extension}},
                   entitlements);
        std::ofstream(dir + "/run") << "#!/bin/sh\n";
        ::chmod((dir + "/run").c_str(), 0755);
        return std::filesystem::canonical(dir).string();
    }

    void entitleTvkit(Value entitlements)
    {
        Value dropIn{{"Executable", std::filesystem::canonical(TVKIT_BINARY).string()},
                     {"Entitlements", std::move(entitlements)}};
        ASSERT_FALSE(platform::writeVlistFileAtomically(daemon_.root() + "/entitlements.d/tvkit.vlist", dropIn));
    }

    test::ProcessResult tvkit(std::vector<std::string> args)
    {
        std::vector<std::string> argv{TVKIT_BINARY, "--service", daemon_.socketPath()};
        argv.insert(argv.end(), args.begin(), args.end());
        return runProgram(argv, daemon_.clientEnv());
    }

    // The paths that `tvkit match --json` lists, with the whole JSON.
    std::set<std::string> matchedPaths(std::vector<std::string> args, nlohmann::json* all = nullptr)
    {
        args.insert(args.begin(), {"match", "--json"});
        auto r = tvkit(args);
        EXPECT_EQ(r.exitStatus, 0) << r.err;
        std::set<std::string> paths;
        auto json = nlohmann::json::parse(r.out, nullptr, false);
        if (!json.is_array())
            return paths;
        for (const auto& form : json)
            paths.insert(form.value("path", std::string()));
        if (all)
            *all = json;
        return paths;
    }

    test::TempDir platform_;
    TestDaemon daemon_;
    std::string dupOld_, dupNew_, replacer_, elected_, demand_, sys_;
};

TEST_F(MatchTest, HostsAreOfferedTheNewestCopyWithOverrideMarksAndElections)
{
    using Paths = std::set<std::string>;
    nlohmann::json forms;
    EXPECT_EQ(matchedPaths({kPoint}, &forms), (Paths{dupNew_, replacer_, elected_, sys_})) << daemon_.log();
    EXPECT_TRUE(daemon_.waitForLog("match returned 4 plug-ins"));
    std::string replacerUuid;
    for (const auto& f : forms)
        if (f["identifier"] == "com.test.replacer") {
            replacerUuid = f["uuid"];
            EXPECT_EQ(f["overriding"], "com.test.sys");
        }
    for (const auto& f : forms) {
        if (f["identifier"] == "com.test.sys") {
            EXPECT_EQ(f["overrider"], replacerUuid);
        }
        EXPECT_EQ(f["election"], f["identifier"] == "com.test.elected" ? 1 : 0) << f.dump();
    }

    EXPECT_EQ(matchedPaths({"--all-versions", kPoint}), (Paths{dupOld_, dupNew_, replacer_, elected_, sys_}));
    EXPECT_EQ(matchedPaths({"--system-only", kPoint}), (Paths{sys_}));
    EXPECT_EQ(matchedPaths({kPoint, R"({"KoUserElection": "=1"})"}), (Paths{elected_}));
    // An invalid element switches the registry-side filter off; the match
    // rules still evaluate the election of each candidate.
    EXPECT_EQ(matchedPaths({kPoint, R"({"KoUserElection": ["=1", "-1"]})"}), (Paths{elected_}));
    EXPECT_EQ(matchedPaths({kPoint, R"({"KoUserElection": ["0"]})"}), (Paths{dupNew_, replacer_, sys_}));
    EXPECT_EQ(matchedPaths({kPoint, R"({"KoExtensionIdentifier": "com.test.dup"})"}), (Paths{dupNew_}));
    EXPECT_TRUE(matchedPaths({"com.veltra.nothing-here"}).empty());

    // The text form: one line per plug-in, override marks last.
    auto text = tvkit({"match", kPoint, R"({"KoExtensionIdentifier": ["com.test.sys", "com.test.replacer"]})"});
    EXPECT_EQ(text.exitStatus, 0);
    EXPECT_NE(text.out.find("com.test.sys\t1\t"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("\t0\t" + sys_ + "\toverridden-by=" + replacerUuid + "\n"), std::string::npos);
    EXPECT_NE(text.out.find("\t" + replacer_ + "\toverrides=com.test.sys\n"), std::string::npos);
}

TEST_F(MatchTest, WireCodesAndHostRights)
{
    auto badRules = tvkit({"raw", R"({"request": "match", "version": 3, "rules": ["x"]})"});
    EXPECT_EQ(badRules.exitStatus, 1);
    EXPECT_NE(badRules.out.find("\"errorcode\": 4"), std::string::npos) << badRules.out;
    EXPECT_NE(badRules.out.find("invalid request format (bad rules dictionary)"), std::string::npos);

    auto unprivileged = tvkit({"match", "--all", kPoint});
    EXPECT_EQ(unprivileged.exitStatus, 1);
    EXPECT_NE(unprivileged.err.find("(code 11): unauthorized discovery flag (TvDiscoverAll)"), std::string::npos)
        << unprivileged.err;

    // The host lacks the entitlement that Demand.vext demands.
    EXPECT_FALSE(matchedPaths({kPoint}).count(demand_));
    EXPECT_TRUE(daemon_.waitForLog("the host does not have the \"com.test.need\" entitlement"));
    entitleTvkit(Value{{"com.test.need", true}});
    EXPECT_TRUE(matchedPaths({kPoint}).count(demand_));

    // A host that restricts itself.
    entitleTvkit(Value{{"com.veltra.developer.tarvik.allowedplugins",
                        Value{{"KoExtensionIdentifier", Value(Array{"com.test.sys", "com.test.demand"})}}}});
    EXPECT_EQ(matchedPaths({kPoint}), (std::set<std::string>{sys_}));
    entitleTvkit(Value{{"com.veltra.developer.tarvik.allowedplugins", true}});
    EXPECT_TRUE(matchedPaths({kPoint}).empty());
    EXPECT_TRUE(daemon_.waitForLog("invalid host restriction entitlement"));

    // The manager discovers everything, host rights aside.
    entitleTvkit(Value{{"com.veltra.private.tarvik.manager", true},
                       {"com.veltra.developer.tarvik.allowedplugins", true}});
    EXPECT_EQ(matchedPaths({"--all", kPoint}).size(), 5u);
    EXPECT_TRUE(daemon_.running());
}

// tvkit run with no-new-privileges and a seccomp filter that allows
// everything: a sandboxed process as the platform sees one.
test::ProcessResult runSandboxed(const std::vector<std::string>& argv, const std::string& config,
                                 const std::string& outPath)
{
    test::ProcessResult r;
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::string configVariable = "TVD_CONFIG=" + config;
    char* env[] = {configVariable.data(), nullptr};
    pid_t pid = ::fork();
    if (pid == 0) {
        sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
        sock_fprog program{1, &allow};
        if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) != 0)
            ::_exit(100);
        int fd = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(fd, 2);
        ::execve(args[0], args.data(), env);
        ::_exit(101);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    r.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream in(outPath);
    r.err.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return r;
}

TEST_F(MatchTest, ASandboxedManagerMayNotDiscoverEverything)
{
    entitleTvkit(Value{{"com.veltra.private.tarvik.manager", true}});
    auto r = runSandboxed({TVKIT_BINARY, "--service", daemon_.socketPath(), "match", "--all", kPoint},
                          daemon_.configPath(), daemon_.root() + "/sandboxed.err");
    if (r.exitStatus == 100)
        GTEST_SKIP() << "seccomp filters are not available here";
    EXPECT_EQ(r.exitStatus, 1) << r.err;
    EXPECT_NE(r.err.find("unauthorized discovery flag (TvDiscoverAll)"), std::string::npos) << r.err;
}

} // namespace
} // namespace tv
