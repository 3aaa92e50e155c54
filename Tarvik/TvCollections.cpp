#include "Tarvik/TvCollections.h"

namespace tv {

Value dictionaryChangingTo(const Value& dictionary, std::string_view key, Value value)
{
    return dictionary.with(key, std::move(value));
}

} // namespace tv
