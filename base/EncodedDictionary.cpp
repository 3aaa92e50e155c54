#include "base/EncodedDictionary.h"

#include <algorithm>

namespace tv {

std::shared_ptr<const EncodedDictionary> EncodedDictionary::make(Value dictionary, const ValueCodecOptions& options)
{
    const Dictionary* d = dictionary.asDictionary();
    if (!d || options.maxDepth < 1)
        return nullptr;
    std::shared_ptr<EncodedDictionary> made(new EncodedDictionary);
    made->options_ = options;
    // Entries sit one level below the dictionary.
    ValueCodecOptions inner = options;
    inner.maxDepth = options.maxDepth - 1;
    Bytes& out = made->bytes_;
    appendContainerHeader(out, ValueTag::Dictionary, static_cast<std::uint32_t>(d->size()));
    made->offsets_.reserve(d->size() + 1);
    for (const auto& [key, entry] : *d) {
        made->offsets_.push_back(static_cast<std::uint32_t>(out.size()));
        appendDictionaryKey(out, key);
        if (encodeValue(entry, out, inner))
            return nullptr;
        if (out.size() > UINT32_MAX)
            return nullptr;
    }
    made->offsets_.push_back(static_cast<std::uint32_t>(out.size()));
    out.shrink_to_fit();
    made->value_ = std::move(dictionary);
    return made;
}

MaybeError EncodedDictionary::appendWith(Bytes& out, std::span<const Change> changes) const
{
    const Dictionary& d = *value_.asDictionary();
    std::size_t count = d.size();
    for (const auto& [key, entry] : changes) {
        const bool present = d.find(key) != d.end();
        if (present && entry.isNull())
            --count;
        else if (!present && !entry.isNull())
            ++count;
    }
    const std::size_t start = out.size();
    // Grown geometrically: a reply appends many forms to one buffer.
    const std::size_t need = start + bytes_.size() + 64 * changes.size();
    if (out.capacity() < need)
        out.reserve(std::max(need, 2 * out.capacity()));
    appendContainerHeader(out, ValueTag::Dictionary, static_cast<std::uint32_t>(count));

    ValueCodecOptions inner = options_;
    inner.maxDepth = options_.maxDepth - 1;
    // Entries before the next change are copied as one run of bytes.
    auto it = d.begin();
    std::size_t index = 0, run = 0;
    auto copyRun = [&] {
        out.insert(out.end(), bytes_.begin() + offsets_[run], bytes_.begin() + offsets_[index]);
    };
    for (const auto& [key, entry] : changes) {
        while (it != d.end() && std::string_view(it->first) < key) {
            ++it;
            ++index;
        }
        copyRun();
        if (it != d.end() && it->first == key) {
            ++it;
            ++index;
        }
        run = index;
        if (entry.isNull())
            continue;
        appendDictionaryKey(out, key);
        if (auto err = encodeValue(entry, out, inner)) {
            out.resize(start);
            return err;
        }
    }
    index = d.size();
    copyRun();
    return std::nullopt;
}

} // namespace tv
