#include "platform/formats/TypedJson.h"

#include "platform/formats/Base64.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cmath>
#include <limits>

namespace tv::platform {

namespace {

using Json = nlohmann::json;

TvError jsonError(std::string text)
{
    return makeError(EINVAL, "typed JSON: " + std::move(text));
}

enum class Tag { Int, UInt, Double, Uuid, Data, Date, Url };

std::optional<Tag> tagNamed(std::string_view key)
{
    if (key == "$int") return Tag::Int;
    if (key == "$uint") return Tag::UInt;
    if (key == "$double") return Tag::Double;
    if (key == "$uuid") return Tag::Uuid;
    if (key == "$data") return Tag::Data;
    if (key == "$date") return Tag::Date;
    if (key == "$url") return Tag::Url;
    return std::nullopt;
}

// The value a tag object stands for, from the plain value of its member.
std::optional<Value> tagged(Tag tag, const Value& v)
{
    const std::string* s = v.asString();
    switch (tag) {
    case Tag::Int:
        if (v.asInt())
            return v;
        if (v.asUInt() && *v.asUInt() <= static_cast<std::uint64_t>(INT64_MAX))
            return Value(static_cast<std::int64_t>(*v.asUInt()));
        return std::nullopt;
    case Tag::UInt:
        if (v.asUInt())
            return v;
        return std::nullopt;
    case Tag::Double:
        if (v.asDouble())
            return v;
        if (v.asUInt())
            return Value(static_cast<double>(*v.asUInt()));
        if (v.asInt())
            return Value(static_cast<double>(*v.asInt()));
        if (s && *s == "nan")
            return Value(std::numeric_limits<double>::quiet_NaN());
        if (s && (*s == "inf" || *s == "-inf"))
            return Value(*s == "inf" ? HUGE_VAL : -HUGE_VAL);
        return std::nullopt;
    case Tag::Uuid:
        if (auto u = s ? Uuid::parse(*s) : std::nullopt)
            return Value(*u);
        return std::nullopt;
    case Tag::Data:
        if (auto bytes = s ? base64Decode(*s, false) : std::nullopt)
            return Value::data(std::move(*bytes));
        return std::nullopt;
    case Tag::Date:
        if (auto date = s ? Date::parseIso8601(*s) : std::nullopt)
            return Value(*date);
        return std::nullopt;
    case Tag::Url:
        if (s)
            return Value::url(*s);
        return std::nullopt;
    }
    return std::nullopt;
}

// Builds Values straight from the parser's events with an explicit stack, so
// that no JSON document tree is built and depth is checked as it grows.
class TypedJsonReader final : public nlohmann::json_sax<Json> {
public:
    explicit TypedJsonReader(const TypedJsonLimits& limits) : limits_(limits) {}

    std::optional<TvError> error;
    Value result;

    bool null() override { return scalar(Value()); }
    bool boolean(bool b) override { return scalar(Value(b)); }
    bool number_integer(number_integer_t i) override { return scalar(Value(static_cast<std::int64_t>(i))); }
    bool number_unsigned(number_unsigned_t u) override { return scalar(Value(static_cast<std::uint64_t>(u))); }
    bool number_float(number_float_t d, const string_t& text) override
    {
        // The parser turns integers beyond 64 bits into doubles; in typed
        // JSON an integer literal is always a 64-bit integer.
        if (text.find_first_of(".eE") == std::string::npos)
            return fail("integer out of range: " + text);
        if (!std::isfinite(d))
            return fail("number out of range: " + text);
        return scalar(Value(d));
    }
    bool string(string_t& s) override { return scalar(Value(std::move(s))); }
    bool binary(binary_t&) override { return fail("binary values are not JSON"); }

    bool start_object(std::size_t) override { return open(true); }
    bool key(string_t& k) override
    {
        Frame& top = stack_.back();
        if (k.size() >= 2 && k[0] == '$' && k[1] == '$') {
            k.erase(0, 1);
        } else if (!k.empty() && k[0] == '$') {
            auto tag = tagNamed(k);
            if (!tag)
                return fail("unknown tag \"" + k + "\"");
            if (!top.entries.empty() || top.key || top.tag)
                return fail("tag \"" + k + "\" must be the object's only member");
            top.tag = tag;
            top.tagName = k;
            return true;
        }
        if (top.tag)
            return fail("tag \"" + top.tagName + "\" must be the object's only member");
        if (top.entries.count(k))
            return fail("duplicate key \"" + k + "\"");
        top.key = std::move(k);
        return true;
    }
    bool end_object() override
    {
        Frame frame = std::move(stack_.back());
        stack_.pop_back();
        if (frame.tag) {
            if (!frame.tagValue)
                return fail("tag \"" + frame.tagName + "\" has no value");
            auto v = tagged(*frame.tag, *frame.tagValue);
            if (!v)
                return fail("bad value for \"" + frame.tagName + "\": " + frame.tagValue->description());
            return add(std::move(*v));
        }
        return add(Value(std::move(frame.entries)));
    }
    bool start_array(std::size_t) override { return open(false); }
    bool end_array() override
    {
        Frame frame = std::move(stack_.back());
        stack_.pop_back();
        return add(Value(std::move(frame.items)));
    }

    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& ex) override
    {
        return fail(ex.what());
    }

private:
    struct Frame {
        bool object;
        Array items;
        Dictionary entries;
        std::optional<std::string> key;
        std::optional<Tag> tag;
        std::string tagName;
        std::optional<Value> tagValue;
    };

