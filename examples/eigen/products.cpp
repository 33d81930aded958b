#include "products.h"

#include "csr_products.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

namespace {

using Eigen::MatrixXd;

constexpr Int block_columns = 8;
constexpr Int slab_rows = 3000; // a product of m*m elements needs 24 bytes for each
constexpr int repetitions = 5;

const double none = std::numeric_limits<double>::quiet_NaN();

// The median of a few runs; prepare is not timed.
template <class Prepare, class Run>
double median_milliseconds(Prepare prepare, Run run) {
    std::vector<double> times;
    for (int i = 0; i < repetitions; ++i) {
        prepare();
        const auto start = std::chrono::steady_clock::now();
        run();
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    std::nth_element(times.begin(), times.begin() + repetitions / 2, times.end());
    return times[repetitions / 2];
}

template <class Run>
double median_milliseconds(Run run) {
    return median_milliseconds([] {}, run);
}

// The greatest difference relative to the greatest element, or none if sums of so many may overflow.
template <class Result, class Expected>
std::optional<double> relative_difference(const Result& result, const Expected& expected, double bound) {
    if (!std::isfinite(bound)) {
        return std::nullopt;
    }
    const double greatest = expected.cwiseAbs().maxCoeff();
    const double difference = (result - expected).cwiseAbs().template maxCoeff<Eigen::PropagateNaN>();
    return greatest > 0 ? difference / greatest : difference;
}

// No sum of a product with numbers of at most 1 is greater.
double bound_of_products(const EigenMatrix& a) {
    const Eigen::VectorXd ones_of_rows = Eigen::VectorXd::Ones(a.rows());
    const Eigen::VectorXd ones_of_cols = Eigen::VectorXd::Ones(a.cols());
    const EigenMatrix sizes = a.cwiseAbs();
    return 1 + std::max((sizes * ones_of_cols).maxCoeff(), (sizes.transpose() * ones_of_rows).maxCoeff());
}

std::string shape(Int m, Int k, Int n) {
    return fmt::format("{} x {} x {}", m, k, n);
}

enum class Kind { plain, accumulating, transposed };

using Started = std::function<void(const std::string&)>;

void measure_dense_products(const HostMatrix& a, bool symmetric, const Started& started,
                            std::vector<Measurement>& table) {
    const Int m = a.rows();
    const Int k = a.cols();
    const Int n = block_columns;
    double* const val = a.val();
    Int* const col_ind = a.col_ind();
    Int* const row_ptr = a.row_ptr();
    // Runs an entry on random operands of so many columns, and Eigen's product of the same kind beside it.
    const double bound = bound_of_products(a.eigen());
    const auto measure = [&](const char* product, Int columns, Kind kind, auto call) {
        started(product);
        const bool transposed = kind == Kind::transposed;
        const MatrixXd b = MatrixXd::Random(transposed ? m : k, columns);
        const MatrixXd start = MatrixXd::Random(transposed ? k : m, columns);
        MatrixXd c;
        MatrixXd expected;
        const auto run_eigen = [&] {
            if (kind == Kind::accumulating) {
                expected.noalias() += a.eigen() * b;
            } else if (transposed) {
                expected.noalias() = a.eigen().transpose() * b;
            } else {
                expected.noalias() = a.eigen() * b;
            }
        };
        const double milliseconds =
            median_milliseconds([&] { c = start; }, [&] { call(const_cast<double*>(b.data()), c.data()); });
        const double eigen_milliseconds = median_milliseconds([&] { expected = start; }, run_eigen);
        table.push_back({product, shape(start.rows(), b.rows(), columns), a.stored(), milliseconds, eigen_milliseconds,
                         relative_difference(c, expected, bound)});
    };

    measure("A*x", 1, Kind::plain,
            [&](double* x, double* y) { spgmatgvec_mkl_G_int64(val, col_ind, row_ptr, x, m, k, y); });
    measure("A*x + y", 1, Kind::accumulating,
            [&](double* x, double* y) { spgmatgvecsum_mkl_G_int64(val, col_ind, row_ptr, x, m, k, y); });
    measure("A*B", n, Kind::plain,
            [&](double* b, double* c) { spgmatgmat_mkl_G_int64(val, col_ind, row_ptr, b, m, k, n, c); });
    measure("A*B, long", n, Kind::plain,
            [&](double* b, double* c) { spgmatgmat_mkl_G_int64(val, col_ind, row_ptr, b, k, m, k, n, c, m); });
    measure("A*B + C", n, Kind::accumulating,
            [&](double* b, double* c) { spgmatgmatsum_mkl_G_int64(val, col_ind, row_ptr, b, k, m, k, n, c, m); });
    // The leading dimensions of the transposed entries fit a square matrix, or a single column.
    const Int transposed_columns = m == k ? n : 1;
    measure("A^T*B", transposed_columns, Kind::transposed, [&](double* b, double* c) {
        spgmattrgmat_mkl_G_int64(val, col_ind, row_ptr, b, m, k, transposed_columns, c);
    });
    if (!symmetric) {
        return;
    }
    measure("S*B", n, Kind::plain,
            [&](double* b, double* c) { spgmatgmat_mkl_S_int64(val, col_ind, row_ptr, b, m, k, n, c); });
    measure("S*B, long", n, Kind::plain,
            [&](double* b, double* c) { spgmatgmat_mkl_S_int64(val, col_ind, row_ptr, b, k, m, k, n, c, m); });
    measure("S*B, no sum", n, Kind::plain,
            [&](double* b, double* c) { spgmatgmatsum_mkl_S_int64(val, col_ind, row_ptr, b, k, m, k, n, c, m); });
    measure("S^T*B", n, Kind::transposed,
            [&](double* b, double* c) { spgmattrgmat_mkl_S_int64(val, col_ind, row_ptr, b, m, k, n, c); });
}

// The arrays of a CSR result of m x m, with room for all m*m entries.
struct CsrResult {
    using Indices = Eigen::Matrix<Int, Eigen::Dynamic, 1>;

    explicit CsrResult(Int m) : val(m * m), col_ind(m * m), row_ptr(m + 1) {}

    void clear() {
        val.setConstant(none);
        col_ind.setOnes();
        row_ptr.setOnes();
    }

    void multiply(Int stage, const HostMatrix& a) {
        Int ignored = 0;
        spgmatspgmattr_mkl_int64_new(stage, a.rows(), a.cols(), a.rows(), a.val(), a.col_ind(), a.row_ptr(), a.val(),
                                     a.col_ind(), a.row_ptr(), ignored, val.data(), col_ind.data(), row_ptr.data(),
                                     ignored);
    }

    Int stored() const { return row_ptr[row_ptr.size() - 1] - 1; }

    MatrixXd dense() const {
        const Int m = row_ptr.size() - 1;
        MatrixXd c = MatrixXd::Zero(m, m);
        for (Int row = 0; row < m; ++row) {
            for (Int p = row_ptr[row] - 1; p < row_ptr[row + 1] - 1; ++p) {
                c(row, std::clamp<Int>(col_ind[p], 1, m) - 1) += val[p]; // a wrong product may have any columns
            }
        }
        return c;
    }

    Eigen::VectorXd val;
    Indices col_ind;
    Indices row_ptr;
};

// A*A^T on the leading rows of the matrix, as many as fit: dense, and CSR by each stage.
void measure_transposed_products(const HostMatrix& matrix, const Started& started, std::vector<Measurement>& table) {
    const HostMatrix a(matrix.eigen().topRows(std::min(matrix.rows(), slab_rows)));
    if (a.stored() == 0) {
        return; // MKL refuses a second operand without entries
    }
    started("A*A^T");
    const Int m = a.rows();
    const std::string slab = shape(m, a.cols(), m);
    // Of the sums, and of those that the refresh multiplies by nine.
    const double bound =
        9 * bound_of_products(a.eigen()) * Eigen::Map<const Eigen::VectorXd>(a.val(), a.stored()).cwiseAbs().maxCoeff();

    EigenMatrix expected;
    const double eigen_milliseconds =
        median_milliseconds([&] { expected = a.eigen() * EigenMatrix(a.eigen().transpose()); });
    MatrixXd expected_dense;
    const double eigen_dense_milliseconds = median_milliseconds(
        [&] { expected_dense = MatrixXd(EigenMatrix(a.eigen() * EigenMatrix(a.eigen().transpose()))); });

    MatrixXd dense(m, m);
    CsrResult c(m);
    const HostMatrix changed(-3.0 * a.eigen()); // the same structure with other values
    const auto expected_row_ptr = Eigen::Map<const CsrResult::Indices>(expected.outerIndexPtr(), m + 1);
    const auto clear = [&] {
        dense.setConstant(none);
        c.clear();
    };
    const auto count = [&] { c.multiply(1, a); };
    const auto difference = [&] { return relative_difference(c.dense(), expected_dense, bound); };
    const struct {
        const char* product;
        double eigen_milliseconds;
        std::function<void()> prepare, run;
        std::function<std::optional<double>()> difference;
    } rows[] = {{"A*A^T dense", eigen_dense_milliseconds, clear,
                 [&] {
                     spgmatspgmattr_gmat_mkl_int64_new(m, a.cols(), m, a.val(), a.col_ind(), a.row_ptr(), a.val(),
                                                       a.col_ind(), a.row_ptr(), dense.data());
                 },
                 [&] { return relative_difference(dense, expected_dense, bound); }},
                {"A*A^T count", none, clear, count,
                 [&] {
                     return relative_difference(c.row_ptr.cast<double>(),
                                                (expected_row_ptr.array() + 1).matrix().cast<double>(), 0);
                 }},
                {"A*A^T finish", eigen_milliseconds, count, [&] { c.multiply(2, a); }, difference},
                {"A*A^T CSR", eigen_milliseconds, clear, [&] { c.multiply(0, a); }, difference},
                {"A*A^T refresh", eigen_milliseconds, [] {}, [&] { c.multiply(2, changed); },
                 [&] { return relative_difference(c.dense(), 9.0 * expected_dense, bound); }}};
    for (const auto& row : rows) {
        const double milliseconds = median_milliseconds(row.prepare, row.run);
        const Int stored = &row == rows ? dense.size() : c.stored();
        table.push_back({row.product, slab, stored, milliseconds, row.eigen_milliseconds, row.difference()});
    }
}

} // namespace

std::vector<Measurement> measure_products(const HostMatrix& a, bool symmetric, const Started& started) {
    std::vector<Measurement> table;
    measure_dense_products(a, symmetric, started, table);
    measure_transposed_products(a, started, table);
    return table;
}
