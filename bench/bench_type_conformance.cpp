// Type conformance: lookups in a table of a few thousand declarations (a
// tree eight levels deep below "public.item"), and building the closure,
// which the service does once per change of the types directory.
#include "platform/types/LinuxTypeIdentifierService.h"
#include "platform/types/TypeConformanceTable.h"
#include "platform/formats/Vlist.h"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <random>
#include <string>
#include <unistd.h>

namespace {

using namespace tv;
using platform::TypeDeclaration;

// `count` types; each conforms to one or two earlier ones, so chains run
// about eight levels deep.
std::vector<TypeDeclaration> declarations(int count)
{
    std::vector<TypeDeclaration> out;
    out.push_back({"public.item", {}});
    std::mt19937 random(42);
    for (int i = 1; i < count; ++i) {
        std::string name = "com.example.type" + std::to_string(i);
        int parent = i / 3;
        std::vector<std::string> parents{parent == 0 ? "public.item" : "com.example.type" + std::to_string(parent)};
        if (i % 5 == 0 && parent > 1)
            parents.push_back("com.example.type" + std::to_string(random() % parent + 1));
        out.push_back({name, parents});
    }
    return out;
}

void BM_ConformsTo(benchmark::State& state)
{
    int count = static_cast<int>(state.range(0));
    platform::TypeConformanceTable table(declarations(count));
    std::vector<std::pair<std::string, std::string>> questions;
    std::mt19937 random(7);
    for (int i = 0; i < 1024; ++i)
        questions.emplace_back("com.example.type" + std::to_string(random() % (count - 1) + 1),
                               "com.example.type" + std::to_string(random() % 40 + 1));
    std::size_t i = 0;
    for (auto _ : state) {
        const auto& [type, other] = questions[i++ & 1023];
        benchmark::DoNotOptimize(table.conformsTo(type, other));
    }
}
BENCHMARK(BM_ConformsTo)->Arg(1000)->Arg(5000);

void BM_BuildClosure(benchmark::State& state)
{
    auto list = declarations(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        platform::TypeConformanceTable table(list);
        benchmark::DoNotOptimize(table.typeCount());
    }
}
BENCHMARK(BM_BuildClosure)->Arg(1000)->Arg(5000)->Unit(benchmark::kMillisecond);

// Through the Linux service: each question also drains the directory watch.
void BM_ServiceConformsTo(benchmark::State& state)
{
    namespace fs = std::filesystem;
    fs::path dir = fs::temp_directory_path() / ("tvd-bench-types-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    Array list;
    for (const TypeDeclaration& d : declarations(5000)) {
        Array parents;
        for (const std::string& p : d.conformsTo)
            parents.emplace_back(p);
        list.push_back(Value{{"TypeIdentifier", d.identifier}, {"ConformsTo", Value(std::move(parents))}});
    }
    if (platform::writeVlistFileAtomically((dir / "bench.vlist").string(),
                                           Value{{"TypeDeclarations", Value(std::move(list))}})) {
        state.SkipWithError("cannot write the declarations");
        return;
    }
    platform::LinuxTypeIdentifierService service(dir.string());
    for (auto _ : state)
        benchmark::DoNotOptimize(service.conformsTo("com.example.type4000", "com.example.type4"));
    fs::remove_all(dir);
}
BENCHMARK(BM_ServiceConformsTo);

} // namespace

BENCHMARK_MAIN();
