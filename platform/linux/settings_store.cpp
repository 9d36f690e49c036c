/*
 * The settings store's files. Each root ("db/", "memory/") is one flat folder: the file of a key is
 * named after the rest of the key, with ':' for '/'. Writers take turns on the folder's own lock.
 * ".new-…" is a file that is not yet in its place: outside a writer's turn there is none, unless a
 * writer was killed.
 */
#include "settings_store.h"

#include "settings_file.h"
#include "settings_root.h"
#include "text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane::platform {
namespace {

constexpr std::string_view kTempPrefix = ".new-";
constexpr std::size_t kMaxLine = std::size_t{4} * kMaxSettingText + 100;
constexpr std::size_t kMaxFileSize = kMaxLine * (kMinOldValues + 2);

std::string keyText(std::string_view key) {
    return "settings key " + inQuotes(key, kMaxSettingKey);
}

/* ':' stands for '/', so that ':' and '%' themselves need another spelling. */
std::string fileNameOf(std::string_view rest) {
    std::string name;
    name.reserve(rest.size());
    for (char c : rest) {
        if (c == ':')
            name += "%3A";
        else if (c == '%')
            name += "%25";
        else
            name += c == '/' ? ':' : c;
    }
    return name;
}

/* The key without "db/" or "memory/". */
std::string_view restOf(std::string_view key) { return key.substr(key.find('/') + 1); }

int closeKeepingErrno(int fd) {
    const int code = errno;
    close(fd);
    errno = code;
    return -1;
}

/* Reads the whole file; false with errno set. */
bool readWhole(const std::string &path, std::string &text) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return false;
    text.resize(kSettingsFileSize);
    std::size_t size = 0;
    for (;;) {
        const ssize_t got = read(fd, text.data() + size, text.size() - size);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 || size + static_cast<std::size_t>(got) > kMaxFileSize) {
            if (got > 0)
                errno = EFBIG;
            closeKeepingErrno(fd);
            return false;
        }
        if (got == 0)
            break;
        size += static_cast<std::size_t>(got);
        if (size == text.size())
            text.resize(size * 2);
    }
    close(fd);
    text.resize(size);
    return true;
}

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t put = write(fd, text.data(), text.size());
        if (put < 0 && errno == EINTR)
            continue;
        if (put < 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(put));
    }
    return true;
}

/* The turn of one writer among all threads and processes: it holds the lock of the folder. */
class Turn {
public:
    explicit Turn(const std::string &path)
        : folder_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (folder_ < 0) {
            code_ = errno;
            return;
        }
        do
            code_ = flock(folder_, LOCK_EX) == 0 ? 0 : errno;
        while (code_ == EINTR);
    }
    ~Turn() {
        if (folder_ >= 0)
            close(folder_);
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

    int code() const { return code_; }
    int folder() const { return folder_; }

private:
    const int folder_; // of this turn alone, so that threads exclude each other too
    int code_ = 0;
};

/* Puts a file with this text in the place of name; false with errno set, and nothing changed. */
bool replaceFile(int folder, const std::string &name, std::string_view text, bool durable) {
    static std::atomic<unsigned> counter{0};
    const std::string temp = std::string(kTempPrefix) + std::to_string(getpid()) + "-" +
                             std::to_string(counter.fetch_add(1, std::memory_order_relaxed));
    const int fd = openat(folder, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    if (!writeAll(fd, text) || (durable && fsync(fd) != 0)) {
        closeKeepingErrno(fd);
    } else if (close(fd) == 0 && renameat(folder, temp.c_str(), folder, name.c_str()) == 0) {
        return !durable || fsync(folder) == 0;
    }
    const int code = errno;
    unlinkat(folder, temp.c_str(), 0);
    errno = code;
    return false;
}

/* Calls use with the name of each file in the folder; false with errno set. */
template <typename Use>
bool forEachName(const std::string &path, Use use) {
    DIR *folder = opendir(path.c_str());
    if (folder == nullptr)
        return false;
    errno = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this call's own
    while (const dirent *entry = readdir(folder)) {
        use(entry->d_name);
        errno = 0;
    }
    const int code = errno;
    closedir(folder);
    errno = code;
    return code == 0;
}

Status checkValue(const std::string &key, const SettingValue &value) {
    const std::string *text = std::get_if<std::string>(&value);
    if (text == nullptr)
        return {};
    if (text->size() > kMaxSettingText)
        return {EINVAL, keyText(key) + ": a text of " + std::to_string(text->size()) +
                            " bytes is longer than " + std::to_string(kMaxSettingText)};
    if (text->find('\0') != std::string::npos)
        return {EINVAL, keyText(key) + ": a text cannot hold a NUL byte"};
    return {};
}

} // namespace

Status checkSettingKey(std::string_view key) {
    const auto refused = [key](const char *why) {
        return Status{EINVAL, keyText(key) + " is refused: " + why};
    };
    if (key.size() > kMaxSettingKey || fileNameOf(key).size() > NAME_MAX)
        return refused("it is too long");
    if (!key.starts_with("db/") && !key.starts_with("memory/"))
        return refused("it begins neither with db/ nor with memory/");
    if (key.find("..") != std::string_view::npos)
        return refused("it contains \"..\"");
    if (key.find("/.") != std::string_view::npos)
        return refused("a part begins with a dot");
    if (key.find("//") != std::string_view::npos || key.ends_with('/'))
        return refused("a part is empty");
    if (std::any_of(key.begin(), key.end(),
                    [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }))
        return refused("it contains a control character");
    return {};
}

