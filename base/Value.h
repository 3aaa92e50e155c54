// Value: the dynamic value that bundle information, plug-in dictionaries,
// forms, annotations, rules, preferences and IPC messages are made of.
//
// A Value is an immutable handle. Scalars are stored inline; strings, data,
// URLs, arrays and dictionaries live in immutable shared storage, so copying
// a Value (however large the dictionary behind it) costs one reference-count
// increment. "Changing" a Value means building a new one (see with()/
// without()); holders of the old one keep it unchanged. Values may be read
// from any number of threads at once.
//
// Kinds are distinct: the signed integer 1, the unsigned integer 1 and the
// double 1.0 are three different values for operator== and hashing. The
// numeric reading rules of the system (boolValue(), integerValue()) treat
// them alike.
//
// A dictionary never stores a null value: building one drops null entries,
// and with(key, null) removes the key.
#pragma once

#include "base/Date.h"
#include "base/Uuid.h"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tv {

class Value;

using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value, std::less<>>;
using Bytes = std::vector<std::uint8_t>;

enum class ValueKind : std::uint8_t {
    Null,
    Bool,
    Int,    // signed 64-bit
    UInt,   // unsigned 64-bit
    Double,
    String, // UTF-8
    Data,
    Date,
    Uuid,
    Url,
    Array,
    Dictionary,
};

const char* valueKindName(ValueKind kind);

class Value {
public:
    // Null (absent).
    Value() = default;
    Value(std::nullptr_t) {}

    // Implicit construction from the obvious C++ types keeps literals short
    // (Value("text"), Value(true), Value(int64_t{3})). Integers pick their kind
    // from their C++ signedness.
    Value(bool b) : rep_(b) {}
    Value(int i) : rep_(static_cast<std::int64_t>(i)) {}
    Value(long i) : rep_(static_cast<std::int64_t>(i)) {}
    Value(long long i) : rep_(static_cast<std::int64_t>(i)) {}
    Value(unsigned u) : rep_(static_cast<std::uint64_t>(u)) {}
    Value(unsigned long u) : rep_(static_cast<std::uint64_t>(u)) {}
    Value(unsigned long long u) : rep_(static_cast<std::uint64_t>(u)) {}
    Value(double d) : rep_(d) {}
    Value(const char* s);
    Value(std::string s);
    Value(std::string_view s) : Value(std::string(s)) {}
    // Pointers other than C strings must not silently become booleans.
    template <class T>
    Value(const T*) = delete;
    Value(Date d) : rep_(d) {}
    Value(Uuid u) : rep_(u) {}
    Value(Array a);
    Value(Dictionary d);
    Value(std::initializer_list<std::pair<const std::string, Value>> entries);

    static Value data(Bytes bytes);
    static Value url(std::string text);
    // A file URL ("file://" followed by the absolute path as given).
    static Value fileURL(std::string_view path);
    static Value array(Array a) { return Value(std::move(a)); }
    static Value dictionary(Dictionary d) { return Value(std::move(d)); }
    static const Value& emptyDictionary();
    static const Value& emptyArray();

    ValueKind kind() const { return static_cast<ValueKind>(rep_.index()); }
    bool isNull() const { return kind() == ValueKind::Null; }
    explicit operator bool() const = delete; // use isNull() or boolValue()
    bool isString() const { return kind() == ValueKind::String; }
    bool isArray() const { return kind() == ValueKind::Array; }
    bool isDictionary() const { return kind() == ValueKind::Dictionary; }
    bool isNumber() const;

    // Typed access: a pointer to the payload, or null for another kind.
    const bool* asBool() const { return std::get_if<bool>(&rep_); }
    const std::int64_t* asInt() const { return std::get_if<std::int64_t>(&rep_); }
    const std::uint64_t* asUInt() const { return std::get_if<std::uint64_t>(&rep_); }
    const double* asDouble() const { return std::get_if<double>(&rep_); }
    const std::string* asString() const;
    const Bytes* asData() const;
    const Date* asDate() const { return std::get_if<Date>(&rep_); }
    const Uuid* asUuid() const { return std::get_if<Uuid>(&rep_); }
    const std::string* asUrl() const;
    const Array* asArray() const;
    const Dictionary* asDictionary() const;

    // The system's boolean reading: a boolean is itself; a number is true when
    // non-zero; a string is true when, after leading white space, an optional
    // sign and leading zeros, it begins with Y, y, T, t or a digit 1-9;
    // anything else is false.
    bool boolValue() const;
    // The system's integer reading: a number gives its value (a double is
    // truncated, an unsigned above INT64_MAX wraps), a string its leading
    // decimal integer, anything else (a boolean too) 0.
    std::int64_t integerValue() const;
    // The unsigned reading used for protocol fields: an unsigned integer gives
    // its value, anything else (a signed integer included) 0.
    std::uint64_t unsignedValue() const;

    // Dictionary lookup; null when this is not a dictionary or has no such key.
    const Value& operator[](std::string_view key) const;
    // Array element; null when out of range or not an array.
    const Value& at(std::size_t index) const;
    // Element count of an array or dictionary, byte count of data, 0 otherwise.
    std::size_t count() const;

    // A copy of this dictionary with key set to value, or removed when value is
    // null. A non-dictionary receiver is treated as the empty dictionary.
    Value with(std::string_view key, Value value) const;
    Value without(std::string_view key) const;

    // The path of a file URL ("file:///a/b" gives "/a/b"); empty otherwise.
    std::string urlPath() const;
    // The file-system path: urlPath() without the "/" that ends a directory
    // URL ("file:///a/b/" gives "/a/b"; the root stays "/").
    std::string filePath() const;

    // The text form used by the "%@" conversion: a string is itself, a URL its
    // text, numbers in decimal, containers in a compact bracketed form.
    std::string description() const;

    friend bool operator==(const Value& a, const Value& b);
    std::size_t hash() const;

private:
    struct UrlRep {
        std::string text;
    };
    using Rep = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double,
                             std::shared_ptr<const std::string>, std::shared_ptr<const Bytes>, Date, Uuid,
                             std::shared_ptr<const UrlRep>, std::shared_ptr<const Array>,
                             std::shared_ptr<const Dictionary>>;
    Rep rep_;
};

} // namespace tv

template <>
struct std::hash<tv::Value> {
    std::size_t operator()(const tv::Value& v) const noexcept { return v.hash(); }
};
