// SdkMerge: how an extension point's SDK dictionary (the default bundle
// information of its plug-ins, from ExtensionSdkRegistry) completes a
// plug-in's own bundle information. The plug-in record of the model
// (TvPlugInCore::resolveSDK) and the application registry's records both
// resolve through these functions, so a key reads the same in either.
//
// Rules (docs/sdk-merge.md):
//   - the plug-in's own value wins for every key it sets, at every depth;
//   - "CleanTimeout": the SDK's value wins;
//   - "Shared": both arrays united, each element once, the plug-in's own
//     elements first; when either side is not an array the plug-in's stays;
//   - dictionaries on both sides merge key by key under the same rules; an
//     SDK dictionary where the plug-in holds another kind leaves the
//     plug-in's value;
//   - keys only the SDK sets are taken from it.
// Canonical plug-in dictionary: "KoExtensionAttributes" is a dictionary (a
// value of another kind counts as absent) holding "KoExtensionVersion",
// defaulted to the bundle's "KbBundleShortVersionString", else "1".
//
// Pure functions of their arguments; safe from any thread.
#pragma once

#include "base/Value.h"

#include <functional>
#include <string_view>

namespace tv::platform {

// The two replaceable steps of the merge; an empty function means the rule
// above (sdkOverridesKey(), mergeSharedResourcesInto()).
struct SdkMergeSteps {
    std::function<bool(std::string_view key)> sdkOverridesKey;
    std::function<Value(const Value& sdkList, const Value& ownList)> mergeSharedResources;
};

// True exactly for "CleanTimeout".
bool sdkOverridesKey(std::string_view key);
// The "Shared" union.
Value mergeSharedResourcesInto(const Value& sdkList, const Value& ownList);
// `own` with `sdk` merged under it, recursively. A non-dictionary `sdk` or
// `own` gives `own`. Neither argument is changed.
Value mergeSdkDictionaryInto(const Value& sdk, const Value& own, const SdkMergeSteps& steps = {});
// `plugInDictionary` (a non-dictionary counts as empty) with a canonical
// "KoExtensionAttributes"; `shortVersion` is the bundle's
// "KbBundleShortVersionString" (null when absent).
Value canonicalPlugInDictionary(const Value& plugInDictionary, const Value& shortVersion);

// A bundle's information resolved against its extension point's SDK: the
// Info.vlist with `sdk` merged under it (unchanged when `sdk` is not a
// dictionary), and its "KoExtension" made canonical.
struct ResolvedBundleInfo {
    Value infoDictionary;
    Value plugInDictionary;
};
ResolvedBundleInfo resolveBundleInfo(const Value& infoDictionary, const Value& sdk);

} // namespace tv::platform
