// Reading and writing XML vlist documents and typed JSON: a typical plug-in
// Info.vlist and a registry-sized document of about 1 MiB.
#include "platform/formats/TypedJson.h"
#include "platform/formats/Vlist.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

using namespace tv;

Value infoVlist(int variant)
{
    const std::string id = "com.example.app" + std::to_string(variant) + ".share";
    Dictionary d;
    d["KbBundleIdentifier"] = id;
    d["KbBundleExecutable"] = "share";
    d["KbBundleVersion"] = std::to_string(100 + variant);
    d["KbBundleShortVersionString"] = "1.4." + std::to_string(variant);
    d["KbBundleName"] = "Share";
    d["KbBundleDisplayName"] = "Share to Example";
    d["KbBundlePackageType"] = "VEXT";
    d["KbBundleInfoDictionaryVersion"] = "6.0";
    d["KbBundleDevelopmentRegion"] = "en";
    d["KbMinimumSystemVersion"] = "12.0";
    d["KbBuildMachineOSBuild"] = "22A380";
    d["KbSupportedPlatforms"] = Value(Array{"device", "simulator"});
    d["KbBundleLocalizations"] = Value(Array{"en", "de", "fr", "ja", "pt-BR", "zh-Hans"});
    d["KbRequiredDeviceCapabilities"] = Value(Array{"arm64"});
    d["KbIconFiles"] = Value(Array{"Icon-60@2x.png", "Icon-60@3x.png", "Icon-76.png"});
    for (int i = 0; i < 28; ++i)
        d["KbCustomSetting" + std::to_string(i)] = i % 3 == 0   ? Value(i)
                                                   : i % 3 == 1 ? Value("value " + std::to_string(i))
                                                                : Value(i % 2 == 0);
    d["KbBuildDate"] = Date::fromSeconds(1795341600 + variant);
    d["KbChecksum"] = Value::data(Bytes(32, static_cast<std::uint8_t>(variant)));
    d["KbSizeHint"] = Value(std::uint64_t{1} << 40);
    d["KbScale"] = 2.5;
    d["KoExtension"] = Value{
        {"KoExtensionPointIdentifier", "com.veltra.share-services"},
        {"KoExtensionPrincipalClass", "ShareViewController"},
        {"KoExtensionAttributes",
         Value{{"KoExtensionActivationRule",
                Value{{"KoExtensionActivationSupportsImageWithMaxCount", 10},
                      {"KoExtensionActivationSupportsWebURLWithMaxCount", 1},
                      {"KoExtensionActivationSupportsText", true}}},
               {"KoExtensionServiceAllowsFinderPreviewItem", true},
               {"KoExtensionServiceRoleType", "KoExtensionServiceRoleTypeEditor"}}},
        {"KoExtensionHostEntitlement", "com.example.share-host"},
        {"KoExtensionUsesSandbox", true},
    };
    return Value(std::move(d));
}

Value largeDocument()
{
    // About 1 MiB of XML: the bundle information of many plug-ins.
    Array plugIns;
    for (int i = 0; i < 300; ++i)
        plugIns.push_back(infoVlist(i));
    return Value{{"version", 16}, {"data", Value(std::move(plugIns))}};
}

const Value& typical()
{
    static const Value v = infoVlist(1);
    return v;
}

const Value& large()
{
    static const Value v = largeDocument();
    return v;
}

void parseVlistOf(benchmark::State& state, const Value& v)
{
    const std::string xml = *platform::serializeVlist(v);
    for (auto _ : state) {
        auto parsed = platform::parseVlist(xml);
        benchmark::DoNotOptimize(parsed);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * xml.size()));
    state.counters["bytes"] = static_cast<double>(xml.size());
}

void serializeVlistOf(benchmark::State& state, const Value& v)
{
    std::size_t size = 0;
    for (auto _ : state) {
        auto xml = platform::serializeVlist(v);
        size = xml->size();
        benchmark::DoNotOptimize(xml);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

void parseJsonOf(benchmark::State& state, const Value& v)
{
    const std::string json = platform::toTypedJson(v, false);
    for (auto _ : state) {
        auto parsed = platform::parseTypedJson(json);
        benchmark::DoNotOptimize(parsed);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * json.size()));
    state.counters["bytes"] = static_cast<double>(json.size());
}

void toJsonOf(benchmark::State& state, const Value& v)
{
    std::size_t size = 0;
    for (auto _ : state) {
        std::string json = platform::toTypedJson(v, false);
        size = json.size();
        benchmark::DoNotOptimize(json);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

void BM_ParseVlistInfo(benchmark::State& s) { parseVlistOf(s, typical()); }
void BM_ParseVlistLarge(benchmark::State& s) { parseVlistOf(s, large()); }
void BM_SerializeVlistInfo(benchmark::State& s) { serializeVlistOf(s, typical()); }
void BM_SerializeVlistLarge(benchmark::State& s) { serializeVlistOf(s, large()); }
void BM_ParseTypedJsonInfo(benchmark::State& s) { parseJsonOf(s, typical()); }
void BM_ParseTypedJsonLarge(benchmark::State& s) { parseJsonOf(s, large()); }
void BM_ToTypedJsonInfo(benchmark::State& s) { toJsonOf(s, typical()); }
void BM_ToTypedJsonLarge(benchmark::State& s) { toJsonOf(s, large()); }

BENCHMARK(BM_ParseVlistInfo);
BENCHMARK(BM_ParseVlistLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SerializeVlistInfo);
BENCHMARK(BM_SerializeVlistLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseTypedJsonInfo);
BENCHMARK(BM_ParseTypedJsonLarge)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ToTypedJsonInfo);
BENCHMARK(BM_ToTypedJsonLarge)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
