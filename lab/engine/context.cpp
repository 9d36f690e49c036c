/*
 * A jump is a _longjmp(), since swapcontext() asks the kernel for the signal mask each time. With
 * the address sanitizer it is swapcontext(), and the sanitizer is told of every change of stacks.
 */
// A fortified longjmp() takes the jump to another context's stack for damage and ends the process.
#undef _FORTIFY_SOURCE

#include "context.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <sys/mman.h>

#if defined(__SANITIZE_ADDRESS__)
#define CONTEXT_ASAN
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CONTEXT_ASAN
#endif
#endif
#ifdef CONTEXT_ASAN
#include <dlfcn.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace virtualtime {

// A context's own, with a page below it that must not be touched.
class Context::Stack {
public:
    Stack() {
        void *mapped = mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (mapped == MAP_FAILED) {
            std::perror("virtual time: no stack for a thread");
            std::abort();
        }
        memory_ = static_cast<char *>(mapped);
        mprotect(memory_, kGuardBytes, PROT_NONE);
#ifdef CONTEXT_ASAN
        __lsan_register_root_region(bottom(), bytes());
#endif
    }
    ~Stack() {
#ifdef CONTEXT_ASAN
        __lsan_unregister_root_region(bottom(), bytes());
#endif
        munmap(memory_, kStackBytes);
    }
    Stack(const Stack &) = delete;
    Stack &operator=(const Stack &) = delete;

    [[nodiscard]] void *bottom() const { return memory_ + kGuardBytes; }
    [[nodiscard]] static std::size_t bytes() { return kStackBytes - kGuardBytes; }

private:
    static constexpr std::size_t kStackBytes = 1024 * 1024; // as far as it is touched
    static constexpr std::size_t kGuardBytes = 4096;
    char *memory_;
};

namespace {

// The last jump, for the context that it begins or ends in.
Context *jumpedFrom = nullptr;
Context *jumpedTo = nullptr;

} // namespace

Context::Context() = default;

Context::~Context() = default;

void Context::prepare(void (*begin)()) {
    begin_ = begin;
    stack_ = std::make_unique<Stack>();
    stackBottom_ = stack_->bottom();
    stackBytes_ = Stack::bytes();
    getcontext(&context_);
    context_.uc_stack.ss_sp = stack_->bottom();
    context_.uc_stack.ss_size = Stack::bytes();
    context_.uc_link = nullptr;
    makecontext(&context_, beginPrepared, 0);
    // Made; from here on the size would only make the sanitizer clean the stack at every jump.
    context_.uc_stack.ss_size = 0;
}

void Context::beginPrepared() {
    jumpedTo->announceArrival();
    *currentExceptions() = {};
    jumpedTo->begin_();
    std::abort(); // it has returned
}

void Context::jumpTo(Context &next) {
    errorNumber_ = errno;
    exceptions_ = *currentExceptions();
    announceJump(next, false);
    swapTo(next);
    announceArrival();
    *currentExceptions() = exceptions_;
    errno = errorNumber_;
}

void Context::leaveTo(Context &next) {
    announceJump(next, true);
    swapTo(next);
    std::abort(); // somebody has jumped back
}

Context::Exceptions *Context::currentExceptions() {
    return reinterpret_cast<Exceptions *>(__cxxabiv1::__cxa_get_globals());
}

void Context::announceJump([[maybe_unused]] const Context &next, [[maybe_unused]] bool forGood) {
#ifdef CONTEXT_ASAN
    __sanitizer_start_switch_fiber(forGood ? nullptr : &fakeStack_, next.stackBottom_,
                                   next.stackBytes_);
#endif
}

void Context::announceArrival() {
#ifdef CONTEXT_ASAN
    const void *bottom = nullptr;
    std::size_t bytes = 0;
    __sanitizer_finish_switch_fiber(fakeStack_, &bottom, &bytes);
    if (jumpedFrom->stackBottom_ == nullptr) { // the real thread's own, seen for the first time
        jumpedFrom->stackBottom_ = bottom;
        jumpedFrom->stackBytes_ = bytes;
    }
#endif
}

void Context::swapTo(Context &next) {
    jumpedFrom = this;
    jumpedTo = &next;
#ifdef CONTEXT_ASAN
    // The sanitizer's version knows nothing of what is announced here, and says so.
    static auto *const swap = reinterpret_cast<decltype(&swapcontext)>(
        dlsym(dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD), "swapcontext"));
    swap(&context_, &next.context_);
#else
    if (_setjmp(place_) != 0) {
        return;
    }
    hasBegun_ = true;
    if (next.hasBegun_) {
        _longjmp(next.place_, 1);
    }
    setcontext(&next.context_);
#endif
}

} // namespace virtualtime
