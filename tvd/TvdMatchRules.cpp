#include "tvd/TvdMatchRules.h"

#include "Tarvik/TvLog.h"
#include "Tarvik/TvPlugInCore.h"
#include "platform/activation/ActivationRuleEvaluator.h"
#include "platform/types/TypeConformanceSnapshot.h"
#include "tvd/TvdMatchPattern.h"

#include <atomic>
#include <string>

namespace tv {

namespace {

constexpr std::string_view kEntitlementPrefix = "ENTITLEMENT:";

std::shared_ptr<const TvdMatchRules>& sharedSlot()
{
    static std::shared_ptr<const TvdMatchRules> slot = std::make_shared<const TvdMatchRules>(TvdMatchServices{});
    return slot;
}

} // namespace

TvdMatchRules::TvdMatchRules(TvdMatchServices services) : services_(std::move(services)) {}

std::shared_ptr<const TvdMatchRules> TvdMatchRules::shared()
{
    return std::atomic_load(&sharedSlot());
}

void TvdMatchRules::setShared(std::shared_ptr<const TvdMatchRules> rules)
{
    if (!rules)
        rules = std::make_shared<const TvdMatchRules>(TvdMatchServices{});
    std::atomic_store(&sharedSlot(), std::move(rules));
}

bool TvdMatchRules::match(const TvPlugInCore& plugIn, const Value& rules) const
{
    platform::TypeConformanceSnapshot types(services_.types);
    return match(plugIn, rules, &types);
}

bool TvdMatchRules::match(const TvPlugInCore& plugIn, const Value& rules, platform::TypeIdentifierService* types) const
{
    if (rules.isNull())
        return true;
    const Dictionary* entries = rules.asDictionary();
    if (!entries)
        return false;
    for (const auto& [key, pattern] : *entries) {
        if (!matchKeyPattern(plugIn, key, pattern, types))
            return false;
    }
    return true;
}

std::optional<Value> TvdMatchRules::valueForKey(const TvPlugInCore& plugIn, std::string_view key) const
{
    if (key.starts_with(kEntitlementPrefix))
        return plugIn.entitlements()[key.substr(kEntitlementPrefix.size())];
    if (key == "KoExtensionIdentifier") {
        std::optional<std::string> identifier = plugIn.identifier();
        return identifier ? Value(*identifier) : Value();
    }
    if (key == "com.veltra.uuid") {
        std::optional<Uuid> uuid = plugIn.uuid();
        return uuid ? Value(uuid->string()) : Value();
    }
    if (key == "KoUserElection") {
        Value annotation = services_.annotationForPlugIn ? services_.annotationForPlugIn(plugIn) : Value();
        std::int64_t election = annotation["election"].integerValue() & ~std::int64_t{0xff00};
        return Value(std::to_string(election));
    }
    if (key == "KoExtensionContainingApp") {
        std::optional<std::string> containing = plugIn.containingPath();
        if (!containing)
            return std::nullopt;
        return Value(*containing);
    }
    Value value = plugIn.attribute(key);
    if (value.isNull())
        value = plugIn.infoKey(key);
    return value;
}

bool TvdMatchRules::matchKeyPattern(const TvPlugInCore& plugIn, std::string_view key, const Value& pattern) const
{
    return matchKeyPattern(plugIn, key, pattern, services_.types.get());
}

bool TvdMatchRules::matchKeyPattern(const TvPlugInCore& plugIn, std::string_view key, const Value& pattern,
                                    platform::TypeIdentifierService* types) const
{
    std::optional<Value> selected = valueForKey(plugIn, key);
    if (!selected)
        return false;
    const Value& value = *selected;

    if (valueEqualsTrue(pattern))
        return !value.isNull() && !valueEqualsFalse(value);
    if (valueEqualsFalse(pattern))
        return value.isNull() || valueEqualsFalse(value);
    if (value.isNull())
        return false;
    if (pattern.isDictionary())
        return matchDictionaryPattern(value, pattern);
    if (const std::string* text = value.asString())
        return matchValuePatterns(*text, pattern, types);
    if (const Array* elements = value.asArray()) {
        for (const Value& element : *elements) {
            const std::string* text = element.asString();
            if (text && matchValuePatterns(*text, pattern, types))
                return true;
        }
    }
    return false;
}

bool TvdMatchRules::matchDictionaryPattern(const Value& value, const Value& pattern) const
{
    TvLog::extension().debug("evaluating KoExtension filter: %@ value: %@", pattern, value);
    if (!services_.activationRules) {
        TvLog::extension().info("no activation-rule evaluator: activation rule does not match");
        return false;
    }
    return services_.activationRules->evaluate(value, pattern);
}

} // namespace tv
