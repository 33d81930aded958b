#include "system.h"

#include <dlfcn.h>

// Usage: loaded LIBRARY
int main(int /*argc*/, char** argv) {
    using Multiply = void(double*, std::int64_t*, std::int64_t*, double*, std::int64_t, std::int64_t, double*);
    void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::puts(dlerror());
        return 1;
    }
    auto* const multiply = reinterpret_cast<Multiply*>(dlsym(library, "_Z22spgmatgvec_mkl_G_int64PdPlS0_S_llS_"));
    multiply(val, col_ind, row_ptr, x, 2, 2, y);
    return check();
}
