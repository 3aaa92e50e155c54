#include "Tarvik/TypeNameRegistry.h"

namespace tv {

TypeNameRegistry& TypeNameRegistry::shared()
{
    static TypeNameRegistry& registry = *new TypeNameRegistry;
    return registry;
}

TypeNameRegistry::TypeNameRegistry()
{
    for (auto kind : {ValueKind::Null, ValueKind::Bool, ValueKind::Int, ValueKind::UInt, ValueKind::Double,
                      ValueKind::String, ValueKind::Data, ValueKind::Date, ValueKind::Uuid, ValueKind::Url,
                      ValueKind::Array, ValueKind::Dictionary}) {
        std::string name = valueKindName(kind);
        types_.emplace(name, ArgumentType{name, kind});
    }
}

std::optional<ArgumentType> TypeNameRegistry::resolve(std::string_view name) const
{
    std::lock_guard lock(mutex_);
    auto it = types_.find(name);
    if (it == types_.end())
        return std::nullopt;
    return it->second;
}

bool TypeNameRegistry::registerTypeName(std::string name)
{
    if (name.empty() || name.find_first_of("{}+,:") != std::string::npos)
        return false;
    std::lock_guard lock(mutex_);
    ArgumentType type{name, std::nullopt};
    return types_.emplace(std::move(name), std::move(type)).second;
}

} // namespace tv
