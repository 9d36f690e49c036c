/*
 * A folder for one test, which goes with it.
 */
#ifndef CORVANE_TESTS_APPLIANCE_SERVER_TEMP_FOLDER_H
#define CORVANE_TESTS_APPLIANCE_SERVER_TEMP_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace corvane::appliance {

class TempFolder {
public:
    TempFolder() {
        std::string pattern = std::filesystem::temp_directory_path() / "corvane-test-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("no temporary folder");
        path_ = pattern;
    }
    ~TempFolder() { std::filesystem::remove_all(path_); }
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

    std::string file(const std::string &name) const { return path_ + "/" + name; }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

} // namespace corvane::appliance

#endif
