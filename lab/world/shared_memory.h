/*
 * Memory that all lives of a run share.
 *
 * Each life is a forked process, which a kill may end at any instant; what belongs to the world
 * outside (the disk, the operator's plans, what the judge knows) goes on in the next one. So all of
 * that lies in one mapping, at the same address in every process of the run, and its containers
 * are std::pmr ones, which find their memory here: it is the default resource.
 *
 * One run at a time in a process. Not for several threads at once; in virtual time there is one.
 */
#ifndef CORVANE_LAB_SHARED_MEMORY_H
#define CORVANE_LAB_SHARED_MEMORY_H

#include <cstddef>
#include <memory_resource>
#include <utility>

namespace corvane::lab {

class SharedMemory {
public:
    /* Reserves; what is not touched costs nothing. Throws std::system_error. */
    explicit SharedMemory(std::size_t bytes = std::size_t{1} << 30);
    /* Gives everything back at once: destructors of what lies here are not run. */
    ~SharedMemory();
    SharedMemory(const SharedMemory &) = delete;
    SharedMemory &operator=(const SharedMemory &) = delete;

    template <class T, class... Arguments>
    T *make(Arguments &&...arguments) {
        void *place = resource()->allocate(sizeof(T), alignof(T));
        return new (place) T(std::forward<Arguments>(arguments)...);
    }

private:
    struct Head;

    std::pmr::memory_resource *resource() const;

    void *mapping_;
    std::size_t bytes_;
    std::pmr::memory_resource *defaultBefore_;
};

} // namespace corvane::lab

#endif
