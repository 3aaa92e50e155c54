#include "platform/sdk/SdkMerge.h"

#include <unordered_set>

namespace tv::platform {
namespace {

constexpr std::string_view kCleanTimeoutKey = "CleanTimeout";
constexpr std::string_view kSharedKey = "Shared";
constexpr std::string_view kAttributesKey = "KoExtensionAttributes";
constexpr std::string_view kVersionKey = "KoExtensionVersion";

} // namespace

bool sdkOverridesKey(std::string_view key)
{
    return key == kCleanTimeoutKey;
}

Value mergeSharedResourcesInto(const Value& sdkList, const Value& ownList)
{
    const Array* sdkItems = sdkList.asArray();
    const Array* ownItems = ownList.asArray();
    if (!sdkItems || !ownItems)
        return ownList;

    Array result;
    result.reserve(ownItems->size() + sdkItems->size());
    std::unordered_set<Value> seen;
    for (const Array* items : {ownItems, sdkItems}) {
        for (const Value& item : *items) {
            if (seen.insert(item).second)
                result.push_back(item);
        }
    }
    return Value(std::move(result));
}

Value mergeSdkDictionaryInto(const Value& sdk, const Value& own, const SdkMergeSteps& steps)
{
    const Dictionary* sdkEntries = sdk.asDictionary();
    const Dictionary* ownEntries = own.asDictionary();
    if (!sdkEntries || !ownEntries)
        return own;

    Dictionary result = *ownEntries;
    for (const auto& [key, sdkValue] : *sdkEntries) {
        auto it = result.find(key);
        if (it == result.end()) {
            result.emplace(key, sdkValue);
        } else if (steps.sdkOverridesKey ? steps.sdkOverridesKey(key) : sdkOverridesKey(key)) {
            it->second = sdkValue;
        } else if (key == kSharedKey) {
            it->second = steps.mergeSharedResources ? steps.mergeSharedResources(sdkValue, it->second)
                                                    : mergeSharedResourcesInto(sdkValue, it->second);
        } else if (sdkValue.isDictionary() && it->second.isDictionary()) {
            it->second = mergeSdkDictionaryInto(sdkValue, it->second, steps);
        }
        // Otherwise the plug-in's own value stays.
    }
    return Value(std::move(result));
}

Value canonicalPlugInDictionary(const Value& plugInDictionary, const Value& shortVersion)
{
    Value info = plugInDictionary.isDictionary() ? plugInDictionary : Value::emptyDictionary();
    Value attributes = info[kAttributesKey];
    if (!attributes.isDictionary())
        attributes = Value::emptyDictionary();
    if (attributes[kVersionKey].isNull())
        attributes = attributes.with(kVersionKey, shortVersion.isNull() ? Value("1") : shortVersion);
    return info.with(kAttributesKey, attributes);
}

ResolvedBundleInfo resolveBundleInfo(const Value& infoDictionary, const Value& sdk)
{
    Value merged = sdk.isDictionary() ? mergeSdkDictionaryInto(sdk, infoDictionary) : infoDictionary;
    Value plugIn = canonicalPlugInDictionary(merged["KoExtension"], merged["KbBundleShortVersionString"]);
    return ResolvedBundleInfo{std::move(merged), std::move(plugIn)};
}

} // namespace tv::platform
