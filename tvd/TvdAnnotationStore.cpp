#include "tvd/TvdAnnotationStore.h"

#include "Tarvik/TvLog.h"
#include "platform/FileSystem.h"
#include "platform/PosixError.h"
#include "platform/containers/ContainerService.h"
#include "platform/formats/AtomicFile.h"
#include "platform/formats/Vlist.h"
#include "platform/persona/UserPersona.h"
#include "tvd/TvdTrace.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace tv {

namespace {

constexpr const char* kContainerIdentifier = "com.veltra.tvd";
constexpr const char* kStorageDirectory = "com.veltra.tarvik/";
constexpr const char* kFileName = "Annotations";

// The document around the table's entries, as serializeVlist() writes the
// root { "data": table, "version": 16 } (keys in byte order).
constexpr std::string_view kDocumentHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<vlist version=\"1.0\">\n<dict>\n\t<key>data</key>\n";
constexpr std::string_view kDocumentTail = "\t<key>version</key>\n\t<integer>16</integer>\n</dict>\n</vlist>\n";

[[noreturn]] void stopDaemon(const TvdAnnotationStore::Services& services, const std::string& message)
{
    if (services.stop)
        services.stop(message);
    std::fprintf(stderr, "%s\n", message.c_str());
    std::fflush(stderr);
    std::abort();
}

bool isMultiUser(const TvdAnnotationStore::Services& services)
{
    return services.persona && services.persona->isMultiUser();
}

std::string pathOf(const Value& url)
{
    if (const std::string* s = url.asString())
        return *s;
    return url.urlPath();
}

void fail(TvError* out, TvError error)
{
    TvdTrace::dbLoad(error.domain, static_cast<std::uint64_t>(error.code));
    if (out)
        *out = std::move(error);
}

} // namespace

std::unique_ptr<TvdAnnotationStore> TvdAnnotationStore::initWithDatabase(const std::optional<std::string>& databasePath,
                                                                         Services services)
{
    std::unique_ptr<TvdAnnotationStore> store(new TvdAnnotationStore(std::move(services)));
    store->path_ = databasePath ? *databasePath : pathOf(defaultDatabaseURL(store->services_));
    store->start();
    return store;
}

void TvdAnnotationStore::start()
{
    // Saves cut short by a crash leave their temporary files; this daemon
    // is the file's only writer.
    platform::removeStaleTemporaryFiles(path_);
    TvError error;
    if (loadDb(Value(path_), &error)) {
        fileCurrent_ = true;
        return;
    }
    bool missing = error.domain == platform::kPosixErrorDomain && error.code == ENOENT;
    if (!missing)
        TvLog::ops().error("unable to load annotation database:%{public}@ error:%{public}@ (resetting)",
                           annotationsURL(), error.localizedDescription());

    Value source = isMultiUser(services_) ? globalURL(services_) : containerURL(services_);
    if (!loadDb(source))
        return;
    TvLog::ops().info("migrating shared annotations");
    TvError saveError;
    if (!saveDb(&saveError))
        TvLog::ops().error("unable to save migrated annotations to %{public}@ error:%{public}@", annotationsURL(),
                           saveError.localizedDescription());
}

Value TvdAnnotationStore::annotationForIdentifier(const std::string& key) const
{
    auto it = table_.find(key);
    return it == table_.end() ? Value() : it->second;
}

void TvdAnnotationStore::setAnnotationForIdentifier(const Value& annotation, const std::string& key)
{
    if (annotation.isNull()) {
        if (!table_.contains(key) && fileCurrent_)
            return; // nothing to remove
        table_.erase(key);
        written_.erase(key);
    } else {
        TvError error;
        if (!annotation.isDictionary()) {
            TvLog::ops().error("unable to save annotations:%{public}@ error:%{public}@", annotationsURL(),
                               std::string("an annotation must be a dictionary"));
            return;
        }
        Value merged = annotationForIdentifier(key);
        if (!merged.isDictionary())
            merged = Value::emptyDictionary();
        for (const auto& [name, value] : *annotation.asDictionary())
            merged = merged.with(name, value);
        // A change that changes nothing is not saved again: a request that
        // names one plug-in many times costs one save, not one per mention.
        if (auto it = table_.find(key); it != table_.end() && it->second == merged && fileCurrent_)
            return;
        // An entry that cannot be written (text that is not UTF-8, nesting
        // too deep) is refused here: kept in memory it would make every
        // later save fail, and nothing more would be persisted.
        if (!cacheEntry(key, merged, &error)) {
            TvLog::ops().error("unable to save annotations:%{public}@ error:%{public}@", annotationsURL(),
                               error.localizedDescription());
            return;
        }
        table_.insert_or_assign(key, std::move(merged));
    }
    TvError error;
    if (!saveDb(&error))
        TvLog::ops().error("unable to save annotations:%{public}@ error:%{public}@", annotationsURL(),
                           error.localizedDescription());
}

