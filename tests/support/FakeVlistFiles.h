// FakeVlistFiles: a scratch directory of files that hold Values, with a
// VlistFileReader that reads them back, for tests of the services that read
// vlist files from disk without depending on the XML parser. Files are real
// (their owner, mode and presence are what the services see); their bytes
// are the binary Value encoding. Anything else in such a file reads as a
// malformed document.
#pragma once

#include "base/Value.h"
#include "platform/formats/VlistFileReader.h"
#include "tests/support/TestDaemon.h"

#include <string>
#include <string_view>

namespace tv::test {

class FakeVlistFiles {
public:
    // Makes a fresh temporary directory (mode 0755), removed with everything
    // in it when the object goes away.
    FakeVlistFiles();

    const std::string& root() const { return dir_.path(); }
    // `relative` under the root.
    std::string path(std::string_view relative) const;

    // Each makes missing parent directories (mode 0755) and returns the
    // absolute path. Modes are applied exactly (no umask).
    std::string makeDirectory(std::string_view relative, unsigned mode = 0755) const;
    std::string writeValue(std::string_view relative, const Value& value, unsigned mode = 0644) const;
    std::string writeText(std::string_view relative, std::string_view text, unsigned mode = 0644) const;
    // An application bundle "Example.app" (identifier "com.example.app")
    // with its executable "example"; returns the bundle's path.
    std::string makeExampleApplication() const;

    static platform::VlistFileReader reader();

private:
    TempDir dir_;
};

} // namespace tv::test
