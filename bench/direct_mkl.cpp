#include "direct_mkl.h"

#include <mkl_service.h>

#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>

namespace direct {

using namespace csr_products;

namespace {

sparse_matrix_t wrap(const CsrOperand& a) {
    sparse_matrix_t handle = nullptr;
    auto* const row_ptr = reinterpret_cast<MKL_INT*>(a.row_ptr);
    mkl_sparse_d_create_csr(&handle, SPARSE_INDEX_BASE_ONE, a.rows, a.cols, row_ptr, row_ptr + 1,
                            reinterpret_cast<MKL_INT*>(a.col_ind), a.val);
    return handle;
}

} // namespace

std::string environment() {
    MKLVersion version;
    mkl_get_version(&version);
    Dl_info runtime{};
    dladdr(dlsym(RTLD_DEFAULT, "__kmpc_fork_call"), &runtime);
    std::ifstream modes("/sys/kernel/mm/transparent_hugepage/enabled"); // the one in brackets holds
    std::string huge_pages;
    while (modes >> huge_pages && huge_pages.front() != '[') {
    }
    return "oneMKL " MKL_RELEASE ", \"" + std::string(version.Processor) + "\", " +
           std::filesystem::canonical(runtime.dli_fname).filename().string() + ", transparent huge pages " + huge_pages;
}

void multiply_vector(const CsrOperand& a, const double* x, double beta, double* y) {
    sparse_matrix_t handle = wrap(a);
    mkl_sparse_d_mv(NonTranspose, Alpha, handle, GeneralFull, x, beta, y);
    mkl_sparse_destroy(handle);
}

void multiply_dense(sparse_operation_t operation, const CsrOperand& a, const DescriptorPreset& preset, const double* b,
                    std::int64_t columns, double beta, double* c) {
    sparse_matrix_t handle = wrap(a);
    mkl_sparse_d_mm(operation, Alpha, handle, preset, ColumnMajor, b, columns, a.cols, beta, c, a.rows);
    mkl_sparse_destroy(handle);
}

void multiply_transposed(const CsrOperand& a, const CsrOperand& b, double* c) {
    sparse_matrix_t first = wrap(a);
    sparse_matrix_t second = wrap(b);
    mkl_sparse_d_sp2md(NonTranspose, GeneralLower, first, Transpose, GeneralLower, second, Alpha, Overwrite, c,
                       ColumnMajor, a.rows);
    mkl_sparse_destroy(second);
    mkl_sparse_destroy(first);
}

void multiply_transposed(const CsrOperand& a, const CsrOperand& b, const CsrOperand& c) {
    sparse_matrix_t first = wrap(a);
    sparse_matrix_t second = wrap(b);
    sparse_matrix_t product = wrap(c); // lost in the product, as in the entry
    mkl_sparse_sp2m(NonTranspose, GeneralLower, first, Transpose, GeneralLower, second, SPARSE_STAGE_FULL_MULT,
                    &product);
    sparse_index_base_t base{};
    MKL_INT rows = 0;
    MKL_INT cols = 0;
    MKL_INT* rows_start = nullptr;
    MKL_INT* rows_end = nullptr;
    MKL_INT* col_indx = nullptr;
    double* values = nullptr;
    mkl_sparse_d_export_csr(product, &base, &rows, &cols, &rows_start, &rows_end, &col_indx, &values);
    const auto stored = static_cast<std::size_t>(rows_end[rows - 1] - 1);
    std::memcpy(c.row_ptr, rows_start, sizeof(MKL_INT) * static_cast<std::size_t>(rows + 1));
    std::memcpy(c.col_ind, col_indx, sizeof(MKL_INT) * stored);
    std::memcpy(c.val, values, sizeof(double) * stored);
    mkl_sparse_destroy(product);
    mkl_sparse_destroy(second);
    mkl_sparse_destroy(first);
}

} // namespace direct
