/*
 * What both rigs have in common: names of settings that belong to one test alone, since on the
 * Linux platform all tests of a process share one settings store.
 */
#include "rig.h"

#include <gtest/gtest.h>

namespace contract {

std::string Rig::key(const std::string &name) const {
    const auto *test = testing::UnitTest::GetInstance()->current_test_info();
    return std::string("memory/contract/") + test->test_suite_name() + "." + test->name() + "/" +
           name;
}

} // namespace contract
