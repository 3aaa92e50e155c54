#include "base/Value.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace tv {

static_assert(static_cast<int>(ValueKind::Dictionary) == 11, "ValueKind must follow the variant's order");

const char* valueKindName(ValueKind kind)
{
    switch (kind) {
    case ValueKind::Null: return "null";
    case ValueKind::Bool: return "bool";
    case ValueKind::Int: return "int";
    case ValueKind::UInt: return "uint";
    case ValueKind::Double: return "double";
    case ValueKind::String: return "string";
    case ValueKind::Data: return "data";
    case ValueKind::Date: return "date";
    case ValueKind::Uuid: return "uuid";
    case ValueKind::Url: return "url";
    case ValueKind::Array: return "array";
    case ValueKind::Dictionary: return "dictionary";
    }
    return "?";
}

Value::Value(const char* s) : rep_(std::make_shared<const std::string>(s ? s : "")) {}
Value::Value(std::string s) : rep_(std::make_shared<const std::string>(std::move(s))) {}
Value::Value(Array a) : rep_(std::make_shared<const Array>(std::move(a))) {}

Value::Value(Dictionary d)
{
    std::erase_if(d, [](const auto& entry) { return entry.second.isNull(); });
    rep_ = std::make_shared<const Dictionary>(std::move(d));
}

Value::Value(std::initializer_list<std::pair<const std::string, Value>> entries) : Value(Dictionary(entries)) {}

Value Value::data(Bytes bytes)
{
    Value v;
    v.rep_ = std::make_shared<const Bytes>(std::move(bytes));
    return v;
}

Value Value::url(std::string text)
{
    Value v;
    v.rep_ = std::make_shared<const UrlRep>(UrlRep{std::move(text)});
    return v;
}

Value Value::fileURL(std::string_view path)
{
    return url("file://" + std::string(path));
}

const Value& Value::emptyDictionary()
{
    static const Value& v = *new Value(Dictionary{});
    return v;
}

const Value& Value::emptyArray()
{
    static const Value& v = *new Value(Array{});
    return v;
}

bool Value::isNumber() const
{
    auto k = kind();
    return k == ValueKind::Int || k == ValueKind::UInt || k == ValueKind::Double;
}

const std::string* Value::asString() const
{
    auto p = std::get_if<std::shared_ptr<const std::string>>(&rep_);
    return p ? p->get() : nullptr;
}

const Bytes* Value::asData() const
{
    auto p = std::get_if<std::shared_ptr<const Bytes>>(&rep_);
    return p ? p->get() : nullptr;
}

const std::string* Value::asUrl() const
{
    auto p = std::get_if<std::shared_ptr<const UrlRep>>(&rep_);
    return p ? &(*p)->text : nullptr;
}

const Array* Value::asArray() const
{
    auto p = std::get_if<std::shared_ptr<const Array>>(&rep_);
    return p ? p->get() : nullptr;
}

const Dictionary* Value::asDictionary() const
{
    auto p = std::get_if<std::shared_ptr<const Dictionary>>(&rep_);
    return p ? p->get() : nullptr;
}

static bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool Value::boolValue() const
{
    switch (kind()) {
    case ValueKind::Bool: return *asBool();
    case ValueKind::Int: return *asInt() != 0;
    case ValueKind::UInt: return *asUInt() != 0;
    case ValueKind::Double: return *asDouble() != 0.0;
    case ValueKind::String: {
        const std::string& s = *asString();
        std::size_t i = 0;
        while (i < s.size() && isSpace(s[i]))
            ++i;
        if (i < s.size() && (s[i] == '+' || s[i] == '-'))
            ++i;
        while (i < s.size() && s[i] == '0')
            ++i;
        if (i >= s.size())
            return false;
        char c = s[i];
        return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
    }
    default: return false;
    }
}

