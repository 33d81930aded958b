#include "sparse_products/source_window.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/uio.h>
#include <unistd.h>

Readable<void> SourceWindow::snapshot(const void* source, std::int64_t count) noexcept {
    if (source == nullptr) {
        return {nullptr, 0};
    }
    auto* const start = static_cast<std::byte*>(const_cast<void*>(source));
    const std::size_t offset_in_page = reinterpret_cast<std::uintptr_t>(start) % page_size;
    const std::size_t wanted = static_cast<std::size_t>(std::min(count, capacity)) * element_size;
    std::byte* const copy = buffer_ + offset_in_page;

    // A transfer ends between two of its pieces, so a piece is what lies within one page.
    std::array<iovec, sizeof buffer_ / page_size> pieces;
    std::size_t piece_count = 0;
    for (std::size_t offset = 0; offset < wanted;) {
        const std::size_t length = std::min(wanted - offset, page_size - (offset_in_page + offset) % page_size);
        pieces[piece_count++] = {start + offset, length};
        offset += length;
    }

    const iovec target{copy, wanted};
    const ssize_t length = process_vm_readv(getpid(), &target, 1, pieces.data(), piece_count, 0);
    if (length >= 0) {
        return {copy, length / static_cast<ssize_t>(element_size)};
    }
    return errno == EFAULT ? Readable<void>{nullptr, 0} : Readable<void>{source, count};
}
