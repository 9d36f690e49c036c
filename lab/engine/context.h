/*
 * A stack of its own within one real thread, and the jump from one to another.
 *
 * What the C++ run time and the C library keep a thread, the exceptions being handled and errno,
 * moves with the context; thread_local variables do not, all contexts share them.
 *
 * Contexts are used by one real thread at a time, so nothing here locks.
 */
#ifndef CORVANE_LAB_CONTEXT_H
#define CORVANE_LAB_CONTEXT_H

#include <csetjmp>
#include <cstddef>
#include <memory>
#include <ucontext.h>

namespace virtualtime {

class Context {
public:
    // On the stack of the real thread that first jumps from it, until it is prepared.
    Context();
    ~Context();
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;

    // Gives it a stack of its own, on which the first jump to it calls begin(). That must never
    // return. Aborts when there is no memory for a stack.
    void prepare(void (*begin)());

    // From this context, which must be the running one, to next. Comes back when somebody jumps to
    // this one again.
    void jumpTo(Context &next);

    // The same, but nobody may jump to this one again.
    [[noreturn]] void leaveTo(Context &next);

private:
    class Stack;
    // The C++ run time's for a thread, laid out as the ABI says.
    struct Exceptions {
        void *caught = nullptr;
        unsigned int uncaught = 0;
    };

    static Exceptions *currentExceptions();
    static void beginPrepared();
    void announceJump(const Context &next, bool forGood);
    void announceArrival();
    void swapTo(Context &next);

    void (*begin_)() = nullptr;
    ucontext_t context_{}; // where it begins; with a sanitizer, also where it goes on
    // Where it goes on, while another one runs, and whether that is set.
    [[maybe_unused]] std::jmp_buf place_{};
    [[maybe_unused]] bool hasBegun_ = false;
    std::unique_ptr<Stack> stack_; // null: the real thread's own
    int errorNumber_ = 0;
    Exceptions exceptions_;
    // For a sanitizer: its own stack beside this one, and where this one is.
    [[maybe_unused]] void *fakeStack_ = nullptr;
    const void *stackBottom_ = nullptr;
    std::size_t stackBytes_ = 0;
};

} // namespace virtualtime

#endif
