// The plug-in model on a realistic bundle: exporting a record's form (done
// for every plug-in a match request returns) and merging an SDK dictionary
// under bundle information (done when a record resolves its SDK).
#include "Tarvik/TvPlugInCore.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

using namespace tv;

Value attributes(int n, const char* prefix)
{
    Dictionary d;
    for (int i = 0; i < n; ++i)
        d.emplace(std::string(prefix) + "Attribute" + std::to_string(i), Value("value " + std::to_string(i)));
    d.emplace("KoExtensionVersion", Value("3.1"));
    d.emplace("CleanTimeout", Value(10));
    d.emplace("ActivationRule", Value{{"MaxImages", 10}, {"Text", true}, {"MaxLinks", 1}});
    return Value(std::move(d));
}

// About 40 top-level keys, a "KoExtension" of about 15 keys with attributes.
Value bundleInfo()
{
    Dictionary extension{
        {"KoExtensionPointIdentifier", Value("com.veltra.share-services")},
        {"KoExtensionAttributes", attributes(8, "Own")},
        {"KoExtensionProtocol", Value("KoObject")},
        {"PrincipalClass", Value("KoObject")},
        {"Shared", Value(Array{"Resources", "Templates", "Fonts"})},
        {"CleanTimeout", Value(5)},
    };
    for (int i = 0; i < 9; ++i)
        extension.emplace("ExtensionSetting" + std::to_string(i), Value(i % 2 == 0));
    Dictionary info{
        {"KbBundleIdentifier", Value("com.example.photos.share")},
        {"KbBundleShortVersionString", Value("3.1")},
        {"KbBundleVersion", Value("3100")},
        {"KbBundleExecutable", Value("share")},
        {"KbBundleInfoVlistURL", Value::fileURL("/Apps/Photos.app/PlugIns/Share.vext/Info.vlist")},
        {"KoExtension", Value(std::move(extension))},
    };
    for (int i = 0; i < 34; ++i)
        info.emplace("DTSetting" + std::to_string(i), Value("build setting value " + std::to_string(i)));
    return Value(std::move(info));
}

Value sdkDictionary()
{
    Dictionary extension{
        {"KoExtensionAttributes", attributes(10, "Sdk")},
        {"KoExtensionProtocol", Value("ShareProtocol")},
        {"Shared", Value(Array{"Resources", "Shared"})},
        {"CleanTimeout", Value(30)},
        {"KoExtensionPointName", Value("Share")},
    };
    Dictionary sdk{{"KoExtension", Value(std::move(extension))}};
    for (int i = 0; i < 6; ++i)
        sdk.emplace("SdkDefault" + std::to_string(i), Value(i));
    return Value(std::move(sdk));
}

std::shared_ptr<TvPlugInCore> record()
{
    auto r = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(
        "com.example.photos.share", Value::fileURL("/Apps/Photos.app/PlugIns/Share.vext"), bundleInfo(), Value(),
        Uuid::random());
    r->setOriginalIdentifier("com.example.photos.share");
    r->setContainingUrl(Value::fileURL("/Apps/Photos.app"));
    r->setEntitlements(Value{{"com.veltra.developer.replace-plugin", "com.example.old"}});
    r->setAnnotations(Value{{"election", 1}});
    r->setLocalizedName("Photos Share");
    r->setLocalizedContainingName("Photos");
    r->setLastModified(1763800000);
    r->setHubProtocolVersion(2);
    return r;
}

void BM_ExportForm(benchmark::State& state)
{
    auto r = record();
    for (auto _ : state) {
        Result<Value> form = r->exportForm();
        benchmark::DoNotOptimize(form);
    }
}
BENCHMARK(BM_ExportForm);

void BM_InitWithForm(benchmark::State& state)
{
    Value form = *record()->exportForm();
    for (auto _ : state) {
        auto r = TvPlugInCore::initWithForm(form);
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(BM_InitWithForm);

void BM_MergeDictionaryInto(benchmark::State& state)
{
    auto r = record();
    Value own = r->bundleInfoDictionary();
    Value sdk = sdkDictionary();
    for (auto _ : state) {
        Value merged = r->mergeDictionaryInto(sdk, own);
        benchmark::DoNotOptimize(merged);
    }
}
BENCHMARK(BM_MergeDictionaryInto);

void BM_DerivedPropertyRead(benchmark::State& state)
{
    auto r = record();
    for (auto _ : state) {
        Value v = r->version();
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_DerivedPropertyRead);

} // namespace

BENCHMARK_MAIN();
