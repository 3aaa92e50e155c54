#include "tvd/TvdAnnotationStore.h"

#include "platform/containers/LinuxContainerService.h"
#include "platform/formats/Vlist.h"
#include "platform/persona/LinuxUserPersona.h"

#include "tests/support/FakeContainerService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>

namespace tv {
namespace {

struct Stopped : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void writeText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string document(const Value& data, const Value& version = Value(16))
{
    auto text = platform::serializeVlist(version.isNull() ? Value{{"data", data}} : Value{{"version", version}, {"data", data}});
    return text.ok() ? *text : std::string();
}

unsigned mode(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
}

class TvdAnnotationStoreTest : public ::testing::Test {
protected:
    TvdAnnotationStore::Services services(bool multiUser = true)
    {
        TvdAnnotationStore::Services s;
        s.persona = std::make_shared<platform::LinuxUserPersona>(multiUser);
        s.containers = std::make_shared<platform::LinuxContainerService>(dir.file("containers"));
        s.globalPath = dir.file("Tarvik-Annotations");
        s.stop = [](const std::string& message) { throw Stopped(message); };
        return s;
    }
    std::unique_ptr<TvdAnnotationStore> open(std::optional<std::string> path = {}, bool multiUser = true)
    {
        return TvdAnnotationStore::initWithDatabase(path ? *path : file(), services(multiUser));
    }
    std::string file() const { return dir.file("Annotations"); }
    std::string saveFailures(const std::string& path) { return "unable to save annotations:file://" + path + " error:"; }

