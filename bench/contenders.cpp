#include "contenders.h"

#include "csr_products.h"
#include "direct_mkl.h"
#include "eigen_products.h"

#include <fmt/format.h>
#include <mkl_service.h>
#include <omp.h>
#include <rsb.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace {

using Eigen::MatrixXd;

csr_products::CsrOperand operand(const HostMatrix& a) {
    return {a.rows(), a.cols(), a.val(), a.col_ind(), a.row_ptr()};
}

void run_entry(const HostMatrix& a, const Product& product, double* b, double* c) {
    const Int m = a.rows();
    const Int k = a.cols();
    const Int n = product.columns;
    switch (product.kind) {
    case Product::plain:
        return n == 1 ? spgmatgvec_mkl_G_int64(a.val(), a.col_ind(), a.row_ptr(), b, m, k, c)
                      : spgmatgmat_mkl_G_int64(a.val(), a.col_ind(), a.row_ptr(), b, m, k, n, c);
    case Product::accumulate:
        return n == 1 ? spgmatgvecsum_mkl_G_int64(a.val(), a.col_ind(), a.row_ptr(), b, m, k, c)
                      : spgmatgmatsum_mkl_G_int64(a.val(), a.col_ind(), a.row_ptr(), b, k, m, k, n, c, m);
    case Product::transposed:
        return spgmattrgmat_mkl_G_int64(a.val(), a.col_ind(), a.row_ptr(), b, m, k, n, c);
    case Product::symmetric:
        return spgmatgmat_mkl_S_int64(a.val(), a.col_ind(), a.row_ptr(), b, m, k, n, c);
    }
}

void run_direct(const HostMatrix& a, const Product& product, const double* b, double* c) {
    using namespace csr_products;
    const double beta = product.kind == Product::accumulate ? Accumulate : Overwrite;
    const bool vector_entry = product.kind == Product::plain || product.kind == Product::accumulate;
    if (product.columns == 1 && vector_entry) {
        direct::multiply_vector(operand(a), b, beta, c);
    } else {
        direct::multiply_dense(product.kind == Product::transposed ? Transpose : NonTranspose, operand(a),
                               product.kind == Product::symmetric ? SymmetricUpper : GeneralFull, b, product.columns,
                               beta, c);
    }
}

using RsbMatrix = std::shared_ptr<rsb_mtx_t>;

// librsb's own format, with the 32-bit indices that Debian builds it for.
RsbMatrix rsb_matrix(const EigenMatrix& source, bool symmetric) {
    static const bool initialised = rsb_lib_init(RSB_NULL_INIT_OPTIONS) == RSB_ERR_NO_ERROR;
    using Indices = Eigen::Matrix<rsb_coo_idx_t, Eigen::Dynamic, 1>;
    const EigenMatrix a = symmetric ? EigenMatrix(source.triangularView<Eigen::Upper>()) : source;
    const Indices row_ptr =
        Eigen::Map<const Eigen::Matrix<Int, Eigen::Dynamic, 1>>(a.outerIndexPtr(), a.rows() + 1).cast<rsb_coo_idx_t>();
    const Indices col_ind =
        Eigen::Map<const Eigen::Matrix<Int, Eigen::Dynamic, 1>>(a.innerIndexPtr(), a.nonZeros()).cast<rsb_coo_idx_t>();
    rsb_err_t error = RSB_ERR_NO_ERROR;
    rsb_mtx_t* const matrix = rsb_mtx_alloc_from_csr_const(
        a.valuePtr(), row_ptr.data(), col_ind.data(), static_cast<rsb_nnz_idx_t>(a.nonZeros()),
        RSB_NUMERICAL_TYPE_DOUBLE, static_cast<rsb_coo_idx_t>(a.rows()), static_cast<rsb_coo_idx_t>(a.cols()), 0, 0,
        symmetric ? RSB_FLAG_UPPER_SYMMETRIC : RSB_FLAG_NOFLAGS, &error);
    if (!initialised || matrix == nullptr) {
        throw std::runtime_error(fmt::format("librsb refuses the matrix: error {}", error));
    }
    return {matrix, [](rsb_mtx_t* m) { rsb_mtx_free(m); }};
}

void run_rsb(const rsb_mtx_t* a, const Product& product, const double* b, Int ldb, double* c, Int ldc) {
    const double one = 1.0;
    const double beta = product.kind == Product::accumulate ? 1.0 : 0.0;
    rsb_spmm(product.kind == Product::transposed ? RSB_TRANSPOSITION_T : RSB_TRANSPOSITION_N, &one, a,
             static_cast<rsb_coo_idx_t>(product.columns), RSB_FLAG_WANT_COLUMN_MAJOR_ORDER, b,
             static_cast<rsb_nnz_idx_t>(ldb), &beta, c, static_cast<rsb_nnz_idx_t>(ldc));
}

