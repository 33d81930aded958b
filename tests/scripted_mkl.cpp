#include "scripted_mkl.h"

#include <fmt/format.h>
#include <mkl_service.h>

#include <cerrno>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

ScriptedMkl mkl;

namespace {

template <class... Args>
void record(fmt::format_string<Args...> format, Args&&... args) {
    mkl.calls.push_back(fmt::format(format, std::forward<Args>(args)...));
}

std::string text(const matrix_descr& d) {
    return fmt::format("{}/{}/{}", int{d.type}, int{d.mode}, int{d.diag});
}

} // namespace

extern "C" {

sparse_status_t mkl_sparse_d_create_csr(sparse_matrix_t* handle, const sparse_index_base_t base, const MKL_INT rows,
                                        const MKL_INT cols, MKL_INT* rows_start, MKL_INT* rows_end, MKL_INT* col_indx,
                                        double* values) {
    record("create {} base {} {}x{} {} {} {} {}", fmt::ptr(*handle), int{base}, rows, cols, fmt::ptr(rows_start),
           fmt::ptr(rows_end), fmt::ptr(col_indx), fmt::ptr(values));
    const auto wrap = mkl.wraps.front();
    mkl.wraps.pop_front();
    if (wrap.handle != nullptr) {
        *handle = wrap.handle;
    }
    return wrap.status;
}

sparse_status_t mkl_sparse_destroy(sparse_matrix_t handle) {
    record("destroy {}", fmt::ptr(handle));
    if (mkl.on_destroy) {
        mkl.on_destroy(handle);
    }
    return SPARSE_STATUS_NOT_INITIALIZED;
}

sparse_status_t mkl_sparse_d_mm(const sparse_operation_t operation, const double alpha, const sparse_matrix_t handle,
                                const matrix_descr descr, const sparse_layout_t layout, const double* b,
                                const MKL_INT columns, const MKL_INT ldb, const double beta, double* c,
                                const MKL_INT ldc) {
    record("mm {} alpha {} {} {} layout {} {} columns {} ld {} beta {} {} ld {}", int{operation}, alpha,
           fmt::ptr(handle), text(descr), int{layout}, fmt::ptr(b), columns, ldb, beta, fmt::ptr(c), ldc);
    return mkl.product_status;
}

sparse_status_t mkl_sparse_d_mv(const sparse_operation_t operation, const double alpha, const sparse_matrix_t handle,
                                const matrix_descr descr, const double* x, const double beta, double* y) {
    record("mv {} alpha {} {} {} {} beta {} {}", int{operation}, alpha, fmt::ptr(handle), text(descr), fmt::ptr(x),
           beta, fmt::ptr(y));
    return mkl.product_status;
}

sparse_status_t mkl_sparse_d_sp2md(const sparse_operation_t operation_a, const matrix_descr descr_a,
                                   const sparse_matrix_t a, const sparse_operation_t operation_b,
                                   const matrix_descr descr_b, const sparse_matrix_t b, const double alpha,
                                   const double beta, double* c, const sparse_layout_t layout, const MKL_INT ldc) {
    record("sp2md {} {} {} {} {} {} alpha {} beta {} {} layout {} ld {}", int{operation_a}, text(descr_a), fmt::ptr(a),
           int{operation_b}, text(descr_b), fmt::ptr(b), alpha, beta, fmt::ptr(c), int{layout}, ldc);
    return mkl.product_status;
}

sparse_status_t mkl_sparse_sp2m(const sparse_operation_t operation_a, const matrix_descr descr_a,
                                const sparse_matrix_t a, const sparse_operation_t operation_b,
                                const matrix_descr descr_b, const sparse_matrix_t b, const sparse_request_t request,
                                sparse_matrix_t* c) {
    record("sp2m {} {} {} {} {} {} request {} {}", int{operation_a}, text(descr_a), fmt::ptr(a), int{operation_b},
           text(descr_b), fmt::ptr(b), int{request}, fmt::ptr(*c));
    if (mkl.product_handle != nullptr) {
        *c = mkl.product_handle;
    }
    return mkl.product_status;
}

sparse_status_t mkl_sparse_d_export_csr(const sparse_matrix_t handle, sparse_index_base_t* base, MKL_INT* rows,
                                        MKL_INT* cols, MKL_INT** rows_start, MKL_INT** rows_end, MKL_INT** col_indx,
                                        double** values) {
    record("export {} base {} {}x{} {} {} {} {}", fmt::ptr(handle), int{*base}, *rows, *cols, fmt::ptr(*rows_start),
           fmt::ptr(*rows_end), fmt::ptr(*col_indx), fmt::ptr(*values));
    if (!mkl.result.rows) {
        return SPARSE_STATUS_NOT_INITIALIZED;
    }
    *base = SPARSE_INDEX_BASE_ZERO; // neither this nor the column count is to be looked at
    *cols = -1;
    *rows = *mkl.result.rows;
    *rows_start = static_cast<MKL_INT*>(const_cast<void*>(mkl.result.rows_start));
    *rows_end = nullptr;
    *col_indx = static_cast<MKL_INT*>(const_cast<void*>(mkl.result.col_indx));
    *values = static_cast<double*>(const_cast<void*>(mkl.result.values));
    return SPARSE_STATUS_SUCCESS;
}

void mkl_set_num_threads(int count) {
    record("threads {}", count);
}

void mkl_serv_free(void* block) {
    mkl.freed.push_back(block);
}

// The kernel's own, unless a test scripts a sandbox that refuses it.
ssize_t process_vm_readv(pid_t process, const iovec* local, unsigned long local_count, const iovec* remote,
                         unsigned long remote_count, unsigned long flags) {
    ++mkl.kernel_reads;
    if (mkl.kernel_refuses) {
        errno = EPERM;
        return -1;
    }
    return syscall(SYS_process_vm_readv, process, local, local_count, remote, remote_count, flags);
}

} // extern "C"
