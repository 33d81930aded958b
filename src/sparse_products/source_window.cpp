#include "sparse_products/source_window.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/uio.h>
#include <unistd.h>

namespace {

// Bytes copied: fewer than the pieces hold where one of them cannot be read, and -1 where the first
// cannot (EFAULT) or the kernel refuses.
ssize_t copy_through_kernel(std::byte* target, std::size_t length, const iovec* pieces, std::size_t count) noexcept {
    const iovec whole{target, length};
    return process_vm_readv(getpid(), &whole, 1, pieces, count, 0);
}

} // namespace

Readable<void> SourceWindow::snapshot(const void* source, std::int64_t count) noexcept {
    if (source == nullptr) {
        return {nullptr, 0};
    }
    auto* const start = static_cast<std::byte*>(const_cast<void*>(source));
    const std::size_t offset_in_page = reinterpret_cast<std::uintptr_t>(start) % page_size;
    const std::size_t wanted = static_cast<std::size_t>(std::min(count, capacity)) * element_size;
    std::byte* const copy = buffer_ + offset_in_page;

    const iovec whole{start, wanted};
    ssize_t length = copy_through_kernel(copy, wanted, &whole, 1);
    if (length != static_cast<ssize_t>(wanted) && (length >= 0 || errno == EFAULT)) {
        // It ends within the window. A transfer may end only between two pieces, so a piece is now what
        // lies within one page.
        std::array<iovec, sizeof buffer_ / page_size> pieces;
        std::size_t piece_count = 0;
        for (std::size_t offset = 0; offset < wanted;) {
            const std::size_t rest_of_page = page_size - (offset_in_page + offset) % page_size;
            pieces[piece_count] = {start + offset, std::min(wanted - offset, rest_of_page)};
            offset += pieces[piece_count++].iov_len;
        }
        length = copy_through_kernel(copy, wanted, pieces.data(), piece_count);
    }
    if (length >= 0) {
        return {copy, length / static_cast<ssize_t>(element_size)};
    }
    return errno == EFAULT ? Readable<void>{nullptr, 0} : Readable<void>{source, count};
}
