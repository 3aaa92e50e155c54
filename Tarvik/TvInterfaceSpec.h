// Interface specs and interface descriptors for code that types a connection
// to a plug-in.
//
// An interface spec types the arguments of one message: a comma-separated
// list of items "kind:position:type", kind "request" (an argument of the
// message) or "reply" (an argument of its reply), position a decimal
// argument index (text that is not a number reads as 0), type either the
// name of a registered interface descriptor or a brace set of type names
// joined by "+", such as "{string+data}". Nothing is trimmed.
//
// Descriptors come from InterfaceDescriptorRegistry::shared(), type names
// from TypeNameRegistry::shared(). Thread-safe.
#pragma once

#include "Tarvik/ConnectionInterface.h"
#include "Tarvik/InterfaceDescriptor.h"
#include "base/TvError.h"
#include "base/Value.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tv {

// Error codes of this group.
inline constexpr std::int64_t kTvErrorMalformedInterfaceSpec = 6;
inline constexpr std::int64_t kTvErrorInterfaceDescriptor = 12;

// Applies the items of `spec` in order to `message` of `interface`. The first
// bad item ends the parse with code 6 (items before it stay applied): the
// whole spec as description when an item has not exactly three fields,
// otherwise the offending kind, type or type name. An absent spec succeeds.
MaybeError parseInterfaceSpec(ConnectionInterface& interface, std::string_view message,
                              const std::optional<std::string>& spec);

// The registered descriptor named `name`. When there is none, logs "unable to
// locate protocol "<name>" - check that it is defined and not inadvertently
// optimized away" at default level in "ops", stores code 12 with that text in
// *errorOut when errorOut is given, and returns null. *errorOut is untouched
// on success.
std::shared_ptr<const InterfaceDescriptor> lookUpInterfaceDescriptor(std::string_view name,
                                                                     TvError* errorOut = nullptr);

// For a string: lookUpInterfaceDescriptor() of it. For an array of names: the
// descriptor "__XX_COMPOUND__<name1>__<name2>..." adopting each named
// descriptor in order, built and registered on first request and shared
// afterwards (names in another order make another compound). A missing
// component fails as lookUpInterfaceDescriptor() does; so does an element
// that is not a string. Any other kind of value: null and no error. When the
// compound's name is taken but nothing is registered under it, fails with
// code 12 "unable to create compound protocol".
std::shared_ptr<const InterfaceDescriptor> compoundInterfaceDescriptor(const Value& nameOrNames,
                                                                       TvError* errorOut = nullptr);

} // namespace tv
