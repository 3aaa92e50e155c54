#include "platform/types/TypeConformanceSnapshot.h"

namespace tv::platform {

TypeConformanceSnapshot::TypeConformanceSnapshot(std::shared_ptr<TypeIdentifierService> source)
    : source_(std::move(source))
{}

bool TypeConformanceSnapshot::conformsTo(std::string_view type, std::string_view otherType)
{
    if (!source_)
        return false;
    if (!table_)
        table();
    // The kept table itself: no reference taken per question.
    return table_->conformsTo(type, otherType);
}

std::shared_ptr<const TypeConformanceTable> TypeConformanceSnapshot::table()
{
    if (!table_)
        table_ = source_ ? source_->table() : std::make_shared<const TypeConformanceTable>();
    return table_;
}

} // namespace tv::platform
