// LinuxActivationRuleEvaluator: the activation-rule language of
// docs/activation-rules.md, with type conformance from a
// TypeIdentifierService.
//
// Items are a dictionary from type identifier to a non-negative integer
// count. A rule is a dictionary: a count test ("Type", "AtLeast",
// "AtMost"), or one combinator ("AllOf", "AnyOf", "Not"). The whole rule and
// the whole description are checked before anything is evaluated, so a
// malformed branch refuses the rule even where evaluation would not have
// reached it. Evaluation is bounded whatever the input: at most kMaxDepth
// levels of combinators, kMaxNodes rule dictionaries and kMaxItemTypes
// entries in the description; past a bound the rule does not match.
//
// Thread-safety: stateless apart from the shared type service; any thread.
#pragma once

#include "platform/activation/ActivationRuleEvaluator.h"
#include "platform/types/TypeIdentifierService.h"

#include <cstddef>
#include <memory>

namespace tv::platform {

class LinuxActivationRuleEvaluator final : public ActivationRuleEvaluator {
public:
    static constexpr std::size_t kMaxDepth = 32;
    static constexpr std::size_t kMaxNodes = 256;
    static constexpr std::size_t kMaxItemTypes = 256;

    explicit LinuxActivationRuleEvaluator(std::shared_ptr<TypeIdentifierService> types);

    // ActivationRuleEvaluator
    bool evaluate(const Value& rule, const Value& items) override;

private:
    std::shared_ptr<TypeIdentifierService> types_;
};

} // namespace tv::platform
