// What loading a library and its first product take: microseconds, and kilobytes of resident memory.
// Usage: load LIBRARY

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fstream>
#include <unistd.h>

namespace {

using Int = std::int64_t;
using Multiply = void(double*, Int*, Int*, double*, Int, Int, double*);

long resident_kilobytes() {
    long total = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * sysconf(_SC_PAGESIZE) / 1024;
}

template <class Step>
void measure(const char* name, Step step) {
    const long before = resident_kilobytes();
    const auto start = std::chrono::steady_clock::now();
    step();
    const double microseconds =
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
    const long after = resident_kilobytes();
    std::printf("%s %.1f %ld\n", name, microseconds, after - before);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("load: usage: load LIBRARY\n", stderr);
        return 1;
    }
    Int row_ptr[] = {1, 2, 4};
    Int col_ind[] = {1, 1, 2};
    double val[] = {2.0, 1.0, 3.0};
    double x[] = {1.0, 10.0};
    double y[2];
    Multiply* multiply = nullptr;
    measure("load", [&] {
        void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
        void* const symbol = library == nullptr ? nullptr : dlsym(library, "_Z22spgmatgvec_mkl_G_int64PdPlS0_S_llS_");
        if (symbol == nullptr) {
            std::fprintf(stderr, "load: %s\n", dlerror());
            std::exit(1);
        }
        multiply = reinterpret_cast<Multiply*>(symbol);
    });
    measure("first", [&] { multiply(val, col_ind, row_ptr, x, 2, 2, y); });
    measure("second", [&] { multiply(val, col_ind, row_ptr, x, 2, 2, y); });
    return 0;
}
