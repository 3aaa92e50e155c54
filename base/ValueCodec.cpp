#include "base/ValueCodec.h"

#include <cstring>
#include <vector>

namespace tv {

namespace {

// Codec errors use code 4, the "malformed request" code of the protocol.
constexpr std::int64_t kMalformed = 4;

// Heap cost of one shared allocation (control block, object, allocator
// header) and of one dictionary node (tree links, key, value, header).
constexpr std::size_t kSharedCost = 64;
constexpr std::size_t kNodeCost = 96;
constexpr std::size_t kShortString = 15; // held inside the string object
static_assert(kNodeCost / 5 <= kMaxDecodedCostPerByte && sizeof(Value) <= kMaxDecodedCostPerByte,
              "an entry takes at least 5 encoded bytes, an element at least 1");

const Value& emptyString()
{
    static const Value& v = *new Value(std::string());
    return v;
}

const Value& emptyData()
{
    static const Value& v = *new Value(Value::data({}));
    return v;
}

void putU32(Bytes& out, std::uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

void putU64(Bytes& out, std::uint64_t v)
{
    for (int i = 0; i < 8; ++i)
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

void putBlob(Bytes& out, ValueTag tag, const void* p, std::size_t n)
{
    out.push_back(static_cast<std::uint8_t>(tag));
    putU32(out, static_cast<std::uint32_t>(n));
    const auto* b = static_cast<const std::uint8_t*>(p);
    out.insert(out.end(), b, b + n);
}

MaybeError encode(const Value& v, Bytes& out, const ValueCodecOptions& opt, std::size_t depth)
{
    // Depth counts containers: a scalar inside the deepest container allowed
    // adds no level.
    if ((v.isArray() || v.isDictionary()) && depth > opt.maxDepth)
        return makeError(kMalformed, "value nested deeper than " + std::to_string(opt.maxDepth));
    switch (v.kind()) {
    case ValueKind::Null: out.push_back(static_cast<std::uint8_t>(ValueTag::Null)); break;
    case ValueKind::Bool:
        out.push_back(static_cast<std::uint8_t>(*v.asBool() ? ValueTag::True : ValueTag::False));
        break;
    case ValueKind::Int:
        out.push_back(static_cast<std::uint8_t>(ValueTag::Int));
        putU64(out, static_cast<std::uint64_t>(*v.asInt()));
        break;
    case ValueKind::UInt:
        out.push_back(static_cast<std::uint8_t>(ValueTag::UInt));
        putU64(out, *v.asUInt());
        break;
    case ValueKind::Double: {
        out.push_back(static_cast<std::uint8_t>(ValueTag::Double));
        std::uint64_t bits;
        double d = *v.asDouble();
        std::memcpy(&bits, &d, sizeof bits);
        putU64(out, bits);
        break;
    }
    case ValueKind::String: {
        const std::string& s = *v.asString();
        if (s.size() > UINT32_MAX)
            return makeError(kMalformed, "string too long to encode");
        putBlob(out, ValueTag::String, s.data(), s.size());
        break;
    }
    case ValueKind::Data: {
        const Bytes& b = *v.asData();
        if (b.size() > UINT32_MAX)
            return makeError(kMalformed, "data too long to encode");
        putBlob(out, ValueTag::Data, b.data(), b.size());
        break;
    }
    case ValueKind::Date:
        out.push_back(static_cast<std::uint8_t>(ValueTag::Date));
        putU64(out, static_cast<std::uint64_t>(v.asDate()->microseconds()));
        break;
    case ValueKind::Uuid:
        out.push_back(static_cast<std::uint8_t>(ValueTag::Uuid));
        out.insert(out.end(), v.asUuid()->bytes().begin(), v.asUuid()->bytes().end());
        break;
    case ValueKind::Url: {
        if (!opt.allowUrl)
            return makeError(kMalformed, "URL values cannot travel in an IPC message");
        const std::string& s = *v.asUrl();
        putBlob(out, ValueTag::Url, s.data(), s.size());
        break;
    }
    case ValueKind::Array: {
        const Array& a = *v.asArray();
        appendContainerHeader(out, ValueTag::Array, static_cast<std::uint32_t>(a.size()));
        for (const auto& e : a)
            if (auto err = encode(e, out, opt, depth + 1))
                return err;
        break;
    }
    case ValueKind::Dictionary: {
        const Dictionary& d = *v.asDictionary();
        appendContainerHeader(out, ValueTag::Dictionary, static_cast<std::uint32_t>(d.size()));
        for (const auto& [k, e] : d) {
            appendDictionaryKey(out, k);
            if (auto err = encode(e, out, opt, depth + 1))
                return err;
        }
        break;
    }
    }
    return std::nullopt;
}

class Decoder {
public:
    Decoder(std::span<const std::uint8_t> in, const ValueCodecOptions& opt) : in_(in), opt_(opt) {}

    std::size_t cost() const { return cost_; }

    // Counts `bytes` of decoded memory; false past the limit.
    bool spend(std::size_t bytes)
    {
        if (bytes > opt_.maxDecodedBytes - cost_)
            return false;
        cost_ += bytes;
        return true;
    }

    Result<Value> value(std::size_t depth)
    {
        std::uint8_t tag;
        if (!byte(tag))
            return fail("truncated value");
        // Depth counts containers only (see encode()).
        auto t = static_cast<ValueTag>(tag);
        if ((t == ValueTag::Array || t == ValueTag::Dictionary) && depth > opt_.maxDepth)
            return fail("nesting deeper than " + std::to_string(opt_.maxDepth));
        switch (static_cast<ValueTag>(tag)) {
        case ValueTag::Null: return Value();
        case ValueTag::False: return Value(false);
        case ValueTag::True: return Value(true);
        case ValueTag::Int: {
            std::uint64_t u;
            if (!u64(u))
                return fail("truncated integer");
            return Value(static_cast<std::int64_t>(u));
        }
        case ValueTag::UInt: {
            std::uint64_t u;
            if (!u64(u))
                return fail("truncated integer");
            return Value(u);
        }
        case ValueTag::Double: {
            std::uint64_t u;
            if (!u64(u))
                return fail("truncated double");
            double d;
            std::memcpy(&d, &u, sizeof d);
            return Value(d);
        }
        case ValueTag::String:
        case ValueTag::Url: {
            std::string s;
            if (!blob(s))
                return fail("truncated string");
            if (!isValidUtf8(s))
                return fail("string is not valid UTF-8");
            if (static_cast<ValueTag>(tag) == ValueTag::String && s.empty())
                return emptyString();
            if (!spend(kSharedCost + (s.size() > kShortString ? s.size() : 0)))
                return tooLarge();
            if (static_cast<ValueTag>(tag) == ValueTag::String)
                return Value(std::move(s));
            if (!opt_.allowUrl)
                return fail("URL values are not allowed here");
            return Value::url(std::move(s));
        }
        case ValueTag::Data: {
            std::uint32_t n;
            if (!u32(n) || n > remaining())
                return fail("truncated data");
            if (n == 0)
                return emptyData();
            if (!spend(kSharedCost + n))
                return tooLarge();
            Bytes b(in_.begin() + static_cast<std::ptrdiff_t>(pos_), in_.begin() + static_cast<std::ptrdiff_t>(pos_ + n));
            pos_ += n;
            return Value::data(std::move(b));
        }
        case ValueTag::Date: {
            std::uint64_t u;
            if (!u64(u))
                return fail("truncated date");
            return Value(Date::fromMicroseconds(static_cast<std::int64_t>(u)));
        }
        case ValueTag::Uuid: {
            if (remaining() < 16)
                return fail("truncated UUID");
            Uuid::Bytes b;
            std::memcpy(b.data(), in_.data() + pos_, 16);
            pos_ += 16;
            return Value(Uuid(b));
        }
        case ValueTag::Array: {
            std::uint32_t n;
            // Every element takes at least one byte: a count beyond what
            // remains is refused before reserving anything.
            if (!u32(n) || n > remaining())
                return fail("truncated array");
            if (n == 0)
                return Value::emptyArray();
            if (!spend(kSharedCost + n * sizeof(Value)))
                return tooLarge();
            Array a;
            a.reserve(n);
            for (std::uint32_t i = 0; i < n; ++i) {
                auto e = value(depth + 1);
                if (!e)
                    return e;
                a.push_back(std::move(e).value());
            }
            return Value(std::move(a));
        }
        case ValueTag::Dictionary: {
            std::uint32_t n;
            // Every entry takes at least five bytes (key length and a tag).
            if (!u32(n) || n > remaining() / 5)
                return fail("truncated dictionary");
            if (n == 0)
                return Value::emptyDictionary();
            if (!spend(kSharedCost))
                return tooLarge();
            Dictionary d;
            for (std::uint32_t i = 0; i < n; ++i) {
                std::string key;
                if (!blobBody(key))
                    return fail("truncated dictionary key");
                if (!spend(kNodeCost + (key.size() > kShortString ? key.size() : 0)))
                    return tooLarge();
                if (!isValidUtf8(key))
                    return fail("dictionary key is not valid UTF-8");
                auto e = value(depth + 1);
                if (!e)
                    return e;
                if (e->isNull())
                    return fail("dictionary entry \"" + key + "\" is null");
                if (!d.emplace(std::move(key), std::move(e).value()).second)
                    return fail("duplicate dictionary key");
            }
            return Value(std::move(d));
        }
        }
        return fail("unknown value tag " + std::to_string(tag));
    }

    std::size_t remaining() const { return in_.size() - pos_; }

private:
    Result<Value> fail(const std::string& why) { return makeError(kMalformed, "malformed value: " + why); }
    Result<Value> tooLarge()
    {
        return makeError(kMalformed, "decoded value larger than " + std::to_string(opt_.maxDecodedBytes) + " bytes");
    }

    bool byte(std::uint8_t& b)
    {
        if (remaining() < 1)
            return false;
        b = in_[pos_++];
        return true;
    }
    bool u32(std::uint32_t& v)
    {
        if (remaining() < 4)
            return false;
        v = 0;
        for (int i = 0; i < 4; ++i)
            v |= static_cast<std::uint32_t>(in_[pos_ + static_cast<std::size_t>(i)]) << (8 * i);
        pos_ += 4;
        return true;
    }
    bool u64(std::uint64_t& v)
    {
        if (remaining() < 8)
            return false;
        v = 0;
        for (int i = 0; i < 8; ++i)
            v |= static_cast<std::uint64_t>(in_[pos_ + static_cast<std::size_t>(i)]) << (8 * i);
        pos_ += 8;
        return true;
    }
    bool blobBody(std::string& s)
    {
        std::uint32_t n;
        if (!u32(n) || n > remaining())
            return false;
        s.assign(reinterpret_cast<const char*>(in_.data() + pos_), n);
        pos_ += n;
        return true;
    }
    bool blob(std::string& s) { return blobBody(s); }

    std::span<const std::uint8_t> in_;
    const ValueCodecOptions& opt_;
    std::size_t pos_ = 0;
    std::size_t cost_ = 0;
};

} // namespace

MaybeError encodeValue(const Value& value, Bytes& out, const ValueCodecOptions& options)
{
    std::size_t start = out.size();
    auto err = encode(value, out, options, 1);
    if (err)
        out.resize(start);
    return err;
}

Result<Value> decodeValue(std::span<const std::uint8_t> bytes, const ValueCodecOptions& options,
                          std::size_t* decodedBytes)
{
    Decoder d(bytes, options);
    if (!d.spend(sizeof(Value)))
        return makeError(kMalformed, "decoded value larger than " + std::to_string(options.maxDecodedBytes) + " bytes");
    auto v = d.value(1);
    if (v && d.remaining() != 0)
        return makeError(kMalformed, "malformed value: trailing bytes");
    if (v && decodedBytes)
        *decodedBytes = d.cost();
    return v;
}

bool isValidUtf8(std::string_view s)
{
    std::size_t i = 0, n = s.size();
    while (i < n) {
        auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t len;
        std::uint32_t cp;
        if ((c & 0xE0) == 0xC0) {
            len = 2;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > n)
            return false;
        for (std::size_t k = 1; k < len; ++k) {
            auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10FFFF ||
            (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += len;
    }
    return true;
}

void appendContainerHeader(Bytes& out, ValueTag tag, std::uint32_t count)
{
    out.push_back(static_cast<std::uint8_t>(tag));
    putU32(out, count);
}

void appendDictionaryKey(Bytes& out, std::string_view key)
{
    putU32(out, static_cast<std::uint32_t>(key.size()));
    out.insert(out.end(), key.begin(), key.end());
}

} // namespace tv
