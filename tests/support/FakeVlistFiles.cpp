#include "tests/support/FakeVlistFiles.h"

#include "base/ValueCodec.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace tv::test {

FakeVlistFiles::FakeVlistFiles()
{
    ::chmod(root().c_str(), 0755);
}

std::string FakeVlistFiles::path(std::string_view relative) const
{
    return (fs::path(root()) / relative).string();
}

std::string FakeVlistFiles::makeDirectory(std::string_view relative, unsigned mode) const
{
    // Component by component, so that no directory takes its mode from the
    // umask.
    fs::path dir = root();
    for (const fs::path& part : fs::path(relative).relative_path()) {
        dir /= part;
        if (!fs::exists(dir)) {
            fs::create_directory(dir);
            ::chmod(dir.c_str(), 0755);
        }
    }
    ::chmod(dir.c_str(), mode);
    return dir.string();
}

std::string FakeVlistFiles::writeValue(std::string_view relative, const Value& value, unsigned mode) const
{
    Bytes bytes;
    if (encodeValue(value, bytes))
        throw std::runtime_error("value cannot be encoded");
    return writeText(relative, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()), mode);
}

std::string FakeVlistFiles::writeText(std::string_view relative, std::string_view text, unsigned mode) const
{
    const fs::path file = path(relative);
    const fs::path parent = fs::path(relative).parent_path();
    if (!parent.empty() && !fs::exists(path(parent.string())))
        makeDirectory(parent.string());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
    ::chmod(file.c_str(), mode);
    return file.string();
}

platform::VlistFileReader FakeVlistFiles::reader()
{
    return [](const std::string& file) -> Result<Value> {
        std::ifstream in(file, std::ios::binary);
        if (!in)
            return makeError(2, "cannot open " + file);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        return decodeValue(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
    };
}

std::string FakeVlistFiles::makeExampleApplication() const
{
    std::string app = makeDirectory("Example.app");
    writeValue("Example.app/Info.vlist",
               Value{{"KbBundleIdentifier", Value("com.example.app")}, {"KbBundleExecutable", Value("example")}});
    writeText("Example.app/example", "x", 0755);
    return app;
}

} // namespace tv::test
