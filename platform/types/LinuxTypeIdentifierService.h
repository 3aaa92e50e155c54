// LinuxTypeIdentifierService: type declarations from the vlist files of a
// types directory (PlatformConfig::typesDir).
//
// Every regular file "*.vlist" directly in the directory (names starting
// with "." are skipped: they are the temporary files of atomic writes) holds
// a dictionary whose "TypeDeclarations" is an array of declarations; a
// declaration is a dictionary with "TypeIdentifier" (string) and optionally
// "ConformsTo" (a string or an array of strings). docs/type-identifiers.md
// has the format and an example.
//
// The closure is computed on the first question and again only after the
// directory changed: an inotify watch on the directory is drained (one
// non-blocking read) when a table is asked for, and any event there rebuilds
// the table. A directory that is missing is an empty table, watched for
// again on later questions. Bad input never fails the service: an unreadable
// or malformed file, a malformed declaration, and a declaration cycle are
// each logged (category "types" of the platform's subsystem) and otherwise
// skipped or tolerated.
//
// Thread-safety: any thread; the table is swapped under a mutex and handed
// out as an immutable snapshot.
#pragma once

#include "platform/formats/VlistFileReader.h"
#include "platform/types/TypeIdentifierService.h"

#include <mutex>
#include <string>

namespace tv::platform {

class LinuxTypeIdentifierService final : public TypeIdentifierService {
public:
    explicit LinuxTypeIdentifierService(std::string typesDir, VlistFileReader reader = systemVlistFileReader());
    ~LinuxTypeIdentifierService() override;
    LinuxTypeIdentifierService(const LinuxTypeIdentifierService&) = delete;
    LinuxTypeIdentifierService& operator=(const LinuxTypeIdentifierService&) = delete;

    // Reads the declarations of the directory (no caching, no watch).
    static std::vector<TypeDeclaration> readDeclarations(const std::string& typesDir,
                                                         const VlistFileReader& reader);

    // How many times the closure has been computed (for tests of change
    // detection).
    unsigned buildCount() const;

    // TypeIdentifierService
    bool conformsTo(std::string_view type, std::string_view otherType) override;
    std::shared_ptr<const TypeConformanceTable> table() override;

private:
    bool directoryChangedLocked();
    void rebuildLocked();

    const std::string typesDir_;
    const VlistFileReader reader_;
    mutable std::mutex mutex_;
    int inotifyFd_ = -1;
    int watch_ = -1;
    unsigned buildCount_ = 0;
    std::shared_ptr<const TypeConformanceTable> table_;
};

} // namespace tv::platform
