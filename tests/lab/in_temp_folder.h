/*
 * A test with a folder of its own, which is gone after it.
 */
#ifndef CORVANE_TESTS_LAB_IN_TEMP_FOLDER_H
#define CORVANE_TESTS_LAB_IN_TEMP_FOLDER_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace corvane::lab {

class InTempFolder : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/corvane-lab-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        folder_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    std::string folder_;
};

} // namespace corvane::lab

#endif
