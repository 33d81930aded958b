#include "sparse_products/lent_arrays.h"

namespace csr_products {
namespace {

// initial-exec: the general model would call into the dynamic loader, a dependency of its own.
[[gnu::tls_model("initial-exec")]] thread_local const CsrOperand* lent = nullptr;

} // namespace

LentArrays::LentArrays(const CsrOperand& output) noexcept {
    lent = &output;
}

LentArrays::~LentArrays() {
    lent = nullptr;
}

} // namespace csr_products

// The linker's --wrap sends MKL's calls of a function to __wrap_ and ours of __real_ to MKL.
extern "C" {

void __real_mkl_serv_free(void* block);

void __wrap_mkl_serv_free(void* block) {
    const csr_products::CsrOperand* const c = csr_products::lent;
    if (c == nullptr || (block != c->val && block != c->col_ind && block != c->row_ptr)) {
        __real_mkl_serv_free(block);
    }
}

} // extern "C"
