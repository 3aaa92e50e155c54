// FakeTypeIdentifierService: a type-identifier service over declarations
// given in code, for tests of the code that asks about conformance. Counts
// the questions it is asked.
#pragma once

#include "platform/types/TypeIdentifierService.h"

#include <atomic>
#include <memory>
#include <vector>

namespace tv::test {

class FakeTypeIdentifierService final : public platform::TypeIdentifierService {
public:
    explicit FakeTypeIdentifierService(const std::vector<platform::TypeDeclaration>& declarations = {})
        : table_(std::make_shared<const platform::TypeConformanceTable>(declarations))
    {
    }

    void setDeclarations(const std::vector<platform::TypeDeclaration>& declarations)
    {
        std::atomic_store(&table_, std::make_shared<const platform::TypeConformanceTable>(declarations));
    }
    unsigned questions() const { return questions_.load(); }

    bool conformsTo(std::string_view type, std::string_view otherType) override
    {
        ++questions_;
        return table()->conformsTo(type, otherType);
    }
    std::shared_ptr<const platform::TypeConformanceTable> table() override { return std::atomic_load(&table_); }

private:
    std::shared_ptr<const platform::TypeConformanceTable> table_;
    std::atomic<unsigned> questions_{0};
};

} // namespace tv::test
