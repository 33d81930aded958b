#include "sparse_products/caller_owned_output.h"

namespace {

struct BorrowedArrays {
    const void* val;
    const void* col_ind;
    const void* row_ptr;
};

// initial-exec: the general model would call into the dynamic loader, a dependency of its own.
[[gnu::tls_model("initial-exec")]] thread_local BorrowedArrays borrowed{};

} // namespace

CallerOwnedOutput::CallerOwnedOutput(const CsrOperand& output) noexcept {
    borrowed = {output.val, output.col_ind, output.row_ptr};
}

CallerOwnedOutput::~CallerOwnedOutput() {
    borrowed = {};
}

// The linker's --wrap sends MKL's calls of mkl_serv_free to the first and ours of the second to MKL.
extern "C" void __real_mkl_serv_free(void* block);

extern "C" void __wrap_mkl_serv_free(void* block) {
    if (block != borrowed.val && block != borrowed.col_ind && block != borrowed.row_ptr) {
        __real_mkl_serv_free(block);
    }
}
