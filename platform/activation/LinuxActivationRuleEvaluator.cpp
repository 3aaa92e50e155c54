#include "platform/activation/LinuxActivationRuleEvaluator.h"

#include "platform/log/SystemLog.h"
#include "base/Format.h"

#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace tv::platform {

namespace {

// The evaluator stands in for the platform's extension facility, whose
// lines belong to the model's "extension" category.
constexpr const char* kSubsystem = "com.veltra.Tarvik";
constexpr const char* kCategory = "extension";

void logRefusal(const std::string& reason, const Value& rule)
{
    SystemLog& sink = systemLog();
    if (!sink.enabled(LogLevel::Default))
        return;
    const FormatArg list[] = {FormatArg(reason), FormatArg(rule), FormatArg()};
    std::string message = formatStringArgs("activation rule not understood (%{public}s), no match: %@",
                                           std::span<const FormatArg>(list, 2), sink.redactsPrivate());
    sink.write(LogRecord{LogLevel::Default, kSubsystem, kCategory, message});
}

struct ItemCount {
    const std::string* type;
    std::uint64_t count;
};

// A count limit: a non-negative integer of either signed kind.
bool readLimit(const Value& v, std::uint64_t& out)
{
    if (const std::uint64_t* u = v.asUInt()) {
        out = *u;
        return true;
    }
    if (const std::int64_t* i = v.asInt(); i && *i >= 0) {
        out = static_cast<std::uint64_t>(*i);
        return true;
    }
    return false;
}

class Checker {
public:
    // Empty when the rule is well-formed; otherwise why not.
    std::string check(const Value& rule, std::size_t depth)
    {
        if (++nodes_ > LinuxActivationRuleEvaluator::kMaxNodes)
            return "more than " + std::to_string(LinuxActivationRuleEvaluator::kMaxNodes) + " rules";
        if (depth > LinuxActivationRuleEvaluator::kMaxDepth)
            return "nested deeper than " + std::to_string(LinuxActivationRuleEvaluator::kMaxDepth);
        const Dictionary* dict = rule.asDictionary();
        if (!dict)
            return std::string("a rule must be a dictionary, not ") + valueKindName(rule.kind());
        if (dict->size() == 1) {
            const auto& [key, operand] = *dict->begin();
            if (key == "AllOf" || key == "AnyOf") {
                const Array* list = operand.asArray();
                if (!list)
                    return key + " needs an array";
                for (const Value& element : *list)
                    if (std::string why = check(element, depth + 1); !why.empty())
                        return why;
                return {};
            }
            if (key == "Not")
                return check(operand, depth + 1);
        }
        std::uint64_t atLeast = 1, atMost = std::numeric_limits<std::uint64_t>::max();
        for (const auto& [key, operand] : *dict) {
            if (key == "Type") {
                if (!operand.isString())
                    return "Type needs a string";
            } else if (key == "AtLeast") {
                if (!readLimit(operand, atLeast))
                    return "AtLeast needs a non-negative integer";
            } else if (key == "AtMost") {
                if (!readLimit(operand, atMost))
                    return "AtMost needs a non-negative integer";
            } else {
                return "unknown key " + key;
            }
        }
        if (atLeast > atMost)
            return "AtLeast is greater than AtMost";
        return {};
    }

private:
    std::size_t nodes_ = 0;
};

// Evaluates a rule that Checker accepted.
bool evaluateChecked(const Value& rule, const std::vector<ItemCount>& items, const TypeConformanceTable& types)
{
    const Dictionary& dict = *rule.asDictionary();
    if (dict.size() == 1) {
        const auto& [key, operand] = *dict.begin();
        if (key == "AllOf") {
            for (const Value& element : *operand.asArray())
                if (!evaluateChecked(element, items, types))
                    return false;
            return true;
        }
        if (key == "AnyOf") {
            for (const Value& element : *operand.asArray())
                if (evaluateChecked(element, items, types))
                    return true;
            return false;
        }
        if (key == "Not")
            return !evaluateChecked(operand, items, types);
    }
    std::uint64_t atLeast = 1, atMost = std::numeric_limits<std::uint64_t>::max();
    readLimit(rule["AtLeast"], atLeast);
    readLimit(rule["AtMost"], atMost);
    const std::string* type = rule["Type"].asString();
    std::uint64_t count = 0;
    for (const ItemCount& item : items) {
        if (type && !types.conformsTo(*item.type, *type))
            continue;
        count = item.count > std::numeric_limits<std::uint64_t>::max() - count
                    ? std::numeric_limits<std::uint64_t>::max()
                    : count + item.count;
    }
    return count >= atLeast && count <= atMost;
}

} // namespace

LinuxActivationRuleEvaluator::LinuxActivationRuleEvaluator(std::shared_ptr<TypeIdentifierService> types)
    : types_(std::move(types))
{
}

bool LinuxActivationRuleEvaluator::evaluate(const Value& rule, const Value& items)
{
    const Dictionary* offered = items.asDictionary();
    if (!offered) {
        logRefusal(std::string("the offered items must be a dictionary, not ") + valueKindName(items.kind()), rule);
        return false;
    }
    if (offered->size() > kMaxItemTypes) {
        logRefusal("more than " + std::to_string(kMaxItemTypes) + " offered item types", rule);
        return false;
    }
    std::vector<ItemCount> counts;
    counts.reserve(offered->size());
    for (const auto& [type, count] : *offered) {
        std::uint64_t n = 0;
        if (!readLimit(count, n)) {
            logRefusal("the count of offered items of " + type + " is not a non-negative integer", rule);
            return false;
        }
        counts.push_back(ItemCount{&type, n});
    }
    if (std::string why = Checker().check(rule, 0); !why.empty()) {
        logRefusal(why, rule);
        return false;
    }
    std::shared_ptr<const TypeConformanceTable> table =
        types_ ? types_->table() : std::make_shared<const TypeConformanceTable>();
    return evaluateChecked(rule, counts, *table);
}

} // namespace tv::platform
