#pragma once

#include "csr_products.h"
#include "host_matrix.h"

#include <Eigen/IterativeLinearSolvers>

#include <functional>

class SparseOperator;

template <>
struct Eigen::internal::traits<SparseOperator> : Eigen::internal::traits<EigenMatrix> {};

// The matrix as Eigen's iterative solvers see it: each product with a vector is a call of the library.
class SparseOperator : public Eigen::EigenBase<SparseOperator> {
public:
    using Scalar = double;
    using RealScalar = double;
    using StorageIndex = Int;
    enum { ColsAtCompileTime = Eigen::Dynamic, MaxColsAtCompileTime = Eigen::Dynamic, IsRowMajor = 1 };

    // Lets Eigen's preconditioner read the diagonal.
    struct InnerIterator : EigenMatrix::InnerIterator {
        InnerIterator(const SparseOperator& a, Eigen::Index outer)
            : EigenMatrix::InnerIterator(a.matrix_.eigen(), outer) {}
    };

    SparseOperator(const HostMatrix& matrix, std::function<void()> before_product)
        : matrix_(matrix), before_product_(std::move(before_product)) {}

    Eigen::Index rows() const { return matrix_.rows(); }
    Eigen::Index cols() const { return matrix_.cols(); }
    Eigen::Index outerSize() const { return matrix_.rows(); }

    template <class Rhs>
    Eigen::Product<SparseOperator, Rhs, Eigen::AliasFreeProduct> operator*(const Eigen::MatrixBase<Rhs>& x) const {
        return {*this, x.derived()};
    }

    // y := A*x
    void multiply(const Eigen::VectorXd& x, double* y) const {
        before_product_();
        spgmatgvec_mkl_G_int64(matrix_.val(), matrix_.col_ind(), matrix_.row_ptr(), const_cast<double*>(x.data()),
                               matrix_.rows(), matrix_.cols(), y);
    }

private:
    const HostMatrix& matrix_;
    std::function<void()> before_product_;
};

template <class Rhs>
struct Eigen::internal::generic_product_impl<SparseOperator, Rhs, Eigen::SparseShape, Eigen::DenseShape,
                                             Eigen::GemvProduct>
    : generic_product_impl_base<SparseOperator, Rhs, generic_product_impl<SparseOperator, Rhs>> {
    template <class Result>
    static void evalTo(Result& y, const SparseOperator& a, const Rhs& x) {
        a.multiply(x, y.data());
    }
};
