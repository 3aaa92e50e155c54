#include "Tarvik/TvMessageConversion.h"

#include "base/ValueCodec.h"

namespace tv {

namespace {
constexpr std::uint8_t kMark = kMessageEncodingMark;
constexpr std::uint8_t kEncodingVersion = kMessageEncodingVersion;
} // namespace

Value plainValueForVyn(const Value& value)
{
    switch (value.kind()) {
    case ValueKind::Url: return Value(*value.asUrl());
    case ValueKind::Array: {
        Array out;
        out.reserve(value.count());
        for (const auto& e : *value.asArray())
            out.push_back(plainValueForVyn(e));
        return Value(std::move(out));
    }
    case ValueKind::Dictionary: {
        // Only rebuild when something inside changes, so the common case
        // shares the original storage.
        bool needsRebuild = false;
        for (const auto& [k, e] : *value.asDictionary()) {
            (void)k;
            if (e.kind() == ValueKind::Url || e.isArray() || e.isDictionary()) {
                needsRebuild = true;
                break;
            }
        }
        if (!needsRebuild)
            return value;
        Dictionary out;
        for (const auto& [k, e] : *value.asDictionary())
            out.emplace(k, plainValueForVyn(e));
        return Value(std::move(out));
    }
    default: return value;
    }
}

Value messageEncode(const Value& value)
{
    Bytes out{kMark, kEncodingVersion};
    if (encodeValue(value, out, ValueCodecOptions{.allowUrl = true}))
        return Value();
    return Value::data(std::move(out));
}

Value messageDecode(const Value& encoded)
{
    const Bytes* b = encoded.asData();
    if (!b || b->size() < 2 || (*b)[0] != kMark || (*b)[1] != kEncodingVersion)
        return Value();
    auto v = decodeValue(std::span<const std::uint8_t>(b->data() + 2, b->size() - 2),
                         ValueCodecOptions{.allowUrl = true});
    return v ? std::move(v).value() : Value();
}

} // namespace tv
