// The application registry at the size of a large system: 10,000 plug-ins
// in 200 extension points (100 applications of 100 plug-ins each), side by
// side:
//   - OpenCold: the daemon's start on an existing store, serving it as
//     recorded (the scan is left to the watcher; the rows are read on first
//     use);
//   - OpenColdFirstQuery: the same and the first query by extension point,
//     which reads the rows, builds the index and makes that point's records;
//   - OpenColdAllPlugIns: the same with a query that selects every plug-in
//     (every record made);
//   - OpenAndScan: open, scan every bundle, answer the first query (a
//     registry opened with InitialScan::AtOpen);
//   - Rescan: a full rescan that finds nothing changed (what the watcher
//     does after any event, and first of all after the daemon's start);
//   - IndexRebuild: the first query after dropCaches();
//   - QueryOneExtensionPoint: a query by extension point on a warm index
//     (50 plug-ins).
// The bundles are written once into a temporary directory, removed at exit.
#include "platform/process/LinuxBundleService.h"
#include "platform/registry/LinuxApplicationRegistry.h"
#include "platform/security/LinuxCodeSigningService.h"
#include "platform/formats/Vlist.h"
#include "platform/process/LinuxProcessInfo.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

using namespace tv;
namespace fs = std::filesystem;

constexpr int kApplications = 100;
constexpr int kPlugInsPerApplication = 100;
constexpr int kExtensionPoints = 200;

std::string extensionPoint(int n)
{
    return "com.bench.point" + std::to_string(n % kExtensionPoints);
}

class Fixture {
public:
    Fixture()
    {
        char pattern[] = "/tmp/tvd-bench-registry-XXXXXX";
        root_ = ::mkdtemp(pattern);
        config_.applicationRoots = {root_ + "/Applications"};
        config_.systemVolumeRoot = root_ + "/System/";
        config_.systemPlugInsDir = root_ + "/System/Library/PlugIns";
        config_.registryDatabase = root_ + "/state/registry.sqlite";
        config_.containersRoot = root_ + "/containers";
        fs::create_directories(config_.systemPlugInsDir);
        for (int a = 0; a < kApplications; ++a) {
            const std::string app = root_ + "/Applications/App" + std::to_string(a) + ".app";
            fs::create_directories(app + "/PlugIns");
            (void)platform::writeVlistFileAtomically(app + "/Info.vlist",
                                           Value{{"KbBundleIdentifier", Value("com.bench.app" + std::to_string(a))}});
            for (int p = 0; p < kPlugInsPerApplication; ++p) {
                const int n = a * kPlugInsPerApplication + p;
                const std::string bundle = app + "/PlugIns/P" + std::to_string(p) + ".vext";
                fs::create_directories(bundle);
                (void)platform::writeVlistFileAtomically(
                    bundle + "/Info.vlist",
                    Value{{"KbBundleIdentifier", Value("com.bench.plugin" + std::to_string(n))},
                          {"KbBundleVersion", Value("1")},
                          {"KbBundleName", Value("Plug-in " + std::to_string(n))},
                          {"KoExtension", Value{{"KoExtensionPointIdentifier", Value(extensionPoint(n))},
                                                {"KoExtensionAttributes", Value{{"Kind", Value("bench")}}}}}});
            }
        }
        bundles_ = std::make_shared<platform::LinuxBundleService>();
        codeSigning_ = std::make_shared<platform::LinuxCodeSigningService>(
            std::make_shared<platform::LinuxProcessInfo>(), bundles_, std::string());
        // The first open records everything; the benchmarks open an existing store.
        (void)open();
    }
    ~Fixture()
    {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }

    std::shared_ptr<platform::LinuxApplicationRegistry> open(
        platform::LinuxApplicationRegistry::InitialScan scan = platform::LinuxApplicationRegistry::InitialScan::AtOpen)
    {
        auto registry = platform::LinuxApplicationRegistry::create(config_, bundles_, codeSigning_, nullptr, scan);
        return registry ? *registry : nullptr;
    }

private:
    std::string root_;
    platform::PlatformConfig config_;
    std::shared_ptr<platform::LinuxBundleService> bundles_;
    std::shared_ptr<platform::LinuxCodeSigningService> codeSigning_;
};

Fixture& fixture()
{
    static Fixture f;
    return f;
}

const Value kQuery{{"KoExtensionPointIdentifier", Value(extensionPoint(7))}};

// Opens the store `iterations` times, with or without a first query (by
// extension point, or of every plug-in).
void openStore(benchmark::State& state, platform::LinuxApplicationRegistry::InitialScan scan, bool query,
               const Value& q = kQuery)
{
    fixture();
    for (auto _ : state) {
        auto registry = fixture().open(scan);
        if (query) {
            auto found = registry->queryPlugIns(q, {});
            benchmark::DoNotOptimize(found);
        }
        state.PauseTiming();
        registry.reset();
        state.ResumeTiming();
    }
}

void OpenCold(benchmark::State& state)
{
    openStore(state, platform::LinuxApplicationRegistry::InitialScan::WhenWatching, false);
}
BENCHMARK(OpenCold)->Unit(benchmark::kMillisecond)->Iterations(5);

void OpenColdFirstQuery(benchmark::State& state)
{
    openStore(state, platform::LinuxApplicationRegistry::InitialScan::WhenWatching, true);
}
BENCHMARK(OpenColdFirstQuery)->Unit(benchmark::kMillisecond)->Iterations(5);

void OpenColdAllPlugIns(benchmark::State& state)
{
    openStore(state, platform::LinuxApplicationRegistry::InitialScan::WhenWatching, true, Value());
}
BENCHMARK(OpenColdAllPlugIns)->Unit(benchmark::kMillisecond)->Iterations(5);

void OpenAndScan(benchmark::State& state)
{
    openStore(state, platform::LinuxApplicationRegistry::InitialScan::AtOpen, true);
}
BENCHMARK(OpenAndScan)->Unit(benchmark::kMillisecond)->Iterations(3);

void Rescan(benchmark::State& state)
{
    auto registry = fixture().open();
    for (auto _ : state)
        registry->rescan();
}
BENCHMARK(Rescan)->Unit(benchmark::kMillisecond)->Iterations(3);

void IndexRebuild(benchmark::State& state)
{
    auto registry = fixture().open();
    for (auto _ : state) {
        registry->dropCaches();
        auto found = registry->queryPlugIns(kQuery, {});
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(IndexRebuild)->Unit(benchmark::kMillisecond)->Iterations(5);

void QueryOneExtensionPoint(benchmark::State& state)
{
    auto registry = fixture().open();
    std::size_t count = 0;
    for (auto _ : state) {
        auto found = registry->queryPlugIns(kQuery, {});
        count = found ? found->size() : 0;
        benchmark::DoNotOptimize(found);
    }
    state.counters["plugIns"] = static_cast<double>(count);
}
BENCHMARK(QueryOneExtensionPoint)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
