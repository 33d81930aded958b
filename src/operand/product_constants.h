#pragma once

#include <mkl_spblas.h>

namespace csr_products {

using DescriptorPreset = matrix_descr;

inline constexpr DescriptorPreset GeneralFull{SPARSE_MATRIX_TYPE_GENERAL, SPARSE_FILL_MODE_FULL, SPARSE_DIAG_NON_UNIT};
inline constexpr DescriptorPreset SymmetricUpper{SPARSE_MATRIX_TYPE_SYMMETRIC, SPARSE_FILL_MODE_UPPER,
                                                 SPARSE_DIAG_NON_UNIT};
// MKL ignores the fill mode of a general matrix. The sparse-by-sparse products pass LOWER all the
// same: it is part of the call that hosts rely on, so the two general presets stay apart.
inline constexpr DescriptorPreset GeneralLower{SPARSE_MATRIX_TYPE_GENERAL, SPARSE_FILL_MODE_LOWER,
                                               SPARSE_DIAG_NON_UNIT};

inline constexpr sparse_operation_t NonTranspose = SPARSE_OPERATION_NON_TRANSPOSE;
inline constexpr sparse_operation_t Transpose = SPARSE_OPERATION_TRANSPOSE;
inline constexpr sparse_layout_t ColumnMajor = SPARSE_LAYOUT_COLUMN_MAJOR;

inline constexpr double Alpha = 1.0;

// The two values of beta.
inline constexpr double Overwrite = 0.0;
inline constexpr double Accumulate = 1.0;

} // namespace csr_products
