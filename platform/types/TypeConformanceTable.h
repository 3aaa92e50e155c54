// TypeConformanceTable: type declarations and their conformance, computed
// once when the table is built and immutable afterwards.
//
// A declaration names a type identifier and the identifiers it conforms to
// directly. Conformance is the reflexive, transitive closure of those
// statements: every type conforms to itself (declared or not) and to
// everything its parents conform to. Identifiers compare exactly
// (case-sensitively); the empty identifier names no type and conforms to
// nothing. A declaration cycle is tolerated: the types on it conform to each
// other, and the table records them (cycleMembers()) so that whoever builds
// it can log the mistake.
//
// Thread-safety: immutable after construction; any thread may query it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tv::platform {

struct TypeDeclaration {
    std::string identifier;
    std::vector<std::string> conformsTo;
};

class TypeConformanceTable {
public:
    TypeConformanceTable() = default;
    explicit TypeConformanceTable(const std::vector<TypeDeclaration>& declarations);

    // Whether `type` conforms to `otherType`.
    bool conformsTo(std::string_view type, std::string_view otherType) const;

    // Identifiers known to the table (declared or named as a parent).
    std::size_t typeCount() const { return names_.size(); }
    // Identifiers that lie on a declaration cycle, in sorted order.
    const std::vector<std::string>& cycleMembers() const { return cycleMembers_; }

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
    };
    std::unordered_map<std::string, std::uint32_t, Hash, std::equal_to<>> index_;
    std::vector<std::string> names_;
    // For each type, every type it conforms to (itself included), sorted.
    std::vector<std::vector<std::uint32_t>> ancestors_;
    std::vector<std::string> cycleMembers_;
};

} // namespace tv::platform
