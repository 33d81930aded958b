// What memory is there, asked of the system, AddressSanitizer and valgrind.

#include "checks.h"

#include <cerrno>
#include <csignal>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

// Of AddressSanitizer's runtime, where the host has one: the first poisoned address, or null.
extern "C" [[gnu::weak]] void* __asan_region_is_poisoned(void* address, std::size_t size);

namespace csr_products::check {
namespace {

constexpr std::uintptr_t element_size = sizeof(double);
constexpr std::uintptr_t page_size = 4096; // the smallest; larger ones are multiples
constexpr int populate_read = 22;          // MADV_POPULATE_READ and WRITE, which older headers lack
constexpr int populate_write = 23;
// The page that this thread was granted last: small products write into one again and again.
[[gnu::tls_model("initial-exec")]] thread_local std::uintptr_t granted = 0;
constexpr std::uintptr_t address_space = std::uintptr_t{1} << 56;

void* page_of(std::uintptr_t address) noexcept {
    return reinterpret_cast<void*>(address / page_size * page_size); // NOLINT(performance-no-int-to-ptr)
}

// Asks the system to write the pages back at some time, which does nothing but look for pages that are not mapped.
// Valgrind reports what lies between the arrays of a page.
bool has_hole(std::uintptr_t first, std::uintptr_t last) noexcept {
    const Unreported pages;
    return syscall(SYS_msync, page_of(first), last - first + first % page_size + 1, MS_ASYNC) == -1 && errno == ENOMEM;
}

// Asks the system for a change that it refuses. It reads the eight bytes before that, or says that it cannot. Valgrind
// does not ask it.
bool can_read(std::uintptr_t address) noexcept {
    constexpr int no_change = -1;
    return RUNNING_ON_VALGRIND != 0
               ? !has_hole(address, address)
               : syscall(SYS_rt_sigprocmask, no_change, address, nullptr, element_size) != -1 || errno != EFAULT;
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

// Asks the system for the pages as a write would. An older one refuses that question, and also the one for reading,
// which is granted for a page that can only be read. A handler may let the write pass.
bool is_writable(const Block& block) noexcept {
    const auto first = reinterpret_cast<std::uintptr_t>(block.data);
    const auto is_refused = [](std::uintptr_t address) {
        const bool refused = address / page_size != granted && madvise(page_of(address), 1, populate_write) == -1 &&
                             errno == EINVAL && madvise(page_of(address), 1, populate_read) == 0;
        granted = refused ? 0 : address / page_size;
        return refused;
    };
    struct sigaction handler {};
    return !(is_refused(first) || is_refused(first + static_cast<std::uintptr_t>(block.extent()) * element_size - 1)) ||
           sigaction(SIGSEGV, nullptr, &handler) != 0 || handler.sa_handler != SIG_DFL;
}

Int accessible(const Block& block) noexcept {
    const auto first = reinterpret_cast<std::uintptr_t>(block.data);
    if (block.extent() <= 0 || first == 0 || first >= address_space) {
        return 0;
    }
    const Int count = std::min(block.extent(), static_cast<Int>((address_space - first) / element_size));
    const std::size_t bytes = static_cast<std::size_t>(count) * element_size;
    // Memcheck first: it reports what the system is asked to read. Other tools of valgrind do not know.
    std::uintptr_t bad = RUNNING_ON_VALGRIND != 0 ? VALGRIND_CHECK_MEM_IS_ADDRESSABLE(block.data, bytes) : 0;
    if (const Int readable = bad == 0 ? accessible_by_pages(first, count) : count; readable < count) {
        return readable;
    }
    if (__asan_region_is_poisoned != nullptr) {
        bad = reinterpret_cast<std::uintptr_t>(__asan_region_is_poisoned(const_cast<void*>(block.data), bytes));
    }
    return bad == 0 ? count : static_cast<Int>((bad - first) / element_size);
}

} // namespace csr_products::check
