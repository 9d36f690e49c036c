/*
 * The files that the server hands out: built into the program, or, for work on the page, read from
 * a folder at each request.
 */
#ifndef CORVANE_APPLIANCE_SERVER_PAGE_FILES_H
#define CORVANE_APPLIANCE_SERVER_PAGE_FILES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::appliance {

/* Made by the build, see embed.cmake. The names are paths such as "views/power.js". */
struct EmbeddedFile {
    std::string_view name;
    const char *begin;
    const char *end;
};
extern const std::vector<EmbeddedFile> kEmbeddedPage;
extern const EmbeddedFile kEmbeddedOpenApi;

struct PageFile {
    std::string content;
    std::string type; // its media type
    std::string etag; // with its quotes
};

class PageFiles {
public:
    /* An empty folder means the files of the program. */
    explicit PageFiles(std::string folder) : folder_(std::move(folder)) {}

    /* Nothing when there is no such file, or its name is not one that a page's file has. */
    std::optional<PageFile> find(const std::string &name) const;

private:
    const std::string folder_;
};

} // namespace corvane::appliance

#endif
