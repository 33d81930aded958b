#include "sparse_products/mkl_memory.h"

namespace csr_products {
namespace {

// initial-exec: the general model would call into the dynamic loader, a dependency of its own.
[[gnu::tls_model("initial-exec")]] thread_local MklMemory* watching = nullptr;

} // namespace

void MklMemory::watch() noexcept {
    watching = this;
}

MklMemory::~MklMemory() {
    watching = nullptr;
}

std::int64_t MklMemory::elements_of(const void* array, std::int64_t lent) const noexcept {
    if (array == nullptr) {
        return 0;
    }
    // MKL may make, free and make a block at the same address: the latest note counts.
    for (std::size_t i = noted_; i-- > 0;) {
        if (blocks_[i % capacity] == array) {
            return static_cast<std::int64_t>(sizes_[i % capacity] / sizeof(double));
        }
    }
    return lent;
}

void MklMemory::note(const void* block, std::size_t size) noexcept {
    const std::size_t i = noted_++ % capacity;
    blocks_[i] = block;
    sizes_[i] = size;
}

bool MklMemory::lent_by_caller(const void* block) const noexcept {
    return block == val_ || block == col_ind_ || block == row_ptr_;
}

} // namespace csr_products

// The linker's --wrap sends MKL's calls of a function to __wrap_ and ours of __real_ to MKL.
extern "C" {

using csr_products::MklMemory;
using csr_products::watching;

void* __real_mkl_serv_malloc(std::size_t size, int alignment);
void __real_mkl_serv_free(void* block);

// Out of line, so that a call that nobody watches is a test and a jump.
[[gnu::noinline]] static void* malloc_watched(std::size_t size, int alignment) {
    void* const block = __real_mkl_serv_malloc(size, alignment);
    watching->note(block, size);
    return block;
}

void* __wrap_mkl_serv_malloc(std::size_t size, int alignment) {
    return watching == nullptr ? __real_mkl_serv_malloc(size, alignment) : malloc_watched(size, alignment);
}

void __wrap_mkl_serv_free(void* block) {
    const MklMemory* const memory = watching;
    if (memory == nullptr || !memory->lent_by_caller(block)) {
        __real_mkl_serv_free(block);
    }
}

} // extern "C"
