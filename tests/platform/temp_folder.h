/*
 * A folder of the test's own, removed with everything in it at the end.
 */
#ifndef CORVANE_TESTS_PLATFORM_TEMP_FOLDER_H
#define CORVANE_TESTS_PLATFORM_TEMP_FOLDER_H

#include "folders.h"

#include <string>
#include <vector>

class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

    /* A state and a runtime folder in it. */
    corvane::platform::Folders folders() const;

private:
    std::string path_;
};

/* Changes the environment of this process, while it has one thread. */
void setVariable(const char *name, const std::string &value);
void unsetVariable(const char *name);

/* Points CORVANE_STATE_DIR and CORVANE_RUNTIME_DIR into the folder. */
void useFolder(const TempFolder &folder);

/* useFolder() once for the whole process, since the process has one settings store. */
const TempFolder &processFolder();

std::string readFile(const std::string &path);
void writeFile(const std::string &path, const std::string &text);

/* Names in the folder but "." and "..", sorted. */
std::vector<std::string> namesIn(const std::string &path);

#endif
