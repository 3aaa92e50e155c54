// checkBusy(): the busy description a plug-in yields from the process-state
// service's answer.
#include "tvd/TvdPlugIn.h"

#include "platform/processstate/ProcessStateService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegistryRecords.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

struct ScriptedProcessState final : platform::ProcessStateService {
    Result<std::vector<Value>> answer = std::vector<Value>{};
    std::vector<std::set<std::string>> asked;
    Result<std::vector<Value>> busyExtensionInstances(const std::set<std::string>& ids) override
    {
        asked.push_back(ids);
        return answer;
    }
};

TEST(TvdPlugInBusyTest, TheFirstInstanceWithABundleIdentifierIsTheBusyDescription)
{
    auto keepd = std::make_shared<ScriptedProcessState>();
    TvdPlugIn::setProcessStateService(keepd);
    auto record = test::makePlugInRecord();
    auto plugIn = TvdPlugIn::initWithRSData(record);
    ASSERT_TRUE(plugIn);
    const Value busy{{"ExtensionBundleIdentifier", "com.example.p"}};
    const Value incomplete{{"ProcessIdentifier", 7}};
    struct Case {
        Result<std::vector<Value>> answer;
        Value description;
        std::size_t incompleteLines;
    };
    const Case cases[] = {
        {std::vector<Value>{}, Value(), 0},
        {std::vector<Value>{incomplete, Value{{"BundleIdentifier", "com.example.p"}}, Value{{"BundleIdentifier", "x"}}},
         busy, 1},
        {std::vector<Value>{incomplete}, Value(), 1},
        {makeError(4, "no process table"), busy, 0}, // cannot tell: busy
    };
    for (const auto& c : cases) {
        test::LogCapture log;
        keepd->answer = c.answer;
        EXPECT_EQ(plugIn->checkBusy(), c.description);
        EXPECT_EQ(log.count("keepd reported incomplete bundle for plug-in com.example.p/" + record->uuid.string()),
                  c.incompleteLines);
        EXPECT_EQ(keepd->asked.back(), std::set<std::string>{"com.example.p"});
    }

    // Without a bundle identifier there is nothing to ask about.
    record->infoDictionary = record->infoDictionary.with("KbBundleIdentifier", Value());
    keepd->asked.clear();
    auto anonymous = TvdPlugIn::initWithRSData(record);
    ASSERT_TRUE(anonymous);
    EXPECT_TRUE(anonymous->checkBusy().isNull());
    EXPECT_TRUE(keepd->asked.empty());
    TvdPlugIn::setProcessStateService(nullptr);
}

} // namespace
} // namespace tv
