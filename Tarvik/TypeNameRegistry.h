// TypeNameRegistry: the type names that an interface spec may list as the
// allowed types of a message argument.
//
// Every registry knows the names of the value kinds ("null", "bool", "int",
// "uint", "double", "string", "data", "date", "uuid", "url", "array",
// "dictionary"); a program adds names of its own types with
// registerTypeName(). A resolved type is its name plus, for a value kind, the
// kind.
// Thread-safe.
#pragma once

#include "base/Value.h"

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tv {

struct ArgumentType {
    std::string name;
    std::optional<ValueKind> kind; // absent for a program's own type

    friend bool operator==(const ArgumentType&, const ArgumentType&) = default;
};

class TypeNameRegistry {
public:
    // The process-wide registry.
    static TypeNameRegistry& shared();

    // A registry knowing the value kinds' names.
    TypeNameRegistry();
    TypeNameRegistry(const TypeNameRegistry&) = delete;
    TypeNameRegistry& operator=(const TypeNameRegistry&) = delete;

    std::optional<ArgumentType> resolve(std::string_view name) const;

    // Adds a type name. Returns false, adding nothing, when the name is
    // already known or could not be written in a spec's brace set (empty, or
    // containing one of "{}+,:").
    bool registerTypeName(std::string name);

private:
    mutable std::mutex mutex_;
    std::map<std::string, ArgumentType, std::less<>> types_;
};

} // namespace tv
