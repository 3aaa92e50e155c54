#include "tvd/TvdMatchPattern.h"

#include "Tarvik/TvLog.h"
#include "Tarvik/TvVersionComparison.h"
#include "platform/types/TypeIdentifierService.h"

namespace tv {

namespace {

constexpr std::string_view kConformsPrefix = "?TY-CONFORMS:";
constexpr std::string_view kIsPrefix = "?TY-IS:";

// The number `value` holds compared with `n`; false for non-numbers.
bool numberEquals(const Value& value, int n)
{
    if (const std::int64_t* i = value.asInt())
        return *i == n;
    if (const std::uint64_t* u = value.asUInt())
        return *u == static_cast<std::uint64_t>(n);
    if (const double* d = value.asDouble())
        return *d == n;
    return false;
}

} // namespace

bool valueEqualsTrue(const Value& value)
{
    if (const bool* b = value.asBool())
        return *b;
    return numberEquals(value, 1);
}

bool valueEqualsFalse(const Value& value)
{
    if (const bool* b = value.asBool())
        return !*b;
    return numberEquals(value, 0);
}

bool matchValuePattern(std::string_view value, std::string_view pattern, platform::TypeIdentifierService* types)
{
    if (pattern.starts_with(kConformsPrefix))
        return types && types->conformsTo(value, pattern.substr(kConformsPrefix.size()));
    if (pattern.starts_with(kIsPrefix))
        return types && types->conformsTo(pattern.substr(kIsPrefix.size()), value);
    if (pattern.starts_with('?')) {
        TvLog::ops().info("unrecognized match operator:%@", Value(pattern));
        return false;
    }

    struct Operator {
        std::string_view prefix;
        TvOrdering wanted;
        bool negated;
    };
    static constexpr Operator kOperators[] = {
        {"<>", TvOrdering::Same, true},       {"<=", TvOrdering::Descending, true},
        {">=", TvOrdering::Ascending, true},  {"=", TvOrdering::Same, false},
        {"<", TvOrdering::Ascending, false},  {">", TvOrdering::Descending, false},
    };
    for (const Operator& op : kOperators) {
        if (pattern.starts_with(op.prefix))
            return (compareVersionString(value, pattern.substr(op.prefix.size())) == op.wanted) != op.negated;
    }
    return compareVersionString(value, pattern) == TvOrdering::Same;
}

bool matchValuePatterns(std::string_view value, const Value& patterns, platform::TypeIdentifierService* types)
{
    if (const std::string* one = patterns.asString())
        return matchValuePattern(value, *one, types);
    const Array* list = patterns.asArray();
    if (!list)
        return false;
    if (list->size() > kMaxPatternCount) {
        TvLog::ops().info("match pattern list of %zu elements refused (at most %zu)", list->size(), kMaxPatternCount);
        return false;
    }
    for (const Value& element : *list) {
        const std::string* text = element.asString();
        if (text && matchValuePattern(value, *text, types))
            return true;
    }
    return false;
}

} // namespace tv