bool TvdAnnotationStore::cacheEntry(const std::string& key, const Value& annotation, TvError* error)
{
    auto text = platform::serializeVlistEntry(key, annotation, 2);
    if (!text.ok()) {
        if (error)
            *error = text.error();
        return false;
    }
    written_.insert_or_assign(key, std::move(*text));
    return true;
}

void TvdAnnotationStore::replaceTable(Dictionary table)
{
    table_.clear();
    written_.clear();
    for (auto& [key, annotation] : table) {
        // Only dictionaries are annotations; the parser only accepts what the
        // writer can write back, so every remaining entry caches.
        if (annotation.isDictionary() && cacheEntry(key, annotation, nullptr))
            table_.emplace(key, std::move(annotation));
    }
}

bool TvdAnnotationStore::loadDb(const Value& url, TvError* error)
{
    auto root = platform::readVlistFile(pathOf(url));
    if (!root.ok()) {
        fail(error, root.error());
        return false;
    }
    std::int64_t version = (*root)["version"].integerValue();
    if (version != kDatabaseVersion) {
        fail(error, makeErrorWithFormat(7, "found database version %d needed version %d", version, kDatabaseVersion));
        return false;
    }
    const Value& data = (*root)["data"];
    replaceTable(data.isDictionary() ? *data.asDictionary() : Dictionary());
    fileCurrent_ = false; // the caller knows whether `url` is the store's own file
    return true;
}

bool TvdAnnotationStore::saveDb(TvError* error)
{
    std::size_t size = kDocumentHead.size() + kDocumentTail.size() + 16;
    for (const auto& [key, text] : written_)
        size += text.size();
    // A file the loader would refuse is never written: the previous one
    // stays, and the change stays in memory only.
    if (size > platform::VlistLimits().maxBytes) {
        fileCurrent_ = false;
        if (error)
            *error = platform::posixError(EFBIG, "the annotation table is too large to save");
        return false;
    }
    // The buffer is kept between saves: a fresh multi-megabyte string would
    // be paged in anew every time.
    std::string& document = document_;
    document.clear();
    document.reserve(size);
    document.append(kDocumentHead);
    if (written_.empty()) {
        document.append("\t<dict/>\n");
    } else {
        document.append("\t<dict>\n");
        for (const auto& [key, text] : written_)
            document.append(text);
        document.append("\t</dict>\n");
    }
    document.append(kDocumentTail);
    // A per-user file is the user's own; the device-wide one stays readable
    // so that per-user daemons can migrate from it.
    unsigned mode = isMultiUser(services_) ? 0600 : 0644;
    if (auto err = platform::writeFileAtomically(path_, document, mode)) {
        fileCurrent_ = false;
        if (error)
            *error = *err;
        return false;
    }
    fileCurrent_ = true;
    return true;
}

Value TvdAnnotationStore::defaultDatabaseURL(const Services& services)
{
    if (!isMultiUser(services))
        return globalURL(services);
    std::string dir = pathOf(containerURL(services)) + kStorageDirectory;
    if (auto err = platform::makeDirectories(dir, 0700)) {
        TvLog::ops().error("failed to create storage directory at %{public}@ - error=%{public}@", Value::fileURL(dir),
                           err->localizedDescription());
        stopDaemon(services, formatString("unable to create plugin annotations directory:%@ error:%@", dir,
                                          err->localizedDescription()));
    }
    std::string path = dir + kFileName;
    TvLog::ops().debug("annotations are stored at %{public}@", path);
    return Value::fileURL(path);
}

Value TvdAnnotationStore::globalURL(const Services& services)
{
    return Value::fileURL(services.globalPath);
}

Value TvdAnnotationStore::containerURL(const Services& services)
{
    std::uint64_t errorNumber = 1;
    if (services.containers) {
        auto path = services.containers->containerPath(platform::ContainerService::kDaemonDataClass,
                                                       kContainerIdentifier, true);
        if (path.ok())
            return Value::fileURL(*path);
        if (path.error().code > 0)
            errorNumber = static_cast<std::uint64_t>(path.error().code);
    }
    TvLog::ops().error("failed to get storage container: error=%llu", errorNumber);
    stopDaemon(services, formatString("unable to locate user container: error %llu", errorNumber));
}

} // namespace tv
