/*
 * Reading the file of pre-shared keys. A line that is wrong is told by its number, never quoted.
 */
#include "psk_file.h"

#include "text.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace corvane::platform {

namespace {

constexpr std::size_t kMaxFileSize = 64 * 1024;
constexpr std::size_t kMaxIdentitySize = 64;
constexpr std::size_t kMinKeySize = 16;
constexpr std::size_t kMaxKeySize = 64;

std::optional<unsigned> hexDigit(char digit) {
    if (digit >= '0' && digit <= '9')
        return static_cast<unsigned>(digit - '0');
    if (digit >= 'a' && digit <= 'f')
        return static_cast<unsigned>(digit - 'a' + 10);
    if (digit >= 'A' && digit <= 'F')
        return static_cast<unsigned>(digit - 'A' + 10);
    return std::nullopt;
}

std::optional<std::vector<std::uint8_t>> parseHex(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    if (text.size() % 2 != 0)
        return std::nullopt;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const auto high = hexDigit(text[i]);
        const auto low = hexDigit(text[i + 1]);
        if (!high || !low)
            return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(*high * 16 + *low));
    }
    return bytes;
}

bool isIdentity(std::string_view text) {
    if (text.empty() || text.size() > kMaxIdentitySize)
        return false;
    for (std::size_t position = 0; position < text.size();) {
        const auto character = nextCharacter(text, position);
        if (!character || !isPrintable(*character))
            return false;
    }
    return true;
}

std::string_view trimmed(std::string_view line) {
    const std::size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string_view::npos)
        return {};
    return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

/* An empty text when the line was taken into the keys, else what is wrong with it. */
std::string takeLine(std::string_view line, PskKeys &keys) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        return "is not identity:key";
    const std::string_view identity = line.substr(0, colon);
    if (!isIdentity(identity))
        return "has an identity that is not 1 to 64 printable characters";
    auto key = parseHex(line.substr(colon + 1));
    if (!key)
        return "has a key that is not pairs of hex digits";
    if (key->size() < kMinKeySize || key->size() > kMaxKeySize)
        return "has a key of " + std::to_string(key->size()) + " bytes instead of 16 to 64";
    if (!keys.emplace(identity, std::move(*key)).second)
        return "has an identity that stands in an earlier line too";
    return {};
}

struct FileDescriptor {
    int fd;
    ~FileDescriptor() {
        if (fd >= 0)
            close(fd);
    }
};

} // namespace

std::variant<PskKeys, PskError> parsePskKeys(std::string_view text) {
    PskKeys keys;
    for (int number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find('\n');
        const std::string_view line = trimmed(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        if (line.empty() || line.front() == '#')
            continue;
        const std::string problem = takeLine(line, keys);
        if (!problem.empty())
            return PskError{"line " + std::to_string(number) + ' ' + problem};
    }
    if (keys.empty())
        return PskError{"it holds no key"};
    return keys;
}

std::variant<PskKeys, PskError> readPskFile(const std::string &path) {
    const FileDescriptor file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat status {};
    if (file.fd < 0 || fstat(file.fd, &status) != 0)
        return PskError{std::generic_category().message(errno)};
    if (!S_ISREG(status.st_mode))
        return PskError{"it is not a regular file"};
    if (status.st_uid != geteuid())
        return PskError{"it belongs to another user (chown it)"};
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        return PskError{"others than its owner have access to it (chmod 600)"};

    std::string text;
    std::array<char, 4096> piece{};
    while (true) {
        const ssize_t size = read(file.fd, piece.data(), piece.size());
        if (size < 0)
            return PskError{std::generic_category().message(errno)};
        if (size == 0)
            return parsePskKeys(text);
        text.append(piece.data(), static_cast<std::size_t>(size));
        if (text.size() > kMaxFileSize)
            return PskError{"it is longer than 64 KiB"};
    }
}

} // namespace corvane::platform
