/* Finding a file; see the header. */
#include "page_files.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <utility>

namespace corvane::appliance {
namespace {

bool isName(const std::string &name) {
    return !name.empty() && name.front() != '/' && name.find("..") == std::string::npos &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '.' || c == '-' || c == '_' || c == '/';
           });
}

std::string typeOf(const std::string &name) {
    static constexpr std::array<std::pair<std::string_view, const char *>, 6> kTypes{
        {{".html", "text/html; charset=utf-8"},
         {".css", "text/css; charset=utf-8"},
         {".js", "text/javascript; charset=utf-8"},
         {".json", "application/json"},
         {".svg", "image/svg+xml"},
         {".png", "image/png"}}};
    for (const auto &[ending, type] : kTypes)
        if (name.ends_with(ending))
            return type;
    return "text/plain; charset=utf-8";
}

/* FNV-1a: tells two states of a file apart, and is no secret. */
std::string etagOf(std::string_view content) {
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char c : content)
        hash = (hash ^ static_cast<std::uint8_t>(c)) * 0x100000001b3;
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "\"%016llx\"", static_cast<unsigned long long>(hash));
    return text.data();
}

PageFile makeFile(const std::string &name, std::string content) {
    std::string etag = etagOf(content);
    return {std::move(content), typeOf(name), std::move(etag)};
}

} // namespace

std::optional<PageFile> PageFiles::find(const std::string &name) const {
    if (!isName(name))
        return std::nullopt;
    if (!folder_.empty()) {
        std::ifstream file(folder_ + "/" + name, std::ios::binary);
        if (!file || !file.good() || file.peek() == std::ifstream::traits_type::eof())
            return std::nullopt;
        return makeFile(name, {std::istreambuf_iterator<char>(file), {}});
    }
    for (const EmbeddedFile &file : kEmbeddedPage)
        if (file.name == name)
            return makeFile(name, {file.begin, file.end});
    return std::nullopt;
}

} // namespace corvane::appliance
