// Match rules and the activation-rule evaluator on a plug-in, host rules
// and type declarations all taken from one decoded value:
//   {"info": bundle information, "entitlements": ..., "annotation": ...,
//    "rules": host rules, "rule": activation rule, "items": host offer,
//    "types": {type: [parent, ...]}}
// Evaluation must neither crash nor depend on anything but its input.
#include "Tarvik/TvPlugInCore.h"
#include "base/ValueCodec.h"
#include "platform/activation/LinuxActivationRuleEvaluator.h"
#include "tests/fuzz/FuzzSupport.h"
#include "tests/support/FakeTypeIdentifierService.h"
#include "tvd/TvdMatchRules.h"

using namespace tv;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::quietLog();
    auto input = decodeValue({data, size});
    if (!input || !input->isDictionary())
        return 0;
    std::vector<platform::TypeDeclaration> declarations;
    if (const Dictionary* types = (*input)["types"].asDictionary())
        for (const auto& [type, parents] : *types) {
            declarations.push_back({type, {}});
            for (std::size_t i = 0; i < parents.count() && i < 16; ++i)
                if (const std::string* parent = parents.at(i).asString())
                    declarations.back().conformsTo.push_back(*parent);
        }
    auto typeService = std::make_shared<test::FakeTypeIdentifierService>(declarations);
    auto evaluator = std::make_shared<platform::LinuxActivationRuleEvaluator>(typeService);
    const Value& rule = (*input)["rule"];
    const Value& items = (*input)["items"];
    bool accepted = evaluator->evaluate(rule, items);
    FUZZ_CHECK(evaluator->evaluate(rule, items) == accepted);

    auto plugIn = TvPlugInCore::initWithNameUrlBundleInfoInfoUuid(
        "com.example.fuzz", Value::fileURL("/Applications/Fuzz.app/PlugIns/Fuzz.vext"), (*input)["info"], Value(),
        Uuid::parse("6F1C2A3B-4D5E-4F60-8172-93A4B5C6D7E8"));
    if (!plugIn)
        return 0;
    plugIn->setEntitlements((*input)["entitlements"]);
    plugIn->setContainingUrl(Value::fileURL("/Applications/Fuzz.app"));
    Value annotation = (*input)["annotation"];
    TvdMatchRules rules(TvdMatchServices{typeService, evaluator, [annotation](const TvPlugInCore&) { return annotation; }});
    bool matched = rules.match(*plugIn, (*input)["rules"]);
    FUZZ_CHECK(rules.match(*plugIn, (*input)["rules"]) == matched);
    return 0;
}
