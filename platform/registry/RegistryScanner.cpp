#include "platform/registry/RegistryScanner.h"

#include "platform/log/PlatformLog.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <map>

namespace fs = std::filesystem;

namespace tv::platform {
namespace {

constexpr const char* kLogCategory = "registry";

std::optional<std::string> stringOf(const Value& value)
{
    if (const std::string* s = value.asString())
        return *s;
    return std::nullopt;
}

// A string as itself, a number in decimal (the shortest text that reads
// back as the same number); none for anything else.
std::optional<std::string> versionTextOf(const Value& value)
{
    if (const std::string* s = value.asString())
        return *s;
    if (const std::int64_t* i = value.asInt())
        return std::to_string(*i);
    if (const std::uint64_t* u = value.asUInt())
        return std::to_string(*u);
    if (const double* d = value.asDouble()) {
        char text[32];
        auto [end, ec] = std::to_chars(text, text + sizeof text, *d);
        if (ec == std::errc())
            return std::string(text, end);
    }
    return std::nullopt;
}

} // namespace

RegistryScanner::RegistryScanner(const PlatformConfig& config, std::shared_ptr<BundleService> bundles,
                                 std::shared_ptr<CodeSigningService> codeSigning)
    : config_(config), bundles_(std::move(bundles)), codeSigning_(std::move(codeSigning))
{
}

std::vector<std::string> RegistryScanner::bundlesIn(const std::string& dir, std::string_view suffix)
{
    std::vector<std::string> found;
    std::error_code ec;
    fs::directory_iterator it(dir, ec);
    if (ec)
        return found;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec)
            break;
        const std::string name = it->path().filename().string();
        std::error_code statError;
        if (name.size() > suffix.size() && name.ends_with(suffix) && fs::is_directory(it->path(), statError))
            found.push_back(it->path().string());
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::string RegistryScanner::canonicalBundlePath(const std::string& pathOrUrl)
{
    std::string_view text = pathOrUrl;
    if (text.starts_with("file://"))
        text.remove_prefix(7);
    if (text.empty())
        return {};
    std::error_code ec;
    fs::path absolute = fs::absolute(fs::path(text), ec);
    if (ec)
        return {};
    fs::path canonical = fs::weakly_canonical(absolute, ec);
    std::string path = (ec ? absolute.lexically_normal() : canonical).string();
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

std::string RegistryScanner::containingApplicationPath(const std::string& canonicalPath,
                                                       const std::vector<StoredApplication>& applications)
{
    const fs::path plugIns = fs::path(canonicalPath).parent_path();
    if (plugIns.filename() != "PlugIns")
        return {};
    const std::string application = plugIns.parent_path().string();
    for (const StoredApplication& a : applications)
        if (a.path == application)
            return application;
    return {};
}

std::string RegistryScanner::bundleVersionOf(const Value& info)
{
    if (auto version = versionTextOf(info["KbBundleVersion"]))
        return *version;
    return versionTextOf(info["KbBundleShortVersionString"]).value_or("");
}

RegistryScanner::Scan RegistryScanner::scanDisk(const StoredRegistry& stored) const
{
    Scan scan;
    scan.coversApplications = true;
    std::vector<Candidate> candidates;
    std::map<std::string, std::size_t> candidateAt;
    auto add = [&](const std::string& path, const std::string& applicationPath, bool byPath) {
        const std::string canonical = canonicalBundlePath(path);
        auto [it, added] = candidateAt.emplace(canonical, candidates.size());
        if (added)
            candidates.push_back(Candidate{canonical, applicationPath, byPath});
        else
            candidates[it->second].registeredByPath |= byPath;
    };

    std::map<std::string, bool> applicationSeen;
    for (const std::string& root : config_.applicationRoots) {
        for (const std::string& appDir : bundlesIn(root, ".app")) {
            auto handle = bundles_->openBundleDirectory(appDir);
            std::optional<std::string> path = handle ? bundles_->bundlePath(*handle) : std::nullopt;
            Value info = handle ? bundles_->infoDictionary(*handle) : Value();
            if (!path || !info.isDictionary()) {
                platformLog(LogLevel::Info, kLogCategory, "skipping application %@: no readable Info.vlist dictionary",
                            appDir);
                continue;
            }
            if (!applicationSeen.emplace(*path, true).second)
                continue;
            scan.applications.push_back(StoredApplication{*path, info});
            for (const std::string& plugIn : bundlesIn(*path + "/PlugIns", ".vext"))
                add(plugIn, *path, false);
        }
    }
    if (!config_.systemPlugInsDir.empty())
        for (const std::string& plugIn : bundlesIn(config_.systemPlugInsDir, ".vext"))
            add(plugIn, {}, false);
    for (const StoredPlugIn& p : stored.plugIns)
        if (p.registeredByPath)
            add(p.path, containingApplicationPath(p.path, scan.applications), true);

    for (const Candidate& candidate : candidates) {
        std::string whyNot;
        if (auto fresh = readPlugIn(candidate, &whyNot))
            scan.plugIns.push_back(std::move(*fresh));
        else
            platformLog(LogLevel::Info, kLogCategory, "skipping plug-in %@: %@", candidate.path, whyNot);
    }
    return scan;
}

std::optional<StoredPlugIn> RegistryScanner::readPlugIn(const Candidate& candidate, std::string* whyNot) const
{
    if (!candidate.path.ends_with(".vext") || candidate.path.ends_with("/.vext")) {
        *whyNot = "not a .vext bundle";
        return std::nullopt;
    }
    auto handle = bundles_->openBundleDirectory(candidate.path);
    if (!handle) {
        *whyNot = "not a bundle directory with an Info.vlist";
        return std::nullopt;
    }
    Value info = bundles_->infoDictionary(*handle);
    if (!info.isDictionary()) {
        *whyNot = "Info.vlist is not a readable dictionary";
        return std::nullopt;
    }
    const Value& extension = info["KoExtension"];
    if (!extension.isDictionary()) {
        *whyNot = "Info.vlist has no KoExtension dictionary";
        return std::nullopt;
    }
    StoredPlugIn p;
    p.path = candidate.path;
    p.applicationPath = candidate.applicationPath;
    p.registeredByPath = candidate.registeredByPath;
    p.identifier = stringOf(extension["KoExtensionIdentifier"]).value_or(stringOf(info["KbBundleIdentifier"]).value_or(""));
    if (p.identifier.empty()) {
        *whyNot = "no KoExtensionIdentifier or KbBundleIdentifier";
        return std::nullopt;
    }
    p.version = bundleVersionOf(info);
    p.extensionPoint = stringOf(extension["KoExtensionPointIdentifier"]).value_or("");
    p.entitlements = Value::emptyDictionary();
    if (std::optional<std::string> executable = bundles_->executablePath(*handle)) {
        Result<Value> entitlements = codeSigning_->entitlementsOfExecutable(*executable);
        if (entitlements && entitlements->isDictionary())
            p.entitlements = std::move(*entitlements);
        else if (!entitlements)
            platformLog(LogLevel::Info, kLogCategory, "no entitlements for %@: %{public}s", *executable,
                        entitlements.error().localizedDescription());
    }
    p.info = std::move(info);
    return p;
}

} // namespace tv::platform
