// The registry database over the real application registry with 10,000
// plug-ins on disk (one application holding them all, as a worst case for
// one directory): lookups by UUID from the cache and from the registry, a
// purge and refill at the cache limit, and the memory that 10,000 cached
// records cost.
//
// The platform is built once in a temporary directory (TVD_BENCH_DIR to keep
// or reuse one) and removed at exit.
#include "Tarvik/TvBundle.h"
#include "platform/PlatformConfig.h"
#include "platform/formats/Vlist.h"
#include "platform/process/LinuxBundleService.h"
#include "platform/process/LinuxProcessInfo.h"
#include "platform/registry/LinuxApplicationRegistry.h"
#include "platform/security/LinuxCodeSigningService.h"
#include "tvd/TvDatabase.h"
#include "tvd/TvdPlugIn.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace {

using namespace tv;

constexpr int kPlugIns = 10000;

struct Platform {
    std::string root;
    std::shared_ptr<platform::LinuxApplicationRegistry> registry;
    std::vector<Uuid> uuids;
};

Platform& sharedPlatform()
{
    static Platform p = [] {
        Platform p;
        const char* kept = std::getenv("TVD_BENCH_DIR");
        if (kept) {
            p.root = kept;
        } else {
            char tmpl[] = "/tmp/tvd-bench-db-XXXXXX";
            p.root = ::mkdtemp(tmpl);
            std::atexit([] { std::filesystem::remove_all(sharedPlatform().root); });
        }
        std::string app = p.root + "/Applications/Big.app";
        if (!std::filesystem::exists(app + "/PlugIns")) {
            std::filesystem::create_directories(app + "/PlugIns");
            (void)platform::writeVlistFileAtomically(app + "/Info.vlist",
                                                     Value{{"KbBundleIdentifier", "com.example.big"}});
            for (int i = 0; i < kPlugIns; ++i) {
                std::string id = "com.example.big.p" + std::to_string(i);
                std::string dir = app + "/PlugIns/P" + std::to_string(i) + ".vext";
                std::filesystem::create_directories(dir);
                Value info{{"KbBundleIdentifier", id},
                           {"KbBundleVersion", "1"},
                           {"KbBundleName", "Plug-in " + std::to_string(i)},
                           {"KoExtension", Value{{"KoExtensionPointIdentifier", "com.veltra.share-services"},
                                                 {"KoExtensionAttributes", Value{{"KoExtensionVersion", "1"}}}}}};
                (void)platform::writeVlistFileAtomically(dir + "/Info.vlist", info);
            }
        }
        auto config = platform::PlatformConfig::defaults();
        config.applicationRoots = {p.root + "/Applications"};
        config.systemVolumeRoot = p.root + "/System";
        config.systemPlugInsDir = p.root + "/System/Library/PlugIns";
        config.registryDatabase = p.root + "/registry.sqlite";
        config.containersRoot = p.root + "/containers";
        config.entitlementsDropInDir = p.root + "/entitlements.d";
        auto bundles = std::make_shared<platform::LinuxBundleService>();
        TvBundle::setBundleService(bundles);
        auto signing = std::make_shared<platform::LinuxCodeSigningService>(
            std::make_shared<platform::LinuxProcessInfo>(), bundles, config.entitlementsDropInDir);
        auto registry = platform::LinuxApplicationRegistry::create(config, bundles, signing);
        if (!registry) {
            std::fprintf(stderr, "registry: %s\n", registry.error().localizedDescription().c_str());
            std::exit(1);
        }
        p.registry = *registry;
        for (const auto& r : p.registry->allPlugIns())
            p.uuids.push_back(r->uuid);
        TvdPlugIn::setSystemVolumeRoot(config.systemVolumeRoot);
        return p;
    }();
    return p;
}

std::shared_ptr<TvDatabase> freshDatabase(std::uint32_t limit)
{
    auto db = TvDatabase::initWithDatabase((sharedPlatform().root + "/Annotations").c_str(), sharedPlatform().registry);
    db->setCacheLimit(limit);
    return db;
}

// Resident set size of this process, in bytes.
long residentBytes()
{
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

void BM_FindPlugInCached(benchmark::State& state)
{
    auto& p = sharedPlatform();
    auto db = freshDatabase(1000000);
    for (const auto& u : p.uuids)
        db->findPlugIn(u);
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(db->findPlugIn(p.uuids[i]));
        i = (i + 1) % p.uuids.size();
    }
}
BENCHMARK(BM_FindPlugInCached);

// Every lookup misses the cache: the registry is asked and a record built.
void BM_FindPlugInUncached(benchmark::State& state)
{
    auto& p = sharedPlatform();
    auto db = freshDatabase(1000000);
    std::size_t i = 0;
    for (auto _ : state) {
        if (i == p.uuids.size()) {
            state.PauseTiming();
            db = freshDatabase(1000000);
            i = 0;
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(db->findPlugIn(p.uuids[i++]));
    }
}
BENCHMARK(BM_FindPlugInUncached);

// With the cache full at its limit, one creation purges everything (and the
// registry's caches); then the whole working set is built again.
void BM_PurgeAndRefillAtLimit(benchmark::State& state)
{
    auto& p = sharedPlatform();
    const auto limit = static_cast<std::uint32_t>(p.uuids.size() - 1);
    for (auto _ : state) {
        state.PauseTiming();
        auto db = freshDatabase(limit);
        for (const auto& u : p.uuids)
            db->findPlugIn(u);
        state.ResumeTiming();
        for (const auto& u : p.uuids) // the first purges
            db->findPlugIn(u);
    }
    state.counters["records"] = static_cast<double>(p.uuids.size());
}
BENCHMARK(BM_PurgeAndRefillAtLimit)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_ResidentMemoryOf10kCachedRecords(benchmark::State& state)
{
    auto& p = sharedPlatform();
    for (auto _ : state) {
        long before = residentBytes();
        auto db = freshDatabase(1000000);
        for (const auto& u : p.uuids)
            db->findPlugIn(u);
        long after = residentBytes();
        state.counters["rss_total_MiB"] = static_cast<double>(after) / (1 << 20);
        state.counters["cache_KiB"] = static_cast<double>(after - before) / 1024;
        state.counters["records"] = static_cast<double>(db->cachedCount());
    }
}
BENCHMARK(BM_ResidentMemoryOf10kCachedRecords)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
