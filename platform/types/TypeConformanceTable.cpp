#include "platform/types/TypeConformanceTable.h"

#include <algorithm>

namespace tv::platform {

TypeConformanceTable::TypeConformanceTable(const std::vector<TypeDeclaration>& declarations)
{
    auto intern = [this](const std::string& name) -> std::uint32_t {
        auto [it, inserted] = index_.try_emplace(name, static_cast<std::uint32_t>(names_.size()));
        if (inserted)
            names_.push_back(name);
        return it->second;
    };

    std::vector<std::vector<std::uint32_t>> parents;
    for (const TypeDeclaration& declaration : declarations) {
        if (declaration.identifier.empty())
            continue;
        std::uint32_t child = intern(declaration.identifier);
        for (const std::string& parent : declaration.conformsTo) {
            if (parent.empty())
                continue;
            std::uint32_t p = intern(parent);
            if (parents.size() < names_.size())
                parents.resize(names_.size());
            parents[child].push_back(p);
        }
    }
    parents.resize(names_.size());

    // Breadth-first walk up from every type with an explicit work list, so a
    // long chain costs no native stack. A walk that comes back to its start
    // found a cycle through it.
    ancestors_.resize(names_.size());
    std::vector<std::uint32_t> seenMark(names_.size(), UINT32_MAX);
    std::vector<std::uint32_t> work;
    for (std::uint32_t start = 0; start < names_.size(); ++start) {
        std::vector<std::uint32_t>& reached = ancestors_[start];
        reached.push_back(start);
        seenMark[start] = start;
        bool cyclic = false;
        work.assign(1, start);
        while (!work.empty()) {
            std::uint32_t node = work.back();
            work.pop_back();
            for (std::uint32_t p : parents[node]) {
                if (p == start)
                    cyclic = true;
                if (seenMark[p] == start)
                    continue;
                seenMark[p] = start;
                reached.push_back(p);
                work.push_back(p);
            }
        }
        std::sort(reached.begin(), reached.end());
        if (cyclic)
            cycleMembers_.push_back(names_[start]);
    }
    std::sort(cycleMembers_.begin(), cycleMembers_.end());
}

bool TypeConformanceTable::conformsTo(std::string_view type, std::string_view otherType) const
{
    if (type.empty() || otherType.empty())
        return false;
    if (type == otherType)
        return true;
    auto child = index_.find(type);
    if (child == index_.end())
        return false;
    auto parent = index_.find(otherType);
    if (parent == index_.end())
        return false;
    const std::vector<std::uint32_t>& reached = ancestors_[child->second];
    return std::binary_search(reached.begin(), reached.end(), parent->second);
}

} // namespace tv::platform
