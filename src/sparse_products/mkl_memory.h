#pragma once

#include "operand/csr_operand.h"

#include <cstddef>

namespace csr_products {

// Watches MKL's memory on this thread for one CSR product, since two things cannot be asked of MKL:
//
// - How long the arrays of a product are. MKL exports only their addresses. They are as long as the
//   stored entries, and the caller's arrays are longer. Each of them is a block that mkl_serv_malloc
//   made on the calling thread during mkl_sparse_sp2m, so the sizes of those blocks are noted.
// - Whether a handle owns its arrays. After the finalize request MKL believes that it owns the arrays
//   that the caller lent it, and mkl_sparse_destroy passes each of them to mkl_serv_free. That
//   function reads a header that only MKL's own blocks have, and the process dies. mkl_serv_free
//   therefore skips the caller's arrays.
//
// The library is linked with both functions wrapped. An object must outlive the handles of its call.
class MklMemory {
public:
    explicit MklMemory(const CsrOperand& output) noexcept
        : val_(output.val), col_ind_(output.col_ind), row_ptr_(output.row_ptr) {}
    ~MklMemory();

    MklMemory(const MklMemory&) = delete;
    MklMemory& operator=(const MklMemory&) = delete;

    // Starts to watch, until the object is destroyed. Called between the wraps and mkl_sparse_sp2m.
    void watch() noexcept;

    // How many elements of 8 bytes an exported array has: none if it is null, and `lent` if it is not
    // a noted block, since it is then an array that the caller lent.
    std::int64_t elements_of(const void* array, std::int64_t lent) const noexcept;

    // For the wrappers of MKL's functions.
    void note(const void* block, std::size_t size) noexcept;
    bool lent_by_caller(const void* block) const noexcept;

private:
    // Notes in a ring. The arrays of a product are among the last blocks that MKL makes, so the oldest
    // notes may be lost. Not initialised.
    static constexpr std::size_t capacity = 32;
    const void* blocks_[capacity];
    std::size_t sizes_[capacity];
    std::size_t noted_ = 0;

    const void* const val_;
    const void* const col_ind_;
    const void* const row_ptr_;
};

} // namespace csr_products
