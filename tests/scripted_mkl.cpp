#include "scripted_mkl.h"

#include <mkl_service.h>

ScriptedMkl mkl;

namespace {

using Handle = sparse_matrix_t;
using Operation = sparse_operation_t;

template <class... Args>
sparse_status_t record(const char* name, const Args&... args) {
    mkl.calls.push_back(call_text(name, args...));
    return mkl.product_status;
}

} // namespace

extern "C" {

sparse_status_t mkl_sparse_d_create_csr(Handle* handle, sparse_index_base_t base, MKL_INT rows, MKL_INT cols,
                                        MKL_INT* rows_start, MKL_INT* rows_end, MKL_INT* col_indx, double* values) {
    record("create", *handle, base, rows, cols, rows_start, rows_end, col_indx, values);
    const auto wrap = mkl.wraps.front();
    mkl.wraps.pop_front();
    *handle = wrap.handle != nullptr ? wrap.handle : *handle;
    return wrap.status;
}

sparse_status_t mkl_sparse_destroy(Handle handle) {
    record("destroy", handle);
    mkl.on_destroy();
    return SPARSE_STATUS_NOT_INITIALIZED;
}

sparse_status_t mkl_sparse_d_mm(Operation operation, double alpha, Handle a, matrix_descr descr, sparse_layout_t layout,
                                const double* b, MKL_INT columns, MKL_INT ldb, double beta, double* c, MKL_INT ldc) {
    return record("mm", operation, alpha, a, descr, layout, b, columns, ldb, beta, c, ldc);
}

sparse_status_t mkl_sparse_d_mv(Operation operation, double alpha, Handle a, matrix_descr descr, const double* x,
                                double beta, double* y) {
    return record("mv", operation, alpha, a, descr, x, beta, y);
}

sparse_status_t mkl_sparse_d_sp2md(Operation operation_a, matrix_descr descr_a, Handle a, Operation operation_b,
                                   matrix_descr descr_b, Handle b, double alpha, double beta, double* c,
                                   sparse_layout_t layout, MKL_INT ldc) {
    return record("sp2md", operation_a, descr_a, a, operation_b, descr_b, b, alpha, beta, c, layout, ldc);
}

sparse_status_t mkl_sparse_sp2m(Operation operation_a, matrix_descr descr_a, Handle a, Operation operation_b,
                                matrix_descr descr_b, Handle b, sparse_request_t request, Handle* c) {
    record("sp2m", operation_a, descr_a, a, operation_b, descr_b, b, request, *c);
    *c = mkl.product_handle != nullptr ? mkl.product_handle : *c;
    mkl.on_product();
    return mkl.product_status;
}

sparse_status_t mkl_sparse_d_export_csr(Handle handle, sparse_index_base_t* base, MKL_INT* rows, MKL_INT* cols,
                                        MKL_INT** rows_start, MKL_INT** rows_end, MKL_INT** col_indx, double** values) {
    record("export", handle, *base, *rows, *cols, *rows_start, *rows_end, *col_indx, *values);
    if (!mkl.result.rows) {
        return SPARSE_STATUS_NOT_INITIALIZED;
    }
    *base = SPARSE_INDEX_BASE_ZERO; // neither this nor the column count nor rows_end is to be looked at
    *rows = *mkl.result.rows;
    *cols = -1;
    *rows_start = reinterpret_cast<MKL_INT*>(mkl.result.rows_start);
    *col_indx = reinterpret_cast<MKL_INT*>(mkl.result.col_indx);
    *values = mkl.result.values;
    return SPARSE_STATUS_SUCCESS;
}

void mkl_set_num_threads(int count) {
    record("threads", count);
}

void mkl_serv_free(void* block) {
    mkl.freed.push_back(block);
}

} // extern "C"
