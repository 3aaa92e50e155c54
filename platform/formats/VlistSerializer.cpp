#include "platform/formats/VlistSerializer.h"

#include "base/ValueCodec.h"
#include "platform/formats/AtomicFile.h"
#include "platform/formats/Base64.h"
#include "platform/formats/VlistParser.h"

#include <cerrno>
#include <charconv>
#include <cmath>

namespace tv::platform {

namespace {

TvError formatError(std::string text)
{
    return makeError(EINVAL, "vlist: " + std::move(text));
}

// XML 1.0 carries tab, LF and CR (CR only as a character reference, since
// parsers normalise line ends) and everything from U+0020 on, except U+FFFE
// and U+FFFF. Text holding anything else, or invalid UTF-8, cannot be read
// back and is refused.
bool appendEscaped(std::string& out, std::string_view s)
{
    if (!isValidUtf8(s))
        return false;
    for (std::size_t i = 0; i < s.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        switch (c) {
        case '&': out += "&amp;"; continue;
        case '<': out += "&lt;"; continue;
        case '>': out += "&gt;"; continue;
        case '"': out += "&quot;"; continue;
        case '\r': out += "&#13;"; continue;
        case '\t':
        case '\n': out.push_back(static_cast<char>(c)); continue;
        default: break;
        }
        if (c < 0x20)
            return false;
        if (c == 0xEF && i + 2 < s.size() && static_cast<unsigned char>(s[i + 1]) == 0xBF &&
            (static_cast<unsigned char>(s[i + 2]) == 0xBE || static_cast<unsigned char>(s[i + 2]) == 0xBF))
            return false;
        out.push_back(static_cast<char>(c));
    }
    return true;
}

class VlistSerializer {
public:
    MaybeError write(const Value& v, std::size_t depth)
    {
        if (depth > kMaxDepth)
            return formatError("cannot write nesting deeper than " + std::to_string(kMaxDepth));
        switch (v.kind()) {
        case ValueKind::Null: return formatError("cannot write an absent value");
        case ValueKind::Bool: line(depth, *v.asBool() ? "<true/>" : "<false/>"); return std::nullopt;
        case ValueKind::Int: return leaf(depth, "integer", std::to_string(*v.asInt()));
        case ValueKind::UInt: return leaf(depth, "integer", "+" + std::to_string(*v.asUInt()));
        case ValueKind::Double: return leaf(depth, "real", realText(*v.asDouble()));
        case ValueKind::String: return escapedLeaf(depth, "string", *v.asString());
        case ValueKind::Url: return escapedLeaf(depth, "url", *v.asUrl());
        case ValueKind::Uuid: return formatError("cannot write a UUID: the format has no element that reads back as one");
        case ValueKind::Data: return leaf(depth, "data", base64Encode(*v.asData()));
        case ValueKind::Date: {
            std::string text = v.asDate()->iso8601();
            if (Date::parseIso8601(text) != *v.asDate())
                return formatError("cannot write the date " + text);
            return leaf(depth, "date", text);
        }
        case ValueKind::Array: {
            const Array& items = *v.asArray();
            if (items.empty()) {
                line(depth, "<array/>");
                return std::nullopt;
            }
            line(depth, "<array>");
            for (const Value& item : items)
                if (auto err = write(item, depth + 1))
                    return err;
            line(depth, "</array>");
            return std::nullopt;
        }
        case ValueKind::Dictionary: {
            const Dictionary& entries = *v.asDictionary();
            if (entries.empty()) {
                line(depth, "<dict/>");
                return std::nullopt;
            }
            line(depth, "<dict>");
            for (const auto& [key, value] : entries)
                if (auto err = writeEntry(key, value, depth + 1))
                    return err;
            line(depth, "</dict>");
            return std::nullopt;
        }
        }
        return formatError("cannot write a value of unknown kind");
    }

    // A dictionary entry whose key and value sit at `depth`.
    MaybeError writeEntry(std::string_view key, const Value& value, std::size_t depth)
    {
        if (auto err = escapedLeaf(depth, "key", key))
            return err;
        return write(value, depth);
    }

    std::string out;

private:
    static constexpr std::size_t kMaxDepth = VlistLimits{}.maxDepth;

    static std::string realText(double d)
    {
        if (std::isnan(d))
            return "nan";
        if (std::isinf(d))
            return d < 0 ? "-inf" : "inf";
        // Shortest text that reads back as the same double.
        char buf[32];
        auto res = std::to_chars(buf, buf + sizeof buf, d);
        return std::string(buf, res.ptr);
    }

    // The root value sits at depth 1 and is not indented, as in the usual
    // layout of these files; members are indented one tab per level below it.
    void indent(std::size_t depth) { out.append(depth > 1 ? depth - 1 : 0, '\t'); }

    void line(std::size_t depth, std::string_view text)
    {
        indent(depth);
        out.append(text);
        out.push_back('\n');
    }

    MaybeError leaf(std::size_t depth, std::string_view tag, std::string_view text)
    {
        indent(depth);
        out.append("<").append(tag).append(">").append(text).append("</").append(tag).append(">\n");
        return std::nullopt;
    }

    MaybeError escapedLeaf(std::size_t depth, std::string_view tag, std::string_view text)
    {
        indent(depth);
        out.append("<").append(tag).append(">");
        if (!appendEscaped(out, text))
            return formatError("cannot write <" + std::string(tag) +
                               ">: text holds invalid UTF-8 or a control character that XML cannot carry");
        out.append("</").append(tag).append(">\n");
        return std::nullopt;
    }
};

} // namespace

Result<std::string> serializeVlist(const Value& value)
{
    VlistSerializer writer;
    writer.out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<vlist version=\"1.0\">\n";
    if (auto err = writer.write(value, 1))
        return *err;
    writer.out += "</vlist>\n";
    return std::move(writer.out);
}

Result<std::string> serializeVlistEntry(std::string_view key, const Value& value, std::size_t depth)
{
    VlistSerializer writer;
    if (auto err = writer.writeEntry(key, value, depth + 1))
        return *err;
    return std::move(writer.out);
}

MaybeError writeVlistFileAtomically(const std::string& path, const Value& value, unsigned mode)
{
    auto text = serializeVlist(value);
    if (!text.ok())
        return text.error();
    return writeFileAtomically(path, *text, mode);
}

} // namespace tv::platform
