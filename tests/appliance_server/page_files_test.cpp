/* The page's files: from the program and from a folder, and nothing beside it. */
#include "page_files.h"

#include "temp_folder.h"

#include <gmock/gmock.h>

#include <fstream>

namespace corvane::appliance {
namespace {

TEST(EmbeddedFiles, AreFoundWithTypeAndEtag) {
    const PageFiles files("");
    const auto index = files.find("index.html");
    ASSERT_TRUE(index.has_value());
    EXPECT_THAT(index->content, testing::HasSubstr("<!doctype html>"));
    EXPECT_EQ(index->type, "text/html; charset=utf-8");
    EXPECT_EQ(files.find("main.js")->type, "text/javascript; charset=utf-8");
    EXPECT_NE(files.find("main.js")->etag, index->etag);
    EXPECT_TRUE(files.find("views/power.js").has_value());
}

TEST(EmbeddedFiles, AreSmallEnoughForTheFirstPaint) {
    for (const EmbeddedFile &file : kEmbeddedPage)
        EXPECT_LE(file.end - file.begin, 150 * 1000) << file.name;
}

TEST(FolderFiles, AreReadAnewAndNeverFromOutside) {
    const TempFolder folder;
    std::filesystem::create_directory(folder.file("page"));
    std::ofstream(folder.file("secret")) << "secret";
    std::ofstream(folder.file("page/a.css")) << "one";
    const PageFiles files(folder.file("page"));
    const std::string etag = files.find("a.css")->etag;
    std::ofstream(folder.file("page/a.css")) << "two";
    EXPECT_EQ(files.find("a.css")->content, "two");
    EXPECT_NE(files.find("a.css")->etag, etag);
    for (const char *name :
         {"../secret", "/etc/passwd", "", ".", "a.css\n", "%2e%2e/secret", "none"})
        EXPECT_FALSE(files.find(name).has_value()) << name;
}

} // namespace
} // namespace corvane::appliance
