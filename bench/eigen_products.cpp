#include "eigen_products.h"

// RUN_EIGEN is the function that this is compiled as.
[[gnu::visibility("default")]] void RUN_EIGEN(const EigenMatrix& a, const Product& product, double* b_data,
                                              double* c_data) {
    using Block = Eigen::Map<Eigen::MatrixXd>;
    const Block b(b_data, a.cols(), product.columns);
    Block c(c_data, a.rows(), product.columns);
    switch (product.kind) {
    case Product::plain:
        c.noalias() = a * b;
        break;
    case Product::accumulate:
        c.noalias() += a * b;
        break;
    case Product::transposed:
        c.noalias() = a.transpose() * b;
        break;
    case Product::symmetric:
        c.noalias() = a.selfadjointView<Eigen::Upper>() * b;
        break;
    }
}