std::int64_t Value::integerValue() const
{
    switch (kind()) {
    case ValueKind::Int: return *asInt();
    case ValueKind::UInt: return static_cast<std::int64_t>(*asUInt());
    case ValueKind::Double: {
        double d = *asDouble();
        if (std::isnan(d))
            return 0;
        if (d >= 9.2233720368547758e18)
            return INT64_MAX;
        if (d <= -9.2233720368547758e18)
            return INT64_MIN;
        return static_cast<std::int64_t>(d);
    }
    case ValueKind::String: {
        const std::string& s = *asString();
        std::size_t i = 0;
        while (i < s.size() && isSpace(s[i]))
            ++i;
        bool negative = false;
        if (i < s.size() && (s[i] == '+' || s[i] == '-'))
            negative = s[i++] == '-';
        std::uint64_t magnitude = 0;
        bool overflow = false;
        for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
            if (magnitude > (UINT64_MAX - 9) / 10)
                overflow = true;
            else
                magnitude = magnitude * 10 + static_cast<std::uint64_t>(s[i] - '0');
        }
        if (negative) {
            if (overflow || magnitude > static_cast<std::uint64_t>(INT64_MAX) + 1)
                return INT64_MIN;
            return static_cast<std::int64_t>(0 - magnitude);
        }
        if (overflow || magnitude > static_cast<std::uint64_t>(INT64_MAX))
            return INT64_MAX;
        return static_cast<std::int64_t>(magnitude);
    }
    default: return 0;
    }
}

std::uint64_t Value::unsignedValue() const
{
    auto p = asUInt();
    return p ? *p : 0;
}

static const Value& nullValue()
{
    static const Value& v = *new Value();
    return v;
}

const Value& Value::operator[](std::string_view key) const
{
    auto d = asDictionary();
    if (!d)
        return nullValue();
    auto it = d->find(key);
    return it == d->end() ? nullValue() : it->second;
}

const Value& Value::at(std::size_t index) const
{
    auto a = asArray();
    if (!a || index >= a->size())
        return nullValue();
    return (*a)[index];
}

std::size_t Value::count() const
{
    if (auto a = asArray())
        return a->size();
    if (auto d = asDictionary())
        return d->size();
    if (auto b = asData())
        return b->size();
    return 0;
}

Value Value::with(std::string_view key, Value value) const
{
    auto d = asDictionary();
    Dictionary copy = d ? *d : Dictionary{};
    if (value.isNull()) {
        auto it = copy.find(key);
        if (it != copy.end())
            copy.erase(it);
    } else {
        copy.insert_or_assign(std::string(key), std::move(value));
    }
    return Value(std::move(copy));
}

Value Value::without(std::string_view key) const
{
    return with(key, Value());
}

std::string Value::filePath() const
{
    std::string p = urlPath();
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    return p;
}

std::string Value::urlPath() const
{
    auto u = asUrl();
    if (!u)
        return {};
    std::string_view t = *u;
    constexpr std::string_view scheme = "file://";
    if (t.substr(0, scheme.size()) != scheme)
        return {};
    t.remove_prefix(scheme.size());
    // "file://localhost/x" names the same file as "file:///x".
    if (t.substr(0, 9) == "localhost")
        t.remove_prefix(9);
    return std::string(t);
}

static void appendQuoted(std::string& out, const std::string& s)
{
    out += '"';
    for (char c : s) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    out += '"';
}

