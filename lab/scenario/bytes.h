/*
 * Values as bytes and back, for handing them from one process of this program to another. Writing
 * and reading are the same list of values, so a structure lists its members once:
 *
 *     void transfer(auto &bytes, Thing &thing) { bytes.value(thing.a); bytes.list(thing.b); }
 */
#ifndef CORVANE_LAB_BYTES_H
#define CORVANE_LAB_BYTES_H

#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace corvane::lab {

class BytesOut {
public:
    template <class T>
    void value(const T &value) {
        static_assert(std::is_trivially_copyable_v<T>);
        bytes_.append(reinterpret_cast<const char *>(&value), sizeof value);
    }
    void text(const std::string &text) {
        value(text.size());
        bytes_ += text;
    }
    template <class T>
    void list(const std::vector<T> &items) {
        static_assert(std::is_trivially_copyable_v<T>);
        value(items.size());
        if (!items.empty())
            bytes_.append(reinterpret_cast<const char *>(items.data()), items.size() * sizeof(T));
    }
    [[nodiscard]] std::string take() { return std::move(bytes_); }

private:
    std::string bytes_;
};

/* Throws std::runtime_error when the bytes end too early. */
class BytesIn {
public:
    explicit BytesIn(const std::string &bytes) : bytes_(bytes) {}

    template <class T>
    void value(T &value) {
        std::memcpy(&value, next(sizeof value), sizeof value);
    }
    void text(std::string &text) {
        std::size_t size = 0;
        value(size);
        text.assign(next(size), size);
    }
    template <class T>
    void list(std::vector<T> &items) {
        std::size_t size = 0;
        value(size);
        if (size > bytes_.size() / sizeof(T))
            throw std::runtime_error("the bytes of a run end too early");
        items.resize(size);
        if (size > 0)
            std::memcpy(items.data(), next(size * sizeof(T)), size * sizeof(T));
    }
    [[nodiscard]] bool isAtEnd() const { return at_ == bytes_.size(); }

private:
    const char *next(std::size_t size) {
        if (size > bytes_.size() - at_)
            throw std::runtime_error("the bytes of a run end too early");
        at_ += size;
        return bytes_.data() + (at_ - size);
    }

    const std::string &bytes_;
    std::size_t at_ = 0;
};

} // namespace corvane::lab

#endif