std::string SettingsStore::Root::keyOf(std::string_view fileName) const {
    std::string key = prefix;
    for (std::size_t i = 0; i < fileName.size(); ++i) {
        if (fileName.substr(i, 3) == "%3A" || fileName.substr(i, 3) == "%25") {
            key += fileName[i + 1] == '3' ? ':' : '%';
            i += 2;
        } else {
            key += fileName[i] == ':' ? '/' : fileName[i];
        }
    }
    const bool isKey = checkSettingKey(key).ok() && fileNameOf(restOf(key)) == fileName;
    return isKey ? key : std::string();
}

std::string SettingsStore::Root::pathOf(std::string_view key) const {
    return path + "/" + fileNameOf(restOf(key));
}

Status SettingsStore::Root::open() const {
    if (Status status = makeFolder(path); !status.ok())
        return status;
    const Turn turn(path);
    if (turn.code() != 0)
        return systemFailure(turn.code(), "settings folder " + inQuotes(path, PATH_MAX));
    const auto sweep = [&turn](const char *name) {
        if (std::string_view(name).starts_with(kTempPrefix))
            unlinkat(turn.folder(), name, 0);
    };
    if (!forEachName(path, sweep))
        return systemFailure(errno, "settings folder " + inQuotes(path, PATH_MAX));
    return {};
}

SettingsStore::SettingsStore() = default;
SettingsStore::~SettingsStore() = default;

void SettingsStore::setRoots(const Folders &folders) {
    roots_[0].reset(new Root{"db/", folders.state + "/settings/db", true});
    roots_[1].reset(new Root{"memory/", folders.runtime + "/settings/memory", false});
}

Status SettingsStore::open(const Folders &folders) {
    Status status = makeFolders(folders);
    if (!status.ok())
        return status;
    setRoots(folders);
    for (const auto &root : roots_) {
        status = root->open();
        if (!status.ok()) {
            status.text += std::string("; check ") +
                           (root->durable ? "CORVANE_STATE_DIR" : "CORVANE_RUNTIME_DIR");
            return status;
        }
    }
    return {};
}

Status SettingsStore::openExisting(const Folders &folders) {
    Status status = checkFolders(folders);
    if (status.ok())
        setRoots(folders);
    return status;
}

const SettingsStore::Root *SettingsStore::rootOf(std::string_view key) const {
    return roots_[key.starts_with("db/") ? 0 : 1].get();
}

Status SettingsStore::readText(const std::string &key, std::string &text) const {
    if (Status status = checkSettingKey(key); !status.ok())
        return status;
    if (!readWhole(rootOf(key)->pathOf(key), text))
        return systemFailure(errno, keyText(key) + " cannot be read");
    return {};
}

Status SettingsStore::readFile(const std::string &key, std::string &text,
                               SettingsFile &file) const {
    Status status = readText(key, text);
    if (status.ok() && !parseSettingsFile(text, file))
        return {EBADMSG, keyText(key) + " cannot be read: the file " +
                             inQuotes(rootOf(key)->pathOf(key), PATH_MAX) +
                             " is damaged; write the key anew"};
    return status;
}

Status SettingsStore::read(const std::string &key, SettingValue &value) const {
    std::string text;
    SettingsFile file;
    Status status = readFile(key, text, file);
    if (status.ok())
        (void)parseSettingValue(file.valueLine, value); // parseSettingsFile() has checked it
    return status;
}

Status SettingsStore::readRecord(const std::string &key, SettingRecord &record) const {
    std::string text;
    SettingsFile file;
    Status status = readFile(key, text, file);
    if (status.ok())
        record = {file.sequence, std::string(file.since), parseSettingValues(file, file.sequence)};
    return status;
}

Status SettingsStore::write(const std::string &key, const SettingValue &value) {
    Status status = checkSettingKey(key);
    if (status.ok())
        status = checkValue(key, value);
    if (!status.ok())
        return status;
    const Root *root = rootOf(key);
    const Turn turn(root->path);
    if (turn.code() != 0)
        return systemFailure(turn.code(), keyText(key) + " cannot be written");
    std::string before;
    if (!readWhole(root->pathOf(key), before))
        before.clear(); // a file that is missing or cannot be read is begun anew
    const std::string text = composeSettingsFile(value, before, std::chrono::system_clock::now());
    if (!replaceFile(turn.folder(), fileNameOf(restOf(key)), text, root->durable))
        return systemFailure(errno, keyText(key) + " cannot be written");
    return {};
}

Status SettingsStore::list(std::vector<std::string> &keys) const {
    std::vector<std::string> found;
    for (const auto &root : roots_) {
        const auto take = [&](const char *name) {
            if (std::string key = root->keyOf(name); !key.empty())
                found.push_back(std::move(key));
        };
        if (!forEachName(root->path, take) && errno != ENOENT) // see openExisting()
            return systemFailure(errno, "settings folder " + inQuotes(root->path, PATH_MAX));
    }
    std::sort(found.begin(), found.end());
    keys = std::move(found);
    return {};
}

} // namespace corvane::platform
