#pragma once

#include "operand/csr_operand.h"

#include <mkl_spblas.h>

// Under ILP64 MKL_INT is long long and the boundary's integer is long: two types, one representation.
static_assert(sizeof(MKL_INT) == sizeof(std::int64_t), "the library calls the ILP64 interface of MKL");

inline MKL_INT* as_mkl(std::int64_t* array) noexcept {
    return reinterpret_cast<MKL_INT*>(array);
}

// The one place that makes and releases an MKL handle. MKL borrows the operand's arrays for as long
// as the handle lives. Handles are released in the reverse order of their declaration.
class SparseHandle {
public:
    explicit SparseHandle(const CsrOperand& a) noexcept
        : status_(mkl_sparse_d_create_csr(&handle_, SPARSE_INDEX_BASE_ONE, a.rows, a.cols, as_mkl(a.row_ptr),
                                          as_mkl(a.row_ptr + 1), as_mkl(a.col_ind), a.val)) {}

    // Kept on purpose: destroy receives whatever the variable holds, null after a failed wrap included.
    ~SparseHandle() { mkl_sparse_destroy(handle_); }

    SparseHandle(const SparseHandle&) = delete;
    SparseHandle& operator=(const SparseHandle&) = delete;

    bool wrapped() const noexcept { return status_ == SPARSE_STATUS_SUCCESS; }
    sparse_matrix_t get() const noexcept { return handle_; }

    // For a routine that may put a handle of its own in place of this one.
    sparse_matrix_t* slot() noexcept { return &handle_; }

private:
    sparse_matrix_t handle_ = nullptr; // before status_: null when MKL first sees it
    sparse_status_t status_;
};
