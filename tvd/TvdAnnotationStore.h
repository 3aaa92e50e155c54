// TvdAnnotationStore: the plug-in annotations (the user's election of each
// plug-in and the values clients set for it), kept in memory and saved to one
// file after every change so that they survive restarts.
//
// The table maps an annotation key (a plug-in's `annotationKey()`: its
// replace-plugin entitlement when that is a string, else its identifier) to
// an annotation dictionary. The file is an XML vlist document whose root
// dictionary holds exactly "version" (the integer 16) and "data" (the table);
// any other version is refused as a whole. Every save replaces the file
// atomically (temporary file, fsync, rename, fsync of the directory), so the
// file on disk is always one complete table, however the daemon is stopped.
//
// Where the file lives: the path given at creation, else, in multi-user mode
// (a per-user daemon), "com.veltra.tarvik/Annotations" inside the user's
// container (class 10, "com.veltra.tvd"), else the device-wide file
// (`global_annotations` of the platform configuration,
// "/var/db/Tarvik-Annotations" by default). A file that is missing, damaged,
// oversized, too deeply nested or of another version never stops the daemon:
// the store starts empty or from the migration source (docs/annotation-store.md).
//
// Threading: the store has no lock. Its one owner, the registry database,
// calls it only on the database's serial queue; saving happens there,
// synchronously with the change.
#pragma once

#include "base/TvError.h"
#include "base/Value.h"

#include <concepts>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace tv {

namespace platform {
class UserPersona;
class ContainerService;
} // namespace platform

class TvdAnnotationStore {
public:
    // The version written to and required of the file.
    static constexpr std::int64_t kDatabaseVersion = 16;

    // What the store needs of the platform.
    struct Services {
        std::shared_ptr<platform::UserPersona> persona;
        std::shared_ptr<platform::ContainerService> containers;
        // The device-wide file (the platform configuration's
        // `global_annotations`).
        std::string globalPath = "/var/db/Tarvik-Annotations";
        // Stops the daemon with a message; must not return. Null: the message
        // goes to standard error and the process aborts. Tests throw instead.
        std::function<void(const std::string& message)> stop;
    };

    // Loads the table from `databasePath` (or the default location when
    // absent), migrating or starting empty when that fails. Never null; may
    // stop the daemon when the default location cannot be made.
    static std::unique_ptr<TvdAnnotationStore> initWithDatabase(const std::optional<std::string>& databasePath,
                                                                Services services);

    // The file the table is read from and written to (a file URL).
    Value annotationsURL() const { return Value::fileURL(path_); }
    // The table: annotation key to annotation dictionary.
    const Dictionary& annotations() const { return table_; }

    // The annotation stored under `key`, or null.
    Value annotationForIdentifier(const std::string& key) const;

    // Stores `annotation` under `key` merged over what is there (given keys
    // replace existing ones whole; keys not given keep their values); a null
    // annotation removes the whole entry. Then saves; a failed save is logged
    // ("unable to save annotations:...") and the change stays in memory.
    // A change that leaves the entry as it was is not saved again, unless the
    // file is known to differ from the table (a failed save or load).
    // A non-null annotation that is not a dictionary is refused with a log line.
    void setAnnotationForIdentifier(const Value& annotation, const std::string& key);

    // The same, under the plug-in's annotation key.
    template <class PlugIn>
        requires requires(const PlugIn& p) { { p.annotationKey() } -> std::convertible_to<std::string>; }
    Value annotationForPlugIn(const PlugIn& plugIn) const
    {
        return annotationForIdentifier(plugIn.annotationKey());
    }
    template <class PlugIn>
        requires requires(const PlugIn& p) { { p.annotationKey() } -> std::convertible_to<std::string>; }
    void setAnnotationForPlugIn(const Value& annotation, const PlugIn& plugIn)
    {
        setAnnotationForIdentifier(annotation, plugIn.annotationKey());
    }

    // Replaces the table with the one in the file at `url` (a file URL or a
    // path). False, with the reason in `error` when given, when the file
    // cannot be read or parsed or its version is not 16 (code 7, "found
    // database version %d needed version %d"); the table is then unchanged.
    bool loadDb(const Value& url, TvError* error = nullptr);

    // Writes the table to `annotationsURL()`. False, with the reason, when
    // it could not be serialised (or would be too large to load again) or
    // written; the file is then unchanged.
    bool saveDb(TvError* error = nullptr);

    // The default file: see the class comment. In multi-user mode the
    // directory is made (mode 0700); failing that stops the daemon.
    static Value defaultDatabaseURL(const Services& services);
    // The device-wide file.
    static Value globalURL(const Services& services);
    // The user's container (a directory URL); failing to get it stops the
    // daemon.
    static Value containerURL(const Services& services);

private:
    explicit TvdAnnotationStore(Services services) : services_(std::move(services)) {}

    void start();
    void replaceTable(Dictionary table);
    bool cacheEntry(const std::string& key, const Value& annotation, TvError* error);

    Services services_;
    std::string path_;
    Dictionary table_;
    // Each entry of `table_` as it is written in the file's "data"
    // dictionary, so that a save after one change serialises only that entry.
    std::map<std::string, std::string, std::less<>> written_;
    std::string document_; // the last file written, reused as the next one's buffer
    // True while the file holds exactly the table: after a load or a save
    // that succeeded.
    bool fileCurrent_ = false;
};

} // namespace tv
