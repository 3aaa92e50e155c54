#include "tests/support/PlugInBundles.h"

#include "platform/formats/Vlist.h"

#include <filesystem>
#include <stdexcept>

namespace tv::test {

void makePlugInBundle(const std::string& dir, const std::string& identifier, const std::string& executable)
{
    std::filesystem::create_directories(dir);
    Value info{{"KbBundleIdentifier", identifier},
               {"KbBundleVersion", "1"},
               {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.veltra.share-services"}}}};
    if (!executable.empty()) {
        info = info.with("KbBundleExecutable", Value("plugin"));
        std::filesystem::copy_file(executable, dir + "/plugin", std::filesystem::copy_options::overwrite_existing);
    }
    if (platform::writeVlistFileAtomically(dir + "/Info.vlist", info))
        throw std::runtime_error("cannot write " + dir + "/Info.vlist");
}

std::string makeApplicationWithPlugIn(const std::string& appsRoot, const std::string& identifier)
{
    std::string app = appsRoot + "/" + identifier + ".app";
    std::filesystem::create_directories(app);
    if (platform::writeVlistFileAtomically(app + "/Info.vlist", Value{{"KbBundleIdentifier", identifier + ".app"}}))
        throw std::runtime_error("cannot write " + app + "/Info.vlist");
    makePlugInBundle(app + "/PlugIns/P.vext", identifier);
    return std::filesystem::canonical(app + "/PlugIns/P.vext").string();
}

std::optional<Uuid> installedUuid(const TestDaemon& daemon, const std::string& identifier)
{
    std::string line = "plug-in INSTALLED:" + identifier + " " + identifier + "(";
    if (!daemon.waitForLog(line))
        return std::nullopt;
    std::string log = daemon.log();
    auto close = log.find(") ", log.find(line));
    return close == std::string::npos ? std::nullopt : Uuid::parse(log.substr(close + 2, 36));
}

} // namespace tv::test
