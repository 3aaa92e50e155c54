// The annotation store's change path, setAnnotationForPlugIn (merge + atomic
// save of the whole table), with 10,000 stored annotations, beside a raw
// atomic save of the same bytes in the same run: the difference is what the
// store adds to the file system's cost of a durable replace. Files go to
// $TVD_BENCH_DIR, else the system's temporary directory.
#include "platform/containers/LinuxContainerService.h"
#include "platform/formats/AtomicFile.h"
#include "platform/formats/Vlist.h"
#include "platform/persona/LinuxUserPersona.h"
#include "tvd/TvdAnnotationStore.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

using namespace tv;

constexpr int kAnnotations = 10000;

struct PlugIn {
    std::string key;
    std::string annotationKey() const { return key; }
};

std::string scratchDirectory()
{
    const char* base = std::getenv("TVD_BENCH_DIR");
    std::string tmpl = (base && *base ? std::string(base) : std::filesystem::temp_directory_path().string()) +
                       "/tvd-bench-annotations-XXXXXX";
    if (!::mkdtemp(tmpl.data()))
        std::abort();
    return tmpl;
}

Value annotation(int i)
{
    return Value{{"election", i % 2},
                 {"extension", Value{{"lastUsed", Value(Date::fromSeconds(1795341600 + i))},
                                     {"note", "chosen in settings"}}}};
}

struct Fixture {
    Fixture()
    {
        dir = scratchDirectory();
        TvdAnnotationStore::Services services;
        services.persona = std::make_shared<platform::LinuxUserPersona>(true);
        services.containers = std::make_shared<platform::LinuxContainerService>(dir + "/containers");
        services.globalPath = dir + "/global";
        store = TvdAnnotationStore::initWithDatabase(dir + "/Annotations", services);
        for (int i = 0; i < kAnnotations; ++i)
            store->setAnnotationForPlugIn(annotation(i), PlugIn{"com.example.app" + std::to_string(i) + ".share"});
    }
    ~Fixture() { std::filesystem::remove_all(dir); }

    std::string dir;
    std::unique_ptr<TvdAnnotationStore> store;
};

Fixture& fixture()
{
    static Fixture f;
    return f;
}

void BM_SetAnnotationForPlugIn(benchmark::State& state)
{
    auto& f = fixture();
    PlugIn plugIn{"com.example.app5000.share"};
    int election = 0;
    for (auto _ : state)
        f.store->setAnnotationForPlugIn(Value{{"election", election ^= 1}}, plugIn);
    state.counters["file_bytes"] = static_cast<double>(std::filesystem::file_size(f.dir + "/Annotations"));
}
BENCHMARK(BM_SetAnnotationForPlugIn)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_RawAtomicSaveOfSameBytes(benchmark::State& state)
{
    auto& f = fixture();
    std::ifstream in(f.dir + "/Annotations", std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    std::string path = f.dir + "/Raw";
    for (auto _ : state)
        if (platform::writeFileAtomically(path, bytes, 0600))
            state.SkipWithError("write failed");
    state.counters["file_bytes"] = static_cast<double>(bytes.size());
}
BENCHMARK(BM_RawAtomicSaveOfSameBytes)->Unit(benchmark::kMicrosecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
