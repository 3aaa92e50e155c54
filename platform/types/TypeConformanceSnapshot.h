// TypeConformanceSnapshot: a type-identifier service that answers every
// question from one table of another service, asked for on the first
// question (never, when no question comes).
//
// For a caller that asks many questions for one request (the match rules of
// every candidate of a "match"): the source's change detection is paid once
// per request instead of once per question, and every answer comes from the
// same declarations. A change made meanwhile is seen by the next snapshot.
//
// Not thread-safe: one snapshot per caller.
#pragma once

#include "platform/types/TypeIdentifierService.h"

#include <memory>

namespace tv::platform {

class TypeConformanceSnapshot final : public TypeIdentifierService {
public:
    // `source` may be null: nothing conforms then.
    explicit TypeConformanceSnapshot(std::shared_ptr<TypeIdentifierService> source);

    bool conformsTo(std::string_view type, std::string_view otherType) override;
    std::shared_ptr<const TypeConformanceTable> table() override;

private:
    std::shared_ptr<TypeIdentifierService> source_;
    std::shared_ptr<const TypeConformanceTable> table_;
};

} // namespace tv::platform
