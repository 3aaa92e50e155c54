// Two collection helpers of the shared model. Stateless and thread-safe.
#pragma once

#include "base/Value.h"

#include <concepts>
#include <ranges>
#include <string_view>
#include <type_traits>
#include <utility>

namespace tv {

// The array of fn(element) for each element of `collection`, in order, with
// the null results left out. Any range works (tv::Array, std::vector<T>,
// a view, ...); fn receives the range's elements and returns a Value
// (null for "nothing").
template <std::ranges::input_range R, class F>
    requires std::convertible_to<std::invoke_result_t<F&, std::ranges::range_reference_t<R>>, Value>
Value arrayWithValuesInBlock(R&& collection, F fn)
{
    Array out;
    if constexpr (std::ranges::sized_range<R>)
        out.reserve(std::ranges::size(collection));
    for (auto&& element : collection) {
        Value v = fn(std::forward<decltype(element)>(element));
        if (!v.isNull())
            out.push_back(std::move(v));
    }
    return Value(std::move(out));
}

// The same over a Value: an array gives its elements, a dictionary its keys
// (as string Values, in key order); anything else is an empty collection.
template <class F>
    requires std::convertible_to<std::invoke_result_t<F&, const Value&>, Value>
Value arrayWithValuesInBlock(const Value& collection, F fn)
{
    if (const Array* a = collection.asArray())
        return arrayWithValuesInBlock(*a, std::move(fn));
    if (const Dictionary* d = collection.asDictionary()) {
        // A plain loop rather than a keys view, which clang 14 cannot compile
        // against GCC 12's library (the fuzzing build uses clang).
        Array out;
        for (const auto& entry : *d)
            if (Value v = fn(Value(entry.first)); !v.isNull())
                out.push_back(std::move(v));
        return Value(std::move(out));
    }
    return Value::emptyArray();
}

// A copy of `dictionary` in which `key` maps to `value`, or in which `key` is
// removed when `value` is null. The receiver is not changed; a receiver that
// is not a dictionary is taken as the empty dictionary.
Value dictionaryChangingTo(const Value& dictionary, std::string_view key, Value value);

} // namespace tv
