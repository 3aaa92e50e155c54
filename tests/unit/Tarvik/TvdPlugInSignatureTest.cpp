#include "Tarvik/TvdPlugInSignature.h"

#include <gtest/gtest.h>

namespace tv {
namespace {

TEST(TvdPlugInSignatureTest, EverySignatureCarriesItsOwnDigest)
{
    const Value url = Value::fileURL("/Applications/Example.app/PlugIns/Share.vext");
    TvError error = makeError(99, "untouched");
    auto first = TvdPlugInSignature::initWithURLError(url, &error);
    auto second = TvdPlugInSignature::initWithURLError(url, nullptr);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first->sighash().size(), 20u);
    EXPECT_NE(first->sighash(), second->sighash());
    EXPECT_EQ(first->requirement(), "dummy requirement");
    EXPECT_EQ(error, makeError(99, "untouched"));
}

} // namespace
} // namespace tv
