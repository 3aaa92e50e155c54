// ActivationRuleEvaluator: decides whether a plug-in's activation rule
// accepts what a host offers.
//
// Contract: evaluate(rule, items) takes the plug-in's activation rule (any
// Value, as the plug-in's bundle gave it) and the host's description of the
// items it offers (any Value, as the host sent it), and answers true when
// the rule accepts the items. It never fails: a rule or a description that
// the evaluator does not understand is a non-match, logged with the reason
// in the "extension" category of the subsystem "com.veltra.Tarvik". The
// rule language is documented in docs/activation-rules.md.
//
// Thread-safety: implementations may be called from any thread at once.
// There are no callbacks.
#pragma once

#include "base/Value.h"

namespace tv::platform {

class ActivationRuleEvaluator {
public:
    virtual ~ActivationRuleEvaluator() = default;

    virtual bool evaluate(const Value& rule, const Value& items) = 0;
};

} // namespace tv::platform
