#include "tests/support/PlugInBundles.h"

#include "platform/formats/Vlist.h"

#include <filesystem>
#include <stdexcept>

namespace tv::test {

static void writeInfo(const std::string& dir, const Value& info)
{
    std::filesystem::create_directories(dir);
    if (platform::writeVlistFileAtomically(dir + "/Info.vlist", info))
        throw std::runtime_error("cannot write " + dir + "/Info.vlist");
}

void makePlugInBundle(const std::string& dir, const std::string& identifier, const std::string& executable)
{
    Value info{{"KbBundleIdentifier", identifier},
               {"KbBundleVersion", "1"},
               {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.veltra.share-services"}}}};
    if (!executable.empty()) {
        std::filesystem::create_directories(dir);
        std::filesystem::copy_file(executable, dir + "/plugin", std::filesystem::copy_options::overwrite_existing);
        info = info.with("KbBundleExecutable", Value("plugin"));
    }
    writeInfo(dir, info);
}

std::string makeApplicationWithPlugIn(const std::string& appsRoot, const std::string& identifier,
                                      const std::string& executable)
{
    std::string app = appsRoot + "/" + identifier + ".app";
    writeInfo(app, Value{{"KbBundleIdentifier", identifier + ".app"}});
    makePlugInBundle(app + "/PlugIns/P.vext", identifier, executable);
    return std::filesystem::canonical(app + "/PlugIns/P.vext").string();
}

void entitleManager(const TestDaemon& daemon, const std::string& executable, const Value& value)
{
    const std::filesystem::path dir = daemon.root() + "/entitlements.d", canonical = std::filesystem::canonical(executable);
    std::filesystem::create_directories(dir);
    std::filesystem::permissions(dir, std::filesystem::perms(0755)); // no drop-in is read from a directory others write
    Value dropIn{{"Executable", canonical.string()},
                 {"Entitlements", Value{{"com.veltra.private.tarvik.manager", value}}}};
    if (platform::writeVlistFileAtomically((dir / canonical.filename()).string() + ".vlist", dropIn))
        throw std::runtime_error("cannot write the drop-in for " + executable);
}

std::optional<Uuid> installedUuid(const TestDaemon& daemon, const std::string& identifier)
{
    std::string line = "plug-in INSTALLED:" + identifier + " " + identifier + "(";
    if (!daemon.waitForLog(line))
        return std::nullopt;
    std::string log = daemon.log();
    return Uuid::parse(log.substr(log.find(") ", log.find(line)) + 2, 36));
}

} // namespace tv::test
