// TvBundle: read access to one bundle on disk (an application, a plug-in or
// the running program) through the platform's bundle service.
//
// Every initialiser returns null when the bundle cannot be opened. Each
// object keeps the service that opened it. The initialisers use the
// process-wide service installed with setBundleService() unless one is
// passed; using them before any is installed is an internal inconsistency
// (the process's start-up installs it).
//
// Nothing read from the bundle is kept except the support directory, which
// is fetched on first use and kept for the life of the object: the
// information dictionary is read again on every call, so a bundle updated in
// place is seen as it is now.
//
// Thread-safe: the handle is read and written atomically and the support
// directory's cache is an atomic pointer; two threads filling it at once
// both ask the service and store equal strings.
#pragma once

#include "base/Value.h"
#include "platform/process/BundleService.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>

namespace tv {

class TvBundle {
public:
    using ServicePtr = std::shared_ptr<platform::BundleService>;
    using HandlePtr = std::shared_ptr<platform::BundleHandle>;

    enum class StringProperty { BundlePath, ExecutablePath };

    // The process-wide bundle service, and installing it (returns the
    // previous one; null uninstalls).
    static ServicePtr bundleService();
    static ServicePtr setBundleService(ServicePtr service);

    // The running program's own bundle.
    static std::shared_ptr<TvBundle> initForMainBundle(ServicePtr service = bundleService());
    // `path` opened as a bundle directory.
    static std::shared_ptr<TvBundle> initWithPath(const std::string& path, ServicePtr service = bundleService());
    // initWithPath() with the path of a file URL.
    static std::shared_ptr<TvBundle> initWithURL(const Value& url, ServicePtr service = bundleService());
    // The bundle whose executable is `path`; when the service knows no such
    // bundle, `path` itself opened as a bundle directory.
    static std::shared_ptr<TvBundle> initWithExecutablePath(const std::string& path,
                                                            ServicePtr service = bundleService());
    static std::shared_ptr<TvBundle> initWithExecutableURL(const Value& url, ServicePtr service = bundleService());
    // Adopts a handle the caller already has; null for a null handle.
    static std::shared_ptr<TvBundle> initWithVynBundle(HandlePtr handle, ServicePtr service = bundleService());

    // REQUIRES: both non-null. Use the initialisers.
    TvBundle(HandlePtr handle, ServicePtr service);

    HandlePtr vynBundle() const { return bundle_.load(); }
    // REQUIRES: a non-null handle of this object's service.
    void setVynBundle(HandlePtr handle);

    std::optional<std::string> stringProperty(StringProperty kind) const;
    std::optional<std::string> path() const { return stringProperty(StringProperty::BundlePath); }
    // A file URL of path(); null when there is no path.
    Value url() const;
    // The executable, or the bundle's own path when it declares none.
    std::optional<std::string> executablePath() const;
    std::optional<std::string> supportPath() const;
    // supportPath() with `name` appended as one path component.
    std::optional<std::string> bundleDirectory(const std::string& name) const;
    std::optional<std::string> plugInsPath() const { return bundleDirectory("PlugIns"); }
    // The information dictionary, or null (with an info line in "ops") when
    // it cannot be read or is not a dictionary.
    Value infoDictionary() const;
    std::optional<std::string> bundleIdentifier() const;

private:
    ServicePtr service_;
    std::atomic<HandlePtr> bundle_;
    mutable std::atomic<std::shared_ptr<const std::string>> supportPath_;
};

} // namespace tv