    test::TempDir dir;
    test::LogCapture log;
};

TEST_F(TvdAnnotationStoreTest, SavedFileHoldsExactlyVersionAndDataAndReloads)
{
    const Value table{
        {"com.example.a", Value{{"election", 1}, {"extension", Value{{"note", "<&> \"quoted\" \u00e9"}}}}},
        {"com.example.b", Value{{"extension", Value{{"bytes", Value::data({0, 1, 255})},
                                                    {"when", Value(Date::fromSeconds(1700000000))},
                                                    {"big", Value(18446744073709551615ull)},
                                                    {"list", Value(Array{Value(true), Value(0.1), Value(Dictionary{})})}}}}},
    };
    writeText(dir.file(".Annotations.tmp-1a2b3c4d"), "a save cut short by a crash");
    for (const auto& [key, annotation] : *table.asDictionary())
        open()->setAnnotationForIdentifier(annotation, key);
    EXPECT_EQ(test::readFile(file()), document(table)) << "the file is the XML vlist of the root, byte for byte";
    EXPECT_EQ(Value(open()->annotations()), table);
    for (const auto& e : std::filesystem::directory_iterator(dir.path())) // leftovers are cleared at start
        EXPECT_EQ(e.path().filename(), "Annotations");
}

// How a change merges over an entry is checked end to end, through the
// annotate and bulk-annotate requests and a restart (AnnotateTest); removal
// with an absent annotation below.
TEST_F(TvdAnnotationStoreTest, UnsavableTablesAreRefusedOrKeptInMemoryAndNeverWritten)
{
    auto store = open();
    Value deep = Value(Array{});
    for (int i = 0; i < 70; ++i)
        deep = Value(Array{deep});
    for (const Value& bad : {Value{{"extension", Value{{"t", "bad\x01text"}}}}, Value{{"deep", deep}}, Value("string"),
                             Value{{"extension", Value{{"id", Value(Uuid::random())}}}}}) {
        store->setAnnotationForIdentifier(bad, "bad");
        EXPECT_TRUE(store->annotationForIdentifier("bad").isNull()) << bad.description();
    }
    store->setAnnotationForIdentifier(Value{{"election", 1}}, "small");
    const std::string before = test::readFile(file());
    // A table too large to load again stays in memory only.
    store->setAnnotationForIdentifier(Value{{"blob", Value::data(Bytes(13u << 20, 7))}}, "huge");
    EXPECT_FALSE(store->annotationForIdentifier("huge").isNull());
    EXPECT_EQ(test::readFile(file()), before);
    EXPECT_EQ(log.countContaining(saveFailures(file())), 5u);
    store->setAnnotationForIdentifier(Value(), "huge");
    EXPECT_EQ(Value(open()->annotations()), (Value{{"small", Value{{"election", 1}}}}));
}

TEST_F(TvdAnnotationStoreTest, BadFilesResetWithALogLineAndAreReplacedAtTheFirstChange)
{
    const Value data{{"k", Value{{"election", 1}}}};
    const std::string good = document(data);
    const std::pair<const char*, std::string> cases[] = {
        {"version 15", document(data, Value(15))},
        {"version absent", document(data, Value())},
        {"root a list", *platform::serializeVlist(Value(Array{Value(16)}))},
        {"garbage", "\x89PNG not a vlist"},
        {"empty", ""},
        {"truncated", good.substr(0, good.size() / 2)},
        {"oversized", good.substr(0, good.size() - 9) + std::string(17u << 20, ' ') + "</vlist>\n"},
    };
    for (const auto& [name, text] : cases) {
        SCOPED_TRACE(name);
        writeText(file(), text);
        log.clear();
        auto store = open();
        EXPECT_TRUE(store->annotations().empty());
        ASSERT_EQ(log.countContaining("unable to load annotation database:file://" + file() + " error:"), 1u);
        EXPECT_EQ(log.countContaining(" (resetting)"), 1u);
        EXPECT_EQ(test::readFile(file()), text) << "the bad file stays until the first change";
        store->setAnnotationForIdentifier(Value{{"election", 1}}, "k");
        EXPECT_EQ(test::readFile(file()), good);
    }
    writeText(file(), cases[0].second);
    log.clear();
    TvError error;
    EXPECT_FALSE(open()->loadDb(Value::fileURL(file()), &error));
    EXPECT_TRUE(log.contains("unable to load annotation database:file://" + file() +
                             " error:found database version 15 needed version 16 (resetting)"));
    EXPECT_EQ(std::tuple(error.domain, error.code), std::tuple(std::string("Tarvik"), 7));

    // Without usable data: an empty table, silently; so is a missing file.
    for (const Value& d : {Value("nope"), Value{{"k", 5}}}) {
        writeText(file(), document(d));
        log.clear();
        EXPECT_TRUE(open()->annotationForIdentifier("k").isNull());
        EXPECT_EQ(log.lines().size(), 0u);
    }
    std::filesystem::remove(file());
    EXPECT_TRUE(open()->annotations().empty());
    EXPECT_EQ(log.lines().size(), 0u);
}

TEST_F(TvdAnnotationStoreTest, PerUserDaemonMigratesTheDeviceWideFileOnce)
{
    const std::string userFile = dir.file("containers/class-10/com.veltra.tvd/com.veltra.tarvik/Annotations");
    const std::string shared = document(Value{{"a", Value{{"election", 1}}}});
    writeText(dir.file("Tarvik-Annotations"), shared);
    auto store = TvdAnnotationStore::initWithDatabase(std::nullopt, services());
    EXPECT_EQ(store->annotationsURL(), Value::fileURL(userFile));
    EXPECT_EQ(log.count("migrating shared annotations"), 1u);
    EXPECT_EQ(log.count("annotations are stored at " + userFile), 1u);
    EXPECT_EQ(test::readFile(userFile), shared);
    EXPECT_EQ(test::readFile(dir.file("Tarvik-Annotations")), shared) << "the source is not changed";
    EXPECT_EQ(mode(std::filesystem::path(userFile).parent_path()), 0700u);
    store->setAnnotationForIdentifier(Value{{"election", 0}}, "a");
    auto again = TvdAnnotationStore::initWithDatabase(std::nullopt, services());
    EXPECT_EQ(log.count("migrating shared annotations"), 1u) << "the user's own file wins";
    EXPECT_EQ(again->annotationForIdentifier("a"), (Value{{"election", 0}}));

    // A migrated table that cannot be saved stays in memory.
    const std::string unwritable = dir.file("missing-dir/Annotations");
    store = open(unwritable);
    EXPECT_EQ(store->annotationForIdentifier("a"), (Value{{"election", 1}}));
    EXPECT_EQ(log.countContaining("unable to save migrated annotations to file://" + unwritable + " error:"), 1u);
    store->setAnnotationForIdentifier(Value{{"election", 0}}, "a");
    EXPECT_EQ(store->annotationForIdentifier("a"), (Value{{"election", 0}}));
    EXPECT_EQ(log.countContaining(saveFailures(unwritable)), 1u);
}

TEST_F(TvdAnnotationStoreTest, SingleUserDaemonUsesTheDeviceWideFileReadableByAll)
{
    auto store = TvdAnnotationStore::initWithDatabase(std::nullopt, services(false));
    EXPECT_EQ(store->annotationsURL(), Value::fileURL(dir.file("Tarvik-Annotations")));
    store->setAnnotationForIdentifier(Value{{"election", 1}}, "a");
    EXPECT_EQ(mode(dir.file("Tarvik-Annotations")), 0644u);
}

TEST_F(TvdAnnotationStoreTest, DefaultLocationFailuresStopTheDaemonWithTheirMessage)
{
    auto s = services();
    auto stopMessage = [&] {
        try {
            TvdAnnotationStore::initWithDatabase(std::nullopt, s);
        } catch (const Stopped& e) {
            return std::string(e.what());
        }
        return std::string("not stopped");
    };
    s.containers = test::FakeContainerService::failing(ENOSPC);
    EXPECT_EQ(stopMessage(), "unable to locate user container: error " + std::to_string(ENOSPC));

    auto fake = std::make_shared<test::FakeContainerService>();
    fake->path = dir.path() + "/";
    writeText(dir.file("com.veltra.tarvik"), "a file where the directory goes");
    s.containers = fake;
    EXPECT_EQ(stopMessage().rfind("unable to create plugin annotations directory:" + dir.path() + "/com.veltra.tarvik/ error:", 0), 0u);
    EXPECT_EQ(std::tuple(fake->lastClass, fake->lastIdentifier, fake->lastCreate), std::tuple(10u, "com.veltra.tvd", true));
}

} // namespace
} // namespace tv
