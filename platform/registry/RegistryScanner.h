// RegistryScanner: reads the bundles on disk into the rows the application
// registry stores (StoredPlugIn, StoredApplication), without deciding
// anything about UUIDs or installs; LinuxApplicationRegistry reconciles what
// it reads with what is stored.
//
// Sources, in order of precedence for a bundle found twice:
//   - "<root>/*.app" for each of PlatformConfig::applicationRoots (one level
//     deep), and each application's "PlugIns/*.vext";
//   - PlatformConfig::systemPlugInsDir/"*.vext";
//   - plug-in bundles registered by path (taken from the stored rows).
// Information dictionaries are read through the BundleService (which refuses
// hostile files), entitlements through
// CodeSigningService::entitlementsOfExecutable of the plug-in's executable.
// A plug-in bundle counts when its Info.vlist is a dictionary holding a
// "KoExtension" dictionary and an identifier; an application when its
// Info.vlist is a dictionary. Anything else is skipped with an info line in
// the platform log (category "registry").
//
// Thread-safety: const operations only; safe from any thread as far as the
// services are.
#pragma once

#include "platform/PlatformConfig.h"
#include "platform/process/BundleService.h"
#include "platform/registry/RegistryDatabase.h"
#include "platform/security/CodeSigningService.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tv::platform {

class RegistryScanner {
public:
    // A bundle location to read, with what is known about it beforehand.
    struct Candidate {
        std::string path; // canonical
        std::string applicationPath;
        bool registeredByPath = false;
    };

    // What one scan read. Plug-in rows are fresh readings: no UUID or
    // registration date yet.
    struct Scan {
        // Applications are reconciled only when the scan covered the roots.
        bool coversApplications = false;
        std::vector<StoredApplication> applications;
        std::vector<StoredPlugIn> plugIns;
    };

    RegistryScanner(const PlatformConfig& config, std::shared_ptr<BundleService> bundles,
                    std::shared_ptr<CodeSigningService> codeSigning);

    // Every source; the registrations by path are those of `stored`.
    Scan scanDisk(const StoredRegistry& stored) const;
    // The row for one bundle; none, with the reason in `whyNot`, when it is
    // not a plug-in bundle.
    std::optional<StoredPlugIn> readPlugIn(const Candidate& candidate, std::string* whyNot) const;

    // The entries of `dir` whose names end with `suffix` and that are
    // directories (following symbolic links), in name order. A missing or
    // unreadable directory has none.
    static std::vector<std::string> bundlesIn(const std::string& dir, std::string_view suffix);
    // The canonical form in which bundle locations are compared: "file://"
    // stripped, made absolute, symbolic links resolved as far as the path
    // exists, no trailing "/". Empty for an empty text.
    static std::string canonicalBundlePath(const std::string& pathOrUrl);
    // The application among `applications` whose "PlugIns" directory holds
    // the bundle at `canonicalPath`; empty when none does.
    static std::string containingApplicationPath(const std::string& canonicalPath,
                                                 const std::vector<StoredApplication>& applications);
    // "KbBundleVersion", else "KbBundleShortVersionString", as text: a
    // number is written in decimal; empty when neither is a string or number.
    static std::string bundleVersionOf(const Value& info);

private:
    const PlatformConfig config_;
    const std::shared_ptr<BundleService> bundles_;
    const std::shared_ptr<CodeSigningService> codeSigning_;
};

} // namespace tv::platform
