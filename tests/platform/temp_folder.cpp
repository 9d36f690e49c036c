/*
 * Folders and files of tests.
 */
#include "temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

TempFolder::TempFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "corvane-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary folder " + name);
    path_ = name;
}

TempFolder::~TempFolder() {
    std::error_code ignored; // the rest of a folder that cannot be removed harms no other test
    std::filesystem::remove_all(path_, ignored);
}

corvane::platform::Folders TempFolder::folders() const {
    return {path_ + "/state", path_ + "/runtime"};
}

void setVariable(const char *name, const std::string &value) {
    setenv(name, value.c_str(), 1); // NOLINT(concurrency-mt-unsafe): there is one thread
}

void unsetVariable(const char *name) {
    unsetenv(name); // NOLINT(concurrency-mt-unsafe): there is one thread
}

void useFolder(const TempFolder &folder) {
    setVariable("CORVANE_STATE_DIR", folder / "state");
    setVariable("CORVANE_RUNTIME_DIR", folder / "runtime");
}

const TempFolder &processFolder() {
    static const TempFolder folder;
    useFolder(folder);
    return folder;
}

std::string readFile(const std::string &path) {
    std::ifstream file(path);
    EXPECT_TRUE(file.good()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string &path, const std::string &text) { std::ofstream(path) << text; }

std::vector<std::string> namesIn(const std::string &path) {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(path))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}
