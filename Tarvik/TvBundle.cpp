#include "Tarvik/TvBundle.h"

#include "Tarvik/TvLog.h"
#include "base/InternalInconsistency.h"

#include <mutex>

namespace tv {

namespace {

std::mutex& serviceMutex()
{
    static std::mutex& mutex = *new std::mutex;
    return mutex;
}

TvBundle::ServicePtr& installedService()
{
    static TvBundle::ServicePtr& service = *new TvBundle::ServicePtr;
    return service;
}

const TvBundle::ServicePtr& requireService(const TvBundle::ServicePtr& service)
{
    if (!service)
        raiseInternalInconsistency("TvBundle used before a bundle service was installed");
    return service;
}

} // namespace

TvBundle::ServicePtr TvBundle::bundleService()
{
    std::lock_guard lock(serviceMutex());
    return installedService();
}

TvBundle::ServicePtr TvBundle::setBundleService(ServicePtr service)
{
    std::lock_guard lock(serviceMutex());
    std::swap(installedService(), service);
    return service;
}

TvBundle::TvBundle(HandlePtr handle, ServicePtr service) : service_(std::move(service)), bundle_(std::move(handle))
{
    if (!service_ || !bundle_.load())
        raiseInternalInconsistency("TvBundle made without a handle or a service");
}

void TvBundle::setVynBundle(HandlePtr handle)
{
    if (!handle)
        raiseInternalInconsistency("TvBundle given a null handle");
    bundle_.store(std::move(handle));
}

std::shared_ptr<TvBundle> TvBundle::initForMainBundle(ServicePtr service)
{
    HandlePtr handle = requireService(service)->openMainBundle();
    return initWithVynBundle(std::move(handle), std::move(service));
}

std::shared_ptr<TvBundle> TvBundle::initWithPath(const std::string& path, ServicePtr service)
{
    HandlePtr handle = requireService(service)->openBundleDirectory(path);
    return initWithVynBundle(std::move(handle), std::move(service));
}

std::shared_ptr<TvBundle> TvBundle::initWithURL(const Value& url, ServicePtr service)
{
    return initWithPath(url.urlPath(), std::move(service));
}

std::shared_ptr<TvBundle> TvBundle::initWithExecutablePath(const std::string& path, ServicePtr service)
{
    HandlePtr handle = requireService(service)->openBundleWithExecutable(path);
    if (!handle || !service->bundlePath(*handle))
        handle = service->openBundleDirectory(path);
    return initWithVynBundle(std::move(handle), std::move(service));
}

std::shared_ptr<TvBundle> TvBundle::initWithExecutableURL(const Value& url, ServicePtr service)
{
    return initWithExecutablePath(url.urlPath(), std::move(service));
}

std::shared_ptr<TvBundle> TvBundle::initWithVynBundle(HandlePtr handle, ServicePtr service)
{
    requireService(service);
    if (!handle)
        return nullptr;
    return std::make_shared<TvBundle>(std::move(handle), std::move(service));
}

std::optional<std::string> TvBundle::stringProperty(StringProperty kind) const
{
    HandlePtr handle = vynBundle();
    switch (kind) {
    case StringProperty::BundlePath: return service_->bundlePath(*handle);
    case StringProperty::ExecutablePath: return service_->executablePath(*handle);
    }
    return std::nullopt;
}

Value TvBundle::url() const
{
    std::optional<std::string> p = path();
    return p ? Value::fileURL(*p) : Value();
}

std::optional<std::string> TvBundle::executablePath() const
{
    if (std::optional<std::string> executable = stringProperty(StringProperty::ExecutablePath))
        return executable;
    return path();
}

std::optional<std::string> TvBundle::supportPath() const
{
    if (std::shared_ptr<const std::string> cached = supportPath_.load())
        return *cached;
    std::optional<std::string> fetched = service_->supportDirectory(*vynBundle());
    if (!fetched)
        return std::nullopt;
    supportPath_.store(std::make_shared<const std::string>(*fetched));
    return fetched;
}

std::optional<std::string> TvBundle::bundleDirectory(const std::string& name) const
{
    std::optional<std::string> support = supportPath();
    if (!support)
        return std::nullopt;
    if (support->empty() || support->back() != '/')
        support->push_back('/');
    return *support + name;
}

Value TvBundle::infoDictionary() const
{
    HandlePtr handle = vynBundle();
    Value info = service_->infoDictionary(*handle);
    if (info.isNull()) {
        std::optional<std::string> p = path();
        TvLog::ops().info("failed to retrieve Info.vlist for %@ through %@", p ? Value(*p) : Value(),
                          handle->description());
        return {};
    }
    if (!info.isDictionary()) {
        std::optional<std::string> p = path();
        TvLog::ops().info("failed to convert Info.vlist to dictionary: %@ source=%@", p ? Value(*p) : Value(), info);
        return {};
    }
    return info;
}

std::optional<std::string> TvBundle::bundleIdentifier() const
{
    return service_->bundleIdentifier(*vynBundle());
}

} // namespace tv
