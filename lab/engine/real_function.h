/*
 * What a replaced call was before: the next definition of its symbol behind this program's own, a
 * sanitizer's or the C library's.
 */
#ifndef CORVANE_LAB_REAL_FUNCTION_H
#define CORVANE_LAB_REAL_FUNCTION_H

#include <atomic>
#include <dlfcn.h>

namespace virtualtime {

// Looked up on first use, which may be before any constructor has run. The pointer is atomic
// because two first uses may meet; they find the same value.
template <typename Function>
class Real {
public:
    explicit constexpr Real(const char *name) : name_(name) {}

    Function *get() {
        Function *found = function_.load(std::memory_order_relaxed);
        if (found == nullptr) {
            found = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name_));
            function_.store(found, std::memory_order_relaxed);
        }
        return found;
    }

private:
    const char *name_;
    std::atomic<Function *> function_{nullptr};
};

} // namespace virtualtime

// Within a "-Wignored-attributes" that is ignored: the C library's declarations carry attributes
// that a template argument cannot.
#define REAL(name) constinit virtualtime::Real<decltype(::name)> name(#name)

#endif
