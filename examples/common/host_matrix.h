#pragma once

#include <Eigen/SparseCore>

#include <algorithm>
#include <cstdint>

using Int = std::int64_t;
using EigenMatrix = Eigen::SparseMatrix<double, Eigen::RowMajor, Int>;

// A matrix as a host holds it: Eigen's zero-based CSR, and the one-based index arrays beside it. Both
// share the values.
class HostMatrix {
public:
    explicit HostMatrix(EigenMatrix matrix) {
        matrix_.swap(matrix);
        matrix_.makeCompressed();
        col_ind_.resize(std::max<Int>(matrix_.nonZeros(), 1)); // never null, which the library would refuse
        col_ind_.head(matrix_.nonZeros()) = Indices::Map(matrix_.innerIndexPtr(), matrix_.nonZeros()).array() + 1;
        row_ptr_ = Indices::Map(matrix_.outerIndexPtr(), matrix_.rows() + 1).array() + 1;
    }

    Int rows() const { return matrix_.rows(); }
    Int cols() const { return matrix_.cols(); }
    Int stored() const { return matrix_.nonZeros(); }
    const EigenMatrix& eigen() const { return matrix_; }

    // The library takes pointers to mutable data, and only reads what they point to.
    double* val() const { return const_cast<double*>(stored() == 0 ? &no_value_ : matrix_.valuePtr()); }
    Int* col_ind() const { return const_cast<Int*>(col_ind_.data()); }
    Int* row_ptr() const { return const_cast<Int*>(row_ptr_.data()); }

private:
    using Indices = Eigen::Matrix<Int, Eigen::Dynamic, 1>;

    EigenMatrix matrix_;
    double no_value_ = 0.0; // in place of Eigen's null
    Indices col_ind_;
    Indices row_ptr_;
};
