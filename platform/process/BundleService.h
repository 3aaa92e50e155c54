// BundleService: opens bundles on disk and reads what they declare.
//
// A bundle is a directory that holds an information dictionary (Info.vlist)
// at its root. Its executable is the file its "KbBundleExecutable" names,
// relative to the bundle; its support directory is the directory that holds
// its "PlugIns" directory.
//
// Opening gives an opaque BundleHandle, or null when nothing can be opened.
// A handle names a bundle; it does not pin the bundle's contents: every
// query reads the disk again, so a bundle that is replaced in place is seen
// as it is now.
//
// Thread-safety: every operation may be called from any thread, on handles
// shared between threads. No callbacks.
#pragma once

#include "base/Value.h"

#include <memory>
#include <optional>
#include <string>

namespace tv::platform {

// An open bundle. Only the service that made a handle understands it; a
// handle of another service reads as a bundle without any property.
class BundleHandle {
public:
    virtual ~BundleHandle() = default;
    // Text for logs (the bundle's path, or what the handle stands for).
    virtual std::string description() const = 0;

protected:
    BundleHandle() = default;
};

class BundleService {
public:
    virtual ~BundleService() = default;

    // Opens `path` as a bundle directory; null when it is not one.
    virtual std::shared_ptr<BundleHandle> openBundleDirectory(const std::string& path) = 0;

    // Opens the bundle whose executable is `executablePath`. When no bundle
    // claims the executable the answer is null or a handle that reports no
    // bundle path; callers treat both alike.
    virtual std::shared_ptr<BundleHandle> openBundleWithExecutable(const std::string& executablePath) = 0;

    // The running program's own bundle; null when the program lies in none.
    virtual std::shared_ptr<BundleHandle> openMainBundle() = 0;

    // The bundle directory; absent for a handle that stands for no bundle.
    virtual std::optional<std::string> bundlePath(const BundleHandle& bundle) = 0;
    // The bundle's executable; absent when it declares none.
    virtual std::optional<std::string> executablePath(const BundleHandle& bundle) = 0;
    // The directory that holds the bundle's "PlugIns" directory; absent when
    // the handle stands for no bundle.
    virtual std::optional<std::string> supportDirectory(const BundleHandle& bundle) = 0;

    // The information dictionary as read, null when it cannot be read. It is
    // a Value of any kind: a document whose root is not a dictionary is
    // handed back as it stands, for the caller to refuse.
    virtual Value infoDictionary(const BundleHandle& bundle) = 0;
    // The string under "KbBundleIdentifier" in the information dictionary;
    // absent when there is no dictionary or no such string.
    virtual std::optional<std::string> bundleIdentifier(const BundleHandle& bundle) = 0;
};

} // namespace tv::platform