    bool fail(std::string text)
    {
        if (!error)
            error = jsonError(std::move(text));
        return false;
    }

    bool insideTag() const { return !stack_.empty() && stack_.back().tag; }

    // A value at this depth would be too deep; a tag's member is part of the
    // tag object's one value and adds no depth.
    bool tooDeep() const { return !insideTag() && stack_.size() + 1 > limits_.maxDepth; }

    bool open(bool object)
    {
        if (insideTag())
            return fail("bad value for \"" + stack_.back().tagName + "\": a container");
        if (tooDeep())
            return fail("nesting deeper than " + std::to_string(limits_.maxDepth));
        stack_.push_back(Frame{object, {}, {}, {}, {}, {}, {}});
        return true;
    }

    bool scalar(Value v)
    {
        if (tooDeep())
            return fail("nesting deeper than " + std::to_string(limits_.maxDepth));
        return add(std::move(v));
    }

    bool add(Value v)
    {
        if (stack_.empty()) {
            result = std::move(v);
            return true;
        }
        Frame& top = stack_.back();
        if (!top.object) {
            top.items.push_back(std::move(v));
        } else if (top.tag) {
            top.tagValue = std::move(v);
        } else {
            // Null members stay until the dictionary is built (which drops
            // them), so that a duplicate of a null member is still caught.
            top.entries.emplace(std::move(*top.key), std::move(v));
            top.key.reset();
        }
        return true;
    }

    const TypedJsonLimits& limits_;
    std::vector<Frame> stack_;
};

Json tagObject(const char* tag, Json member)
{
    Json o = Json::object();
    o[tag] = std::move(member);
    return o;
}

Json toJson(const Value& v)
{
    switch (v.kind()) {
    case ValueKind::Null: return nullptr;
    case ValueKind::Bool: return *v.asBool();
    case ValueKind::Int:
        if (*v.asInt() < 0)
            return *v.asInt();
        return tagObject("$int", *v.asInt());
    case ValueKind::UInt: return *v.asUInt();
    case ValueKind::Double: {
        double d = *v.asDouble();
        if (std::isnan(d))
            return tagObject("$double", "nan");
        if (std::isinf(d))
            return tagObject("$double", d < 0 ? "-inf" : "inf");
        return d;
    }
    case ValueKind::String: return *v.asString();
    case ValueKind::Data: return tagObject("$data", base64Encode(*v.asData()));
    case ValueKind::Date: return tagObject("$date", v.asDate()->iso8601());
    case ValueKind::Uuid: return tagObject("$uuid", v.asUuid()->string());
    case ValueKind::Url: return tagObject("$url", *v.asUrl());
    case ValueKind::Array: {
        Json a = Json::array();
        for (const Value& item : *v.asArray())
            a.push_back(toJson(item));
        return a;
    }
    case ValueKind::Dictionary: {
        Json o = Json::object();
        for (const auto& [key, member] : *v.asDictionary())
            o[key.starts_with('$') ? "$" + key : key] = toJson(member);
        return o;
    }
    }
    return nullptr;
}

} // namespace

Result<Value> parseTypedJson(std::string_view text, const TypedJsonLimits& limits)
{
    if (text.size() > limits.maxBytes)
        return makeError(EFBIG, "typed JSON: text of " + std::to_string(text.size()) +
                                    " bytes exceeds the limit of " + std::to_string(limits.maxBytes));
    TypedJsonReader reader(limits);
    bool ok = false;
    try {
        ok = Json::sax_parse(text.begin(), text.end(), &reader);
    } catch (const std::exception& ex) {
        return jsonError(ex.what());
    }
    if (!ok)
        return reader.error ? *reader.error : jsonError("malformed text");
    return std::move(reader.result);
}

std::string toTypedJson(const Value& value, bool pretty)
{
    return toJson(value).dump(pretty ? 2 : -1, ' ', false, Json::error_handler_t::replace);
}

} // namespace tv::platform
