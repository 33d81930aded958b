#pragma once

#include "operand/csr_operand.h"

#include <mkl_spblas.h>

namespace csr_products {

// Under ILP64 MKL_INT is long long and the boundary's integer is long: two types, one representation.
static_assert(sizeof(MKL_INT) == sizeof(std::int64_t), "the library calls the ILP64 interface of MKL");

inline MKL_INT* as_mkl(std::int64_t* array) noexcept {
    return reinterpret_cast<MKL_INT*>(array);
}

inline const std::int64_t* from_mkl(const MKL_INT* array) noexcept {
    return reinterpret_cast<const std::int64_t*>(array);
}

// The row pointer advanced by one element. The caller's may be null, to which nothing may be added.
inline std::int64_t* row_ends(const std::int64_t* row_ptr) noexcept {
    const auto address = reinterpret_cast<std::uintptr_t>(row_ptr) + sizeof *row_ptr;
    return reinterpret_cast<std::int64_t*>(address); // NOLINT(performance-no-int-to-ptr)
}

// The one place that makes and releases an MKL handle. MKL borrows the operand's arrays for as long
// as the handle lives. Handles are released in the reverse order of their declaration.
class SparseHandle {
public:
    explicit SparseHandle(const CsrOperand& a) noexcept
        : status_(mkl_sparse_d_create_csr(&handle_, SPARSE_INDEX_BASE_ONE, a.rows, a.cols, as_mkl(a.row_ptr),
                                          as_mkl(row_ends(a.row_ptr)), as_mkl(a.col_ind), a.val)) {}

    // Kept on purpose: destroy receives whatever the variable holds, null after a failed wrap included.
    ~SparseHandle() { mkl_sparse_destroy(handle_); }

    SparseHandle(const SparseHandle&) = delete;
    SparseHandle& operator=(const SparseHandle&) = delete;

    bool wrapped() const noexcept { return status_ == SPARSE_STATUS_SUCCESS; }
    sparse_matrix_t get() const noexcept { return handle_; }

    // For a routine that may replace the handle by its own.
    sparse_matrix_t* slot() noexcept { return &handle_; }

private:
    sparse_matrix_t handle_ = nullptr; // before status_: null when MKL first sees it
    sparse_status_t status_;
};

// A product as MKL exports it: the arrays that it computed, or those that the caller lent.
struct ExportedCsr {
    std::int64_t rows;
    const std::int64_t* rows_start;
    const std::int64_t* col_indx;
    const double* values;
};

// A failed export writes nothing: the row count is then that of `wrapped`, and the arrays are null.
inline ExportedCsr export_csr(const SparseHandle& product, const CsrOperand& wrapped) noexcept {
    sparse_index_base_t index_base = SPARSE_INDEX_BASE_ONE;
    MKL_INT rows = wrapped.rows;
    MKL_INT cols = wrapped.cols;
    MKL_INT* rows_start = nullptr;
    MKL_INT* rows_end = nullptr;
    MKL_INT* col_indx = nullptr;
    double* values = nullptr;
    mkl_sparse_d_export_csr(product.get(), &index_base, &rows, &cols, &rows_start, &rows_end, &col_indx, &values);
    return {rows, from_mkl(rows_start), from_mkl(col_indx), values};
}

} // namespace csr_products