static void describe(const Value& v, std::string& out, bool nested)
{
    char buf[64];
    switch (v.kind()) {
    case ValueKind::Null: out += "(null)"; break;
    case ValueKind::Bool: out += *v.asBool() ? "true" : "false"; break;
    case ValueKind::Int: out += std::to_string(*v.asInt()); break;
    case ValueKind::UInt: out += std::to_string(*v.asUInt()); break;
    case ValueKind::Double:
        std::snprintf(buf, sizeof buf, "%.17g", *v.asDouble());
        out += buf;
        break;
    case ValueKind::String:
        if (nested)
            appendQuoted(out, *v.asString());
        else
            out += *v.asString();
        break;
    case ValueKind::Data: {
        out += '<';
        const Bytes& b = *v.asData();
        for (std::size_t i = 0; i < b.size(); ++i) {
            if (i && i % 4 == 0)
                out += ' ';
            std::snprintf(buf, sizeof buf, "%02x", b[i]);
            out += buf;
        }
        out += '>';
        break;
    }
    case ValueKind::Date: out += v.asDate()->iso8601(); break;
    case ValueKind::Uuid: out += v.asUuid()->string(); break;
    case ValueKind::Url: out += *v.asUrl(); break;
    case ValueKind::Array: {
        out += '(';
        bool first = true;
        for (const auto& e : *v.asArray()) {
            out += first ? "" : ", ";
            first = false;
            describe(e, out, true);
        }
        out += ')';
        break;
    }
    case ValueKind::Dictionary: {
        out += '{';
        bool first = true;
        for (const auto& [k, e] : *v.asDictionary()) {
            out += first ? "" : "; ";
            first = false;
            appendQuoted(out, k);
            out += " = ";
            describe(e, out, true);
        }
        out += '}';
        break;
    }
    }
}

std::string Value::description() const
{
    std::string out;
    describe(*this, out, false);
    return out;
}

bool operator==(const Value& a, const Value& b)
{
    if (a.kind() != b.kind())
        return false;
    switch (a.kind()) {
    case ValueKind::Null: return true;
    case ValueKind::Bool: return *a.asBool() == *b.asBool();
    case ValueKind::Int: return *a.asInt() == *b.asInt();
    case ValueKind::UInt: return *a.asUInt() == *b.asUInt();
    case ValueKind::Double: {
        // Bitwise for NaN so that a decoded NaN equals what was encoded.
        double x = *a.asDouble(), y = *b.asDouble();
        return x == y || (std::isnan(x) && std::isnan(y));
    }
    case ValueKind::String: return *a.asString() == *b.asString();
    case ValueKind::Data: return *a.asData() == *b.asData();
    case ValueKind::Date: return *a.asDate() == *b.asDate();
    case ValueKind::Uuid: return *a.asUuid() == *b.asUuid();
    case ValueKind::Url: return *a.asUrl() == *b.asUrl();
    case ValueKind::Array: return a.asArray() == b.asArray() || *a.asArray() == *b.asArray();
    case ValueKind::Dictionary: return a.asDictionary() == b.asDictionary() || *a.asDictionary() == *b.asDictionary();
    }
    return false;
}

static std::size_t mix(std::size_t h, std::size_t v)
{
    return h ^ (v + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2));
}

std::size_t Value::hash() const
{
    std::size_t h = static_cast<std::size_t>(kind());
    switch (kind()) {
    case ValueKind::Null: return h;
    case ValueKind::Bool: return mix(h, *asBool());
    case ValueKind::Int: return mix(h, std::hash<std::int64_t>{}(*asInt()));
    case ValueKind::UInt: return mix(h, std::hash<std::uint64_t>{}(*asUInt()));
    case ValueKind::Double: return mix(h, std::isnan(*asDouble()) ? 0 : std::hash<double>{}(*asDouble()));
    case ValueKind::String: return mix(h, std::hash<std::string>{}(*asString()));
    case ValueKind::Data:
        return mix(h, std::hash<std::string_view>{}(
                          std::string_view(reinterpret_cast<const char*>(asData()->data()), asData()->size())));
    case ValueKind::Date: return mix(h, std::hash<std::int64_t>{}(asDate()->microseconds()));
    case ValueKind::Uuid: return mix(h, asUuid()->hash());
    case ValueKind::Url: return mix(h, std::hash<std::string>{}(*asUrl()));
    case ValueKind::Array:
        for (const auto& e : *asArray())
            h = mix(h, e.hash());
        return h;
    case ValueKind::Dictionary:
        for (const auto& [k, e] : *asDictionary())
            h = mix(mix(h, std::hash<std::string>{}(k)), e.hash());
        return h;
    }
    return h;
}

} // namespace tv
