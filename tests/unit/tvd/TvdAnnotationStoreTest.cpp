#include "tvd/TvdAnnotationStore.h"

#include "platform/containers/LinuxContainerService.h"
#include "platform/formats/Vlist.h"
#include "platform/persona/LinuxUserPersona.h"

#include "tests/support/FakeContainerService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestDaemon.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>
#include <sys/wait.h>
#include <unistd.h>

namespace tv {
namespace {

// What the store asks of a plug-in.
struct PlugIn {
    std::string key;
    std::string annotationKey() const { return key; }
};

struct Stopped : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string readAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

void writeText(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string document(const Value& root)
{
    auto text = platform::serializeVlist(root);
    EXPECT_TRUE(text.ok());
    return text.ok() ? *text : std::string();
}

class TvdAnnotationStoreTest : public ::testing::Test {
protected:
    TvdAnnotationStore::Services services(bool multiUser)
    {
        TvdAnnotationStore::Services s;
        s.persona = std::make_shared<platform::LinuxUserPersona>(multiUser ? 1000 : 0);
        s.containers = std::make_shared<platform::LinuxContainerService>(dir.file("containers"));
        s.globalPath = dir.file("Tarvik-Annotations");
        s.stop = [](const std::string& message) { throw Stopped(message); };
        return s;
    }
    std::unique_ptr<TvdAnnotationStore> open(bool multiUser = true)
    {
        return TvdAnnotationStore::initWithDatabase(file(), services(multiUser));
    }
    std::string file() const { return dir.file("Annotations"); }
    std::string userFile() const { return dir.file("containers/class-10/com.veltra.tvd/com.veltra.tarvik/Annotations"); }

    test::TempDir dir;
    test::LogCapture log;
};

TEST_F(TvdAnnotationStoreTest, SavedFileHoldsExactlyVersionAndDataAndReloads)
{
    const Value table{
        {"com.example.a", Value{{"election", 1}, {"extension", Value{{"note", "<&> \"quoted\" \u00e9"}}}}},
        {"com.example.b",
         Value{{"election", 0},
               {"extension", Value{{"bytes", Value::data({0, 1, 255})},
                                   {"when", Value(Date::fromSeconds(1700000000))},
                                   {"big", Value(18446744073709551615ull)},
                                   {"real", Value(0.1)},
                                   {"list", Value(Array{Value(true), Value(-3), Value(Dictionary{})})}}}}},
    };
    {
        auto store = open();
        for (const auto& [key, annotation] : *table.asDictionary())
            store->setAnnotationForPlugIn(annotation, PlugIn{key});
        EXPECT_EQ(Value(store->annotations()), table);
    }
    const Value root{{"version", 16}, {"data", table}};
    EXPECT_EQ(readAll(file()), document(root)) << "the file is the XML vlist of the root, byte for byte";
    EXPECT_EQ(Value(open()->annotations()), table);
    EXPECT_EQ(log.countContaining("unable"), 0u);
}

TEST_F(TvdAnnotationStoreTest, ChangesMergeOverTheEntryAndNoneRemovesIt)
{
    auto store = open();
    PlugIn a{"com.example.a"};
    PlugIn replacement{"com.example.a"}; // another plug-in whose replace-plugin entitlement names a
    store->setAnnotationForPlugIn(Value{{"election", 0}, {"extension", Value{{"x", 1}, {"y", 2}}}}, a);
    store->setAnnotationForPlugIn(Value{{"election", 1}}, replacement);
    EXPECT_EQ(store->annotationForPlugIn(a), (Value{{"election", 1}, {"extension", Value{{"x", 1}, {"y", 2}}}}));
    // Values are replaced whole, not merged.
    store->setAnnotationForPlugIn(Value{{"extension", Value{{"z", 3}}}}, a);
    EXPECT_EQ(store->annotationForPlugIn(a), (Value{{"election", 1}, {"extension", Value{{"z", 3}}}}));
    store->setAnnotationForPlugIn(Value{{"election", 1}}, PlugIn{"com.example.b"});
    EXPECT_EQ(open()->annotations().size(), 2u) << "every change is saved at once";

    store->setAnnotationForPlugIn(Value(), a);
    EXPECT_TRUE(store->annotationForPlugIn(a).isNull());
    EXPECT_EQ(Value(open()->annotations()), (Value{{"com.example.b", Value{{"election", 1}}}}));
    store->setAnnotationForPlugIn(Value(), PlugIn{"com.example.b"});
    EXPECT_EQ(*platform::readVlistFile(file()), (Value{{"version", 16}, {"data", Value(Dictionary{})}}));
}

TEST_F(TvdAnnotationStoreTest, UnwritableAnnotationsAreRefusedAndDoNotBlockLaterSaves)
{
    auto store = open();
    std::string badText = "bad\x01text";
    Value deep = Value(Array{});
    for (int i = 0; i < 70; ++i)
        deep = Value(Array{deep});
    for (const Value& bad : {Value{{"extension", Value{{"t", badText}}}}, Value{{"deep", deep}}, Value("string")}) {
        store->setAnnotationForPlugIn(bad, PlugIn{"com.example.bad"});
        EXPECT_TRUE(store->annotationForPlugIn(PlugIn{"com.example.bad"}).isNull()) << bad.description();
    }
    EXPECT_EQ(log.countContaining("unable to save annotations:file://" + file() + " error:"), 3u);
    store->setAnnotationForPlugIn(Value{{"election", 1}}, PlugIn{"com.example.good"});
    EXPECT_EQ(Value(open()->annotations()), (Value{{"com.example.good", Value{{"election", 1}}}}));
}

TEST_F(TvdAnnotationStoreTest, BadFilesResetWithALogLineAndAreReplacedAtTheFirstChange)
{
    const std::string good = document(Value{{"version", 16}, {"data", Value{{"k", Value{{"election", 1}}}}}});
    std::string deep;
    for (int i = 0; i < 200; ++i)
        deep = "<array>" + deep + "</array>";
    struct Case {
        const char* name;
        std::string text;
    };
    const Case cases[] = {
        {"version 15", document(Value{{"version", 15}, {"data", Value{{"k", Value{{"election", 1}}}}}})},
        {"version absent", document(Value{{"data", Value{{"k", Value{{"election", 1}}}}}})},
        {"root a list", document(Value(Array{Value(16)}))},
        {"garbage", "\x89PNG not a vlist"},
        {"empty", ""},
        {"truncated", good.substr(0, good.size() / 2)},
        {"deeply nested", "<?xml version=\"1.0\"?><vlist version=\"1.0\"><dict><key>version</key><integer>16</integer>"
                          "<key>data</key>" + deep + "</dict></vlist>"},
        {"doctype", "<?xml version=\"1.0\"?><!DOCTYPE x [<!ENTITY a \"b\">]><vlist version=\"1.0\"><dict/></vlist>"},
        {"oversized", good.substr(0, good.size() - 9) + std::string(17u << 20, ' ') + "</vlist>\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeText(file(), c.text);
        log.clear();
        auto store = open();
        EXPECT_TRUE(store->annotations().empty());
        ASSERT_EQ(log.countContaining("unable to load annotation database:file://" + file() + " error:"), 1u);
        EXPECT_EQ(log.countContaining(" (resetting)"), 1u);
        EXPECT_EQ(readAll(file()), c.text) << "the bad file stays until the first change";
        store->setAnnotationForPlugIn(Value{{"election", 1}}, PlugIn{"k"});
        EXPECT_EQ(readAll(file()), good);
    }

    // The version is named in the error.
    writeText(file(), cases[0].text);
    log.clear();
    open();
    EXPECT_TRUE(log.contains("unable to load annotation database:file://" + file() +
                             " error:found database version 15 needed version 16 (resetting)"));
    TvError error;
    auto store = open();
    EXPECT_FALSE(store->loadDb(Value::fileURL(file()), &error));
    EXPECT_EQ(error.code, 7);
    EXPECT_EQ(error.domain, "Tarvik");

    // A missing file is silent.
    std::filesystem::remove(file());
    log.clear();
    EXPECT_TRUE(open()->annotations().empty());
    EXPECT_EQ(log.lines().size(), 0u);
}

TEST_F(TvdAnnotationStoreTest, VersionSixteenWithoutUsableDataIsAnEmptyTable)
{
    for (const Value& root : {Value{{"version", 16}}, Value{{"version", 16}, {"data", "nope"}},
                              Value{{"version", 16}, {"data", Value{{"k", 5}, {"ok", Value{{"election", 1}}}}}}}) {
        writeText(file(), document(root));
        log.clear();
        auto store = open();
        EXPECT_EQ(log.countContaining("unable"), 0u);
        EXPECT_TRUE(store->annotationForIdentifier("k").isNull()) << "only dictionaries are annotations";
    }
}

TEST_F(TvdAnnotationStoreTest, PerUserDaemonMigratesTheDeviceWideFileOnce)
{
    const Value shared{{"version", 16}, {"data", Value{{"com.example.a", Value{{"election", 1}}}}}};
    writeText(dir.file("Tarvik-Annotations"), document(shared));
    const std::string before = readAll(dir.file("Tarvik-Annotations"));

    auto store = TvdAnnotationStore::initWithDatabase(std::nullopt, services(true));
    EXPECT_EQ(store->annotationsURL(), Value::fileURL(userFile()));
    EXPECT_EQ(store->annotationForIdentifier("com.example.a"), (Value{{"election", 1}}));
    EXPECT_EQ(log.count("migrating shared annotations"), 1u);
    EXPECT_EQ(log.count("annotations are stored at " + userFile()), 1u);
    EXPECT_EQ(*platform::readVlistFile(userFile()), shared);
    EXPECT_EQ(readAll(dir.file("Tarvik-Annotations")), before) << "the source is not changed";
    struct stat st {};
    ASSERT_EQ(::stat(std::filesystem::path(userFile()).parent_path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    store->setAnnotationForIdentifier(Value{{"election", 0}}, "com.example.a");
    log.clear();
    auto again = TvdAnnotationStore::initWithDatabase(std::nullopt, services(true));
    EXPECT_EQ(log.count("migrating shared annotations"), 0u) << "the user's own file wins";
    EXPECT_EQ(again->annotationForIdentifier("com.example.a"), (Value{{"election", 0}}));
}

TEST_F(TvdAnnotationStoreTest, MigratedTableStaysInMemoryWhenItCannotBeSaved)
{
    writeText(dir.file("Tarvik-Annotations"),
              document(Value{{"version", 16}, {"data", Value{{"a", Value{{"election", 1}}}}}}));
    std::string unwritable = dir.file("missing-dir/Annotations");
    auto store = TvdAnnotationStore::initWithDatabase(unwritable, services(true));
    EXPECT_EQ(store->annotationForIdentifier("a"), (Value{{"election", 1}}));
    EXPECT_EQ(log.countContaining("unable to save migrated annotations to file://" + unwritable + " error:"), 1u);
    EXPECT_EQ(log.countContaining("unable to load annotation database"), 0u) << "a missing file is silent";

    store->setAnnotationForIdentifier(Value{{"election", 0}}, "a");
    EXPECT_EQ(store->annotationForIdentifier("a"), (Value{{"election", 0}})) << "kept in memory";
    EXPECT_EQ(log.countContaining("unable to save annotations:file://" + unwritable + " error:"), 1u);
}

TEST_F(TvdAnnotationStoreTest, SingleUserDaemonUsesTheDeviceWideFile)
{
    auto store = TvdAnnotationStore::initWithDatabase(std::nullopt, services(false));
    EXPECT_EQ(store->annotationsURL(), Value::fileURL(dir.file("Tarvik-Annotations")));
    EXPECT_TRUE(store->annotations().empty()) << "the container directory migrates nothing";
    store->setAnnotationForIdentifier(Value{{"election", 1}}, "a");
    struct stat st {};
    ASSERT_EQ(::stat(dir.file("Tarvik-Annotations").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u) << "readable by per-user daemons that migrate from it";
}

TEST_F(TvdAnnotationStoreTest, DefaultLocationFailuresStopTheDaemonWithTheirMessage)
{
    auto s = services(true);
    // The message the daemon stops with, or "not stopped".
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
    EXPECT_TRUE(log.contains("failed to get storage container: error=" + std::to_string(ENOSPC)));

    auto fake = std::make_shared<test::FakeContainerService>();
    fake->path = dir.path() + "/";
    writeText(dir.file("com.veltra.tarvik"), "a file where the directory goes");
    s.containers = fake;
    const std::string message = stopMessage();
    EXPECT_EQ(message.rfind("unable to create plugin annotations directory:" + dir.path() + "/com.veltra.tarvik/ error:", 0),
              0u)
        << message;
    EXPECT_EQ(log.countContaining("failed to create storage directory at file://" + dir.path() +
                                  "/com.veltra.tarvik/ - error="),
              1u);
    EXPECT_EQ(fake->lastClass, 10u);
    EXPECT_EQ(fake->lastIdentifier, "com.veltra.tvd");
    EXPECT_TRUE(fake->lastCreate);
}

TEST_F(TvdAnnotationStoreTest, ATableTooLargeToLoadAgainIsNeverWritten)
{
    auto store = open();
    store->setAnnotationForIdentifier(Value{{"election", 1}}, "small");
    const std::string before = readAll(file());
    store->setAnnotationForIdentifier(Value{{"blob", Value::data(Bytes(13u << 20, 7))}}, "huge");
    EXPECT_FALSE(store->annotationForIdentifier("huge").isNull()) << "kept in memory";
    EXPECT_EQ(readAll(file()), before);
    EXPECT_EQ(log.countContaining("unable to save annotations:file://" + file() + " error:"), 1u);
    // Removing it makes the table savable again.
    store->setAnnotationForIdentifier(Value(), "huge");
    store->setAnnotationForIdentifier(Value{{"election", 0}}, "small");
    EXPECT_EQ(open()->annotationForIdentifier("small"), (Value{{"election", 0}}));
}

// A daemon killed at any instant while it saves leaves one whole table: the
// last one written, or the one before it.
TEST_F(TvdAnnotationStoreTest, KilledWhileSavingNeverLeavesADamagedFile)
{
    constexpr int kKills = 200;
    constexpr int kKeys = 8;
    auto padding = std::string(2000, 'p');
    std::mt19937 random(12345);
    std::uint64_t lastSeen = 0;
    int progressed = 0;
    int kills = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(8);
    for (int kill = 0; kill < kKills && std::chrono::steady_clock::now() < deadline; ++kill) {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(ready[0]);
            // Writes generation n to every key, one key per save, so that a
            // file mixing two saves would show two generations in one table.
            auto store = TvdAnnotationStore::initWithDatabase(file(), services(true));
            // Resume where the killed child stopped: the first key still
            // at the older generation, or a new generation.
            std::uint64_t top = 0;
            std::vector<std::uint64_t> found;
            for (int k = 0; k < kKeys; ++k) {
                found.push_back(store->annotationForIdentifier("k" + std::to_string(k))["n"].unsignedValue());
                top = std::max(top, found.back());
            }
            int start = 0;
            while (start < kKeys && found[start] == top)
                ++start;
            std::uint64_t n = top;
            if (start == kKeys)
                start = 0, n = top + 1;
            for (;; start = 0, ++n) {
                for (int k = start; k < kKeys; ++k) {
                    store->setAnnotationForIdentifier(Value{{"n", Value(n)}, {"pad", padding}}, "k" + std::to_string(k));
                    if (ready[1] >= 0) {
                        (void)!::write(ready[1], "r", 1); // saving for real now
                        ::close(ready[1]);
                        ready[1] = -1;
                    }
                }
            }
        }
        ::close(ready[1]);
        char byte;
        ASSERT_EQ(::read(ready[0], &byte, 1), 1);
        ::close(ready[0]);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status));
        ++kills;

        auto root = platform::readVlistFile(file());
        ASSERT_TRUE(root.ok()) << "kill " << kill << ": " << root.error().localizedDescription();
        ASSERT_EQ((*root)["version"], Value(16));
        const Value& data = (*root)["data"];
        ASSERT_TRUE(data.isDictionary());
        // Keys are written in order within a generation: k0..kj at n, the
        // rest at n-1. The sum of generations only grows.
        std::uint64_t top = 0, bottom = UINT64_MAX, sum = 0;
        for (int k = 0; k < kKeys; ++k) {
            const Value& entry = data["k" + std::to_string(k)];
            std::uint64_t n = entry.isNull() ? 0 : entry["n"].unsignedValue(); // absent: the first generation was cut short
            if (!entry.isNull()) {
                ASSERT_EQ(entry["pad"], Value(padding)) << "kill " << kill << " key " << k;
            }
            top = std::max(top, n);
            bottom = std::min(bottom, n);
            sum += n;
        }
        ASSERT_LE(top - bottom, 1u) << "kill " << kill << ": a table mixing saves";
        ASSERT_GE(sum, lastSeen) << "kill " << kill << ": a save went backwards";
        progressed += sum > lastSeen;
        lastSeen = sum;
    }
    // 200 kills on an idle machine; fewer when it is loaded or sanitised,
    // but never so few that the test proves nothing.
    EXPECT_GE(progressed, 20) << "the children saved too little to prove anything";
    std::cout << kills << " kills, " << progressed << " of them after progress\n";
    // The next start clears what the killed saves left behind.
    open();
    for (const auto& e : std::filesystem::directory_iterator(dir.path()))
        EXPECT_EQ(e.path().filename(), "Annotations");
}

} // namespace
} // namespace tv
