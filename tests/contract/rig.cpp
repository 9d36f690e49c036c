#include "rig.h"

#include <gtest/gtest.h>

namespace contract {

std::string Rig::key(const std::string &name) const {
    const auto *test = testing::UnitTest::GetInstance()->current_test_info();
    return std::string("memory/contract/") + test->test_suite_name() + "." + test->name() + "/" +
           name;
}

} // namespace contract
