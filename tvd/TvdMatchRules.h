// TvdMatchRules: evaluates a host's match rules against one plug-in.
//
// Rules map a key of the plug-in to a pattern; a plug-in matches when every
// entry holds (docs/match-rules.md). The key selects the plug-in's value:
//   "ENTITLEMENT:<name>"        the plug-in's entitlement <name>, nothing else
//   "KoExtensionIdentifier"     its identifier
//   "com.veltra.uuid"           the text of its uuid
//   "KoUserElection"            the election of its annotation, bits 8-15
//                               cleared, in signed decimal ("0" without one)
//   "KoExtensionContainingApp"  its containing path; without a containing
//                               application the entry fails, whatever the
//                               pattern
//   anything else               attribute(key), else infoKey(key)
// and the pattern applies in this order: true (or the number 1) wants a
// value present and not false; false (or 0) wants it absent or false; an
// absent value fails; a dictionary pattern asks the activation-rule
// evaluator (rule = the value, items = the pattern); a string value goes to
// matchValuePatterns(); an array value matches when one string element
// does; anything else fails. Evaluation never fails and changes nothing;
// its only effects are log lines.
//
// The record is read through TvPlugInCore's virtual lookups, so the daemon's
// registry-backed record answers with its own sources. The services (type
// identifiers, activation rules, the plug-in's annotation) are handed in;
// the daemon installs one process-wide instance (setShared()).
//
// Thread-safety: immutable once built; any thread. The annotation lookup
// may enter the registry database's queue synchronously, so rules must not
// be evaluated on that queue.
#pragma once

#include "base/Value.h"

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace tv {

class TvPlugInCore;

namespace platform {
class ActivationRuleEvaluator;
class TypeIdentifierService;
} // namespace platform

struct TvdMatchServices {
    std::shared_ptr<platform::TypeIdentifierService> types;
    std::shared_ptr<platform::ActivationRuleEvaluator> activationRules;
    // The plug-in's stored annotation (a dictionary), or null when it has
    // none. Null function: no plug-in has an annotation.
    std::function<Value(const TvPlugInCore& plugIn)> annotationForPlugIn;
};

class TvdMatchRules {
public:
    explicit TvdMatchRules(TvdMatchServices services);

    // The instance the daemon's plug-in records use. Before setShared(), one
    // without services: conformance and activation rules never match and no
    // plug-in has an election.
    static std::shared_ptr<const TvdMatchRules> shared();
    static void setShared(std::shared_ptr<const TvdMatchRules> rules);

    // True when `rules` is null, empty, or every entry holds; a non-null
    // rules value that is not a dictionary does not match.
    bool match(const TvPlugInCore& plugIn, const Value& rules) const;
    // match() with type conformance answered by `types` (null: nothing
    // conforms), such as one snapshot for every candidate of a request.
    // match() itself takes one snapshot of the services' types per call.
    bool match(const TvPlugInCore& plugIn, const Value& rules, platform::TypeIdentifierService* types) const;
    bool matchKeyPattern(const TvPlugInCore& plugIn, std::string_view key, const Value& pattern) const;
    bool matchKeyPattern(const TvPlugInCore& plugIn, std::string_view key, const Value& pattern,
                         platform::TypeIdentifierService* types) const;
    // The activation-rule evaluator's answer for (rule = value, items = pattern).
    bool matchDictionaryPattern(const Value& value, const Value& pattern) const;

    // The plug-in's value for `key`, as the rules see it; none when the
    // entry fails whatever the pattern ("KoExtensionContainingApp" without a
    // containing application).
    std::optional<Value> valueForKey(const TvPlugInCore& plugIn, std::string_view key) const;

    const TvdMatchServices& services() const { return services_; }

private:
    TvdMatchServices services_;
};

} // namespace tv
