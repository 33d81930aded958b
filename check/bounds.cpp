#include "bounds.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#else // built without valgrind's header: arrays are then seen to the end of their pages under it
#define RUNNING_ON_VALGRIND 0
#define VALGRIND_CHECK_MEM_IS_ADDRESSABLE(address, size) 0
#endif

// Of AddressSanitizer's runtime, where the host has one: the first poisoned address, or null.
extern "C" [[gnu::weak]] void* __asan_region_is_poisoned(void* address, std::size_t size);

namespace csr_products::check {
namespace {

constexpr std::uintptr_t element_size = sizeof(double);
constexpr std::uintptr_t page_size = 4096; // the smallest; larger ones are multiples
constexpr std::uintptr_t address_space = std::uintptr_t{1} << 56;

// Asks the system for a change that it refuses. It reads the eight bytes before that, or says that it cannot. Valgrind
// reports such a change, and copies the bytes.
bool can_read(std::uintptr_t address) noexcept {
    constexpr int no_change = -1;
    std::uint64_t bytes = 0;
    const iovec here{&bytes, sizeof bytes};
    const iovec there{reinterpret_cast<void*>(address), sizeof bytes}; // NOLINT(performance-no-int-to-ptr)
    return is_on_valgrind()
               ? process_vm_readv(getpid(), &here, 1, &there, 1, 0) != -1
               : syscall(SYS_rt_sigprocmask, no_change, address, nullptr, element_size) != -1 || errno != EFAULT;
}

// Asks the system to write the pages back at some time, which does nothing but look for pages that are not mapped.
bool has_hole(std::uintptr_t first, std::uintptr_t last) noexcept {
    const std::uintptr_t page = first / page_size * page_size;
    void* const start = reinterpret_cast<void*>(page); // NOLINT(performance-no-int-to-ptr)
    return msync(start, last - page + 1, MS_ASYNC) == -1 && errno == ENOMEM;
}

Int accessible_by_pages(std::uintptr_t first, Int count) noexcept {
    const auto are_readable = [&](Int elements) {
        const std::uintptr_t last = first + static_cast<std::uintptr_t>(elements - 1) * element_size;
        const bool is_one_page = first / page_size == (last + element_size - 1) / page_size;
        return can_read(last) && (is_one_page || (can_read(first) && !has_hole(first, last)));
    };
    if (are_readable(count)) {
        return count;
    }
    Int readable = 0;
    for (Int beyond = count; beyond - readable > 1;) {
        const Int middle = readable + (beyond - readable) / 2;
        (are_readable(middle) ? readable : beyond) = middle;
    }
    return readable;
}

} // namespace

bool is_on_valgrind() noexcept {
    return RUNNING_ON_VALGRIND != 0;
}

Int accessible(const Block& block) noexcept {
    const auto first = reinterpret_cast<std::uintptr_t>(block.data);
    if (block.extent() <= 0 || first == 0 || first >= address_space) {
        return 0;
    }
    const Int count = std::min(block.extent(), static_cast<Int>((address_space - first) / element_size));
    const std::size_t bytes = static_cast<std::size_t>(count) * element_size;
    // Memcheck first: it reports what the system is asked to read. Other tools of valgrind do not know.
    std::uintptr_t bad = is_on_valgrind() ? VALGRIND_CHECK_MEM_IS_ADDRESSABLE(block.data, bytes) : 0;
    if (const Int readable = bad == 0 ? accessible_by_pages(first, count) : count; readable < count) {
        return readable;
    }
    if (__asan_region_is_poisoned != nullptr) {
        bad = reinterpret_cast<std::uintptr_t>(__asan_region_is_poisoned(const_cast<void*>(block.data), bytes));
    }
    return bad == 0 ? count : static_cast<Int>((bad - first) / element_size);
}

} // namespace csr_products::check
