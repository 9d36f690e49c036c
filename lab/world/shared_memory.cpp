/*
 * The mapping begins with the resources that hand the rest of it out, so that they, too, are the
 * same in every life.
 */
#include "shared_memory.h"

#include <cerrno>
#include <new>
#include <system_error>

#include <sys/mman.h>

namespace corvane::lab {

struct SharedMemory::Head {
    Head(void *rest, std::size_t bytes)
        : all(rest, bytes, std::pmr::null_memory_resource()), pool({0, 1U << 20U}, &all) {}

    std::pmr::monotonic_buffer_resource all;
    std::pmr::unsynchronized_pool_resource pool;
};

SharedMemory::SharedMemory(std::size_t bytes) : bytes_(bytes) {
    mapping_ = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                    MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping_ == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "cannot map shared memory");
    auto *head = static_cast<Head *>(mapping_);
    new (head) Head(head + 1, bytes - sizeof(Head));
    defaultBefore_ = std::pmr::set_default_resource(&head->pool);
}

SharedMemory::~SharedMemory() {
    std::pmr::set_default_resource(defaultBefore_);
    munmap(mapping_, bytes_);
}

std::pmr::memory_resource *SharedMemory::resource() const {
    return &static_cast<Head *>(mapping_)->pool;
}

} // namespace corvane::lab