// Gives the pages of an array of 8-byte elements back to the system, as a host does that makes it anew. Here malloc
// would take the holes that other matrices have left.
void drop_pages(void* array, Int elements) {
    const Int page = sysconf(_SC_PAGESIZE);
    const Int before = page - reinterpret_cast<Int>(array) % page;
    madvise(static_cast<char*>(array) + before, static_cast<std::size_t>((8 * elements - before) / page * page),
            MADV_DONTNEED);
}

} // namespace

Contest contest(const HostMatrix& a, const Product& product, double* b, double* c) {
    const RsbMatrix rsb = rsb_matrix(a.eigen(), product.kind == Product::symmetric);
    std::vector<Contender> all{
        {"entry", [&a, product, b, c] { run_entry(a, product, b, c); }},
        {"direct", [&a, product, b, c] { run_direct(a, product, b, c); }},
        {"eigen", [&a, product, b, c] { run_eigen_baseline(a.eigen(), product, b, c); }},
        {"eigen-avx2", [&a, product, b, c] { run_eigen_avx2(a.eigen(), product, b, c); }},
        {"librsb", [&a, product, b, c, rsb] { run_rsb(rsb.get(), product, b, a.cols(), c, a.rows()); }}};
    if (!__builtin_cpu_supports("avx2")) {
        all.erase(std::find_if(all.begin(), all.end(), [](const Contender& x) { return x.name == "eigen-avx2"; }));
    }
    return {all, [result = Eigen::Map<MatrixXd>(c, a.rows(), product.columns)]() mutable {
                MatrixXd taken = result;
                result.setOnes();
                return taken;
            }};
}

Contest transposed_dense_contest(const HostMatrix& a) {
    const Int m = a.rows();
    const auto c = std::make_shared<MatrixXd>(m, m);
    return {{{"entry",
              [&a, m, c] {
                  spgmatspgmattr_gmat_mkl_int64_new(m, a.cols(), m, a.val(), a.col_ind(), a.row_ptr(), a.val(),
                                                    a.col_ind(), a.row_ptr(), c->data());
              }},
             {"direct", [&a, c] { direct::multiply_transposed(operand(a), operand(a), c->data()); }},
             {"eigen", [&a, c] { *c = EigenMatrix(a.eigen() * EigenMatrix(a.eigen().transpose())); }}},
            [c, m] { return std::exchange(*c, MatrixXd::Ones(m, m)); }};
}

Contest transposed_csr_contest(const HostMatrix& a) {
    using Indices = Eigen::Matrix<Int, Eigen::Dynamic, 1>;
    struct Result {
        Eigen::VectorXd val;
        Indices col_ind;
        Indices row_ptr;
        EigenMatrix eigen; // Eigen's own
    };
    const Int m = a.rows();
    const auto c = std::make_shared<Result>();
    c->val.setZero(m * m);
    c->col_ind.setZero(m * m);
    c->row_ptr.setOnes(m + 1);
    c->eigen.resize(m, m);
    const auto run_entry = [&a, m, c] {
        Int ignored = 0;
        spgmatspgmattr_mkl_int64_new(0, m, a.cols(), m, a.val(), a.col_ind(), a.row_ptr(), a.val(), a.col_ind(),
                                     a.row_ptr(), 0, c->val.data(), c->col_ind.data(), c->row_ptr.data(), ignored);
    };
    return {{{"entry", run_entry},
             {"new-arrays",
              [m, c, run_entry] {
                  drop_pages(c->val.data(), m * m);
                  drop_pages(c->col_ind.data(), m * m);
                  run_entry();
              }},
             {"direct",
              [&a, m, c] {
                  direct::multiply_transposed(operand(a), operand(a),
                                              {m, m, c->val.data(), c->col_ind.data(), c->row_ptr.data()});
              }},
             {"eigen", [&a, c] { c->eigen = a.eigen() * EigenMatrix(a.eigen().transpose()); }}},
            [c, m] { // one of the two results is empty
                MatrixXd taken(c->eigen);
                for (Int i = 0; i < m; ++i) {
                    for (Int p = c->row_ptr[i] - 1; p < c->row_ptr[i + 1] - 1; ++p) {
                        taken(i, c->col_ind[p] - 1) += c->val[p];
                    }
                }
                c->row_ptr.setOnes();
                c->eigen.setZero();
                return taken;
            }};
}

void set_threads(int count) {
    qz_mkl_set_num_threads_int64(count);
    mkl_set_num_threads(count);
    Eigen::setNbThreads(count);
    omp_set_num_threads(count);
    rsb_lib_set_opt(RSB_IO_WANT_EXECUTING_THREADS, &count);
}
