#include "Tarvik/TvInterfaceSpec.h"

#include "Tarvik/InterfaceDescriptorRegistry.h"
#include "Tarvik/TvLog.h"
#include "base/InternalInconsistency.h"

#include <vector>

namespace tv {

namespace {

constexpr const char* kUnableToLocate =
    "unable to locate protocol \"%@\" - check that it is defined and not inadvertently optimized away";

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    for (;;) {
        std::size_t at = text.find(separator);
        parts.push_back(text.substr(0, at));
        if (at == std::string_view::npos)
            return parts;
        text.remove_prefix(at + 1);
    }
}

MaybeError applyItem(ConnectionInterface& interface, std::string_view message, std::string_view item,
                     const std::string& wholeSpec)
{
    std::vector<std::string_view> fields = split(item, ':');
    if (fields.size() != 3)
        return makeError(kTvErrorMalformedInterfaceSpec, wholeSpec);
    std::string_view kind = fields[0];
    MessageDirection direction;
    if (kind == "request")
        direction = MessageDirection::Request;
    else if (kind == "reply")
        direction = MessageDirection::Reply;
    else
        return makeError(kTvErrorMalformedInterfaceSpec, std::string(kind));
    std::int64_t position = Value(fields[1]).integerValue();
    std::string_view type = fields[2];

    if (type.empty())
        return makeError(kTvErrorMalformedInterfaceSpec, std::string(type));
    if (type.front() != '{') {
        auto descriptor = lookUpInterfaceDescriptor(type);
        if (!descriptor)
            return makeError(kTvErrorMalformedInterfaceSpec, std::string(type));
        interface.setArgumentInterface(message, direction, position,
                                       std::make_shared<ConnectionInterface>(std::move(descriptor)));
        return std::nullopt;
    }
    if (type.size() < 2 || type.back() != '}')
        return makeError(kTvErrorMalformedInterfaceSpec, std::string(type));

    std::vector<ArgumentType> types;
    for (std::string_view name : split(type.substr(1, type.size() - 2), '+')) {
        auto resolved = TypeNameRegistry::shared().resolve(name);
        if (!resolved)
            return makeError(kTvErrorMalformedInterfaceSpec, std::string(name));
        types.push_back(std::move(*resolved));
    }
    interface.setArgumentTypes(message, direction, position, types);
    return std::nullopt;
}

} // namespace

MaybeError parseInterfaceSpec(ConnectionInterface& interface, std::string_view message,
                              const std::optional<std::string>& spec)
{
    if (!spec)
        return std::nullopt;
    for (std::string_view item : split(*spec, ','))
        if (MaybeError error = applyItem(interface, message, item, *spec))
            return error;
    return std::nullopt;
}

std::shared_ptr<const InterfaceDescriptor> lookUpInterfaceDescriptor(std::string_view name, TvError* errorOut)
{
    if (auto descriptor = InterfaceDescriptorRegistry::shared().lookUp(name))
        return descriptor;
    TvLog::ops().notice(kUnableToLocate, name);
    if (errorOut)
        *errorOut = makeErrorWithFormat(kTvErrorInterfaceDescriptor, kUnableToLocate, name);
    return nullptr;
}

std::shared_ptr<const InterfaceDescriptor> compoundInterfaceDescriptor(const Value& nameOrNames, TvError* errorOut)
{
    if (const std::string* name = nameOrNames.asString())
        return lookUpInterfaceDescriptor(*name, errorOut);
    const Array* names = nameOrNames.asArray();
    if (!names)
        return nullptr;

    std::string compoundName = "__XX_COMPOUND";
    for (const Value& element : *names) {
        const std::string* name = element.asString();
        if (!name) {
            // Refused before anything is reserved: no descriptor has such a name.
            TvLog::ops().notice(kUnableToLocate, element);
            if (errorOut)
                *errorOut = makeErrorWithFormat(kTvErrorInterfaceDescriptor, kUnableToLocate, element);
            return nullptr;
        }
        compoundName += "__";
        compoundName += *name;
    }

    InterfaceDescriptorRegistry& registry = InterfaceDescriptorRegistry::shared();
    std::shared_ptr<InterfaceDescriptor> compound = registry.allocate(compoundName);
    if (!compound) {
        // Built before, or being built by another thread right now.
        if (auto existing = registry.lookUpAwaitingPending(compoundName))
            return existing;
        if (errorOut)
            *errorOut = makeError(kTvErrorInterfaceDescriptor, "unable to create compound protocol");
        return nullptr;
    }

    // Until registered, the name stays reserved; every way out that does not
    // register gives it up at once, so that waiting threads do not wait on a
    // descriptor that will never come.
    struct AbandonUnlessRegistered {
        InterfaceDescriptorRegistry& registry;
        const InterfaceDescriptor& descriptor;
        ~AbandonUnlessRegistered()
        {
            if (!descriptor.isRegistered())
                registry.abandon(descriptor);
        }
    } guard{registry, *compound};

    std::vector<std::shared_ptr<const InterfaceDescriptor>> components;
    for (const Value& element : *names) {
        auto component = lookUpInterfaceDescriptor(*element.asString(), errorOut);
        if (!component)
            return nullptr;
        components.push_back(std::move(component));
    }
    for (auto& component : components)
        compound->addAdoptedDescriptor(std::move(component));
    if (!registry.registerDescriptor(compound))
        raiseInternalInconsistency("allocated interface descriptor " + compoundName + " could not be registered");
    return compound;
}

} // namespace tv
