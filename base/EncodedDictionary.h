// EncodedDictionary: a dictionary kept together with its binary encoding
// (ValueCodec), so that a dictionary sent many times is encoded once.
//
// The encoding can be written out with a few keys set or removed without
// touching the rest: the entries that do not change are copied as bytes,
// only the changed ones are encoded. The bytes written are exactly what
// encodeValue() gives for the changed dictionary (entries are encoded in key
// order, so the splice lands where the full encoding would put them).
#pragma once

#include "base/Result.h"
#include "base/Value.h"
#include "base/ValueCodec.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace tv {

class EncodedDictionary {
public:
    // One change: the key and its new value; a null value removes the key.
    using Change = std::pair<std::string_view, Value>;

    // Null when `dictionary` is not a dictionary or cannot be encoded with
    // `options` (a URL where none is allowed, nesting too deep).
    static std::shared_ptr<const EncodedDictionary> make(Value dictionary, const ValueCodecOptions& options);

    const Value& value() const { return value_; }
    const Bytes& bytes() const { return bytes_; }
    // Heap bytes held by the encoding (the dictionary itself is shared).
    std::size_t encodedCost() const { return bytes_.capacity() + offsets_.capacity() * sizeof(std::uint32_t); }

    // Appends the encoding of value() with every change applied (as
    // Value::with() would), the changed values encoded with the options
    // given to make(). `changes` must be sorted by key, without repeats.
    // Fails as encodeValue() does, and then leaves `out` as it was.
    MaybeError appendWith(Bytes& out, std::span<const Change> changes) const;

private:
    EncodedDictionary() = default;

    Value value_;
    ValueCodecOptions options_;
    Bytes bytes_;
    // Where each entry starts in bytes_, in key order, then bytes_.size().
    std::vector<std::uint32_t> offsets_;
};

} // namespace tv
