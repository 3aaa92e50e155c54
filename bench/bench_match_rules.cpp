// Match rules per candidate: a typical host rules dictionary (extension
// point, version floor, an entitlement test, a format list, an activation
// rule) evaluated against a realistic plug-in record, as a match request
// does for every candidate it finds.
#include "Tarvik/TvPlugInCore.h"
#include "platform/activation/LinuxActivationRuleEvaluator.h"
#include "platform/types/TypeConformanceTable.h"
#include "tvd/TvdMatchPattern.h"
#include "tvd/TvdMatchRules.h"

#include <benchmark/benchmark.h>

#include <atomic>

namespace {

using namespace tv;

class TableTypes final : public platform::TypeIdentifierService {
public:
    explicit TableTypes(const std::vector<platform::TypeDeclaration>& declarations)
        : table_(std::make_shared<const platform::TypeConformanceTable>(declarations)) {}
    bool conformsTo(std::string_view a, std::string_view b) override { return table_->conformsTo(a, b); }
    std::shared_ptr<const platform::TypeConformanceTable> table() override { return table_; }

private:
    std::shared_ptr<const platform::TypeConformanceTable> table_;
};

std::shared_ptr<TableTypes> types()
{
    return std::make_shared<TableTypes>(std::vector<platform::TypeDeclaration>{
        {"public.data", {"public.item"}},
        {"public.image", {"public.data", "public.content"}},
        {"public.jpeg", {"public.image"}},
        {"public.png", {"public.image"}},
        {"public.movie", {"public.data", "public.content"}},
        {"public.url", {"public.data"}},
        {"public.text", {"public.data", "public.content"}},
    });
}

std::shared_ptr<TvPlugInCore> plugIn()
{
    Dictionary attributes{
        {"KoExtensionPointIdentifier", Value("com.veltra.share-services")},
        {"KoExtensionVersion", Value("3.1")},
        {"KoExtensionActivationRule",
         Value{{"AnyOf", Value(Array{Value{{"Type", "public.image"}, {"AtMost", 10}},
                                     Value{{"Type", "public.url"}, {"AtMost", 1}}})}}},
        {"SupportedTypes", Value(Array{"public.jpeg", "public.png", "public.url"})},
    };
    for (int i = 0; i < 8; ++i)
        attributes.emplace("Attribute" + std::to_string(i), Value("value " + std::to_string(i)));
    Value info{{"KbBundleIdentifier", "com.example.photos.share"},
               {"KbBundleShortVersionString", "3.1"},
               {"KoExtension", Value{{"KoExtensionAttributes", Value(std::move(attributes))}}}};
    auto record = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(
        "com.example.photos.share", Value::fileURL("/Applications/Photos.app/PlugIns/Share.vext"), info, Value(),
        Uuid::random());
    record->setEntitlements(Value{{"com.veltra.developer.share", true}});
    record->setContainingUrl(Value::fileURL("/Applications/Photos.app"));
    return record;
}

Value hostRules(bool withActivation)
{
    Value rules{{"KoExtensionPointIdentifier", "com.veltra.share-services"},
                {"KoExtensionVersion", ">=2.0"},
                {"ENTITLEMENT:com.veltra.developer.share", Value(true)},
                {"SupportedTypes", Value(Array{"?TY-CONFORMS:public.movie", "?TY-CONFORMS:public.image"})},
                {"KoUserElection", "<>2"}};
    if (withActivation)
        rules = rules.with("KoExtensionActivationRule", Value{{"public.jpeg", 3}, {"public.text", 1}});
    return rules;
}

void BM_MatchPerCandidate(benchmark::State& state)
{
    auto typeService = types();
    TvdMatchRules rules(TvdMatchServices{typeService,
                                         std::make_shared<platform::LinuxActivationRuleEvaluator>(typeService),
                                         [](const TvPlugInCore&) { return Value{{"election", 1}}; }});
    auto record = plugIn();
    Value host = hostRules(state.range(0) != 0);
    for (auto _ : state) {
        bool matched = rules.match(*record, host);
        benchmark::DoNotOptimize(matched);
        if (!matched)
            state.SkipWithError("the typical rules should match");
    }
}
BENCHMARK(BM_MatchPerCandidate)->Arg(0)->Arg(1)->ArgName("activation");

void BM_OnePattern(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(matchValuePattern("1.10.3", ">=1.9.12", nullptr));
}
BENCHMARK(BM_OnePattern);

} // namespace

BENCHMARK_MAIN();
