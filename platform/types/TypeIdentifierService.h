// TypeIdentifierService: the platform's type identifiers and their
// conformance ("public.jpeg" conforms to "public.image").
//
// Contract: conformsTo(type, otherType) answers whether `type` conforms to
// `otherType` under the reflexive, transitive closure of the declarations
// the service knows (see TypeConformanceTable). table() hands out the
// current table as an immutable snapshot, so that a caller asking many
// questions for one decision (an activation rule over several offered
// types) sees one consistent set of declarations and pays for change
// detection once. An implementation recomputes the closure when its
// declarations change, never per question.
//
// Thread-safety: implementations may be called from any thread at once.
// There are no callbacks.
#pragma once

#include "platform/types/TypeConformanceTable.h"

#include <memory>
#include <string_view>

namespace tv::platform {

class TypeIdentifierService {
public:
    virtual ~TypeIdentifierService() = default;

    virtual bool conformsTo(std::string_view type, std::string_view otherType) = 0;
    // Never null.
    virtual std::shared_ptr<const TypeConformanceTable> table() = 0;
};

} // namespace tv::platform
