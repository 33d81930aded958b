// Mixed calls from four threads for a while. Prints by how much resident memory grew for each call that leaves a
// handle behind. Usage: soak SECONDS

#include "csr_products.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Int = std::int64_t;

constexpr int thread_count = 4;
constexpr double warm_up = 0.05; // of the time

std::atomic<bool> stop = false;
std::atomic<Int> calls = 0;
std::atomic<Int> leaking_calls = 0;

Int resident_bytes() {
    Int total = 0;
    Int resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

// A band of ones, `width` entries a row at the most.
struct Band {
    Band(Int n, Int width) {
        for (Int i = 1; i <= n; ++i) {
            for (Int j = i; j < std::min(i + width, n + 1); ++j) {
                val.push_back(1.0);
                col_ind.push_back(j);
            }
            row_ptr.push_back(static_cast<Int>(val.size()) + 1);
        }
    }
    std::vector<double> val;
    std::vector<Int> col_ind;
    std::vector<Int> row_ptr{1};
};

void call_until_stopped(unsigned seed) {
    constexpr Int n = 600;
    constexpr Int columns = 4;
    std::mt19937 random(seed);
    Band a(n, 5);
    std::vector<double> b(n * columns, 1.0);
    std::vector<double> c(n * n);
    std::vector<Int> c_col_ind(n * n);
    std::vector<Int> c_row_ptr(n + 1);
    Int ignored = 0;
    const auto csr_product = [&](Int stage) {
        spgmatspgmattr_mkl_int64_new(stage, n, n, n, a.val.data(), a.col_ind.data(), a.row_ptr.data(), a.val.data(),
                                     a.col_ind.data(), a.row_ptr.data(), 0, c.data(), c_col_ind.data(),
                                     c_row_ptr.data(), ignored);
        leaking_calls += stage == 2 ? 0 : 1;
    };
    while (!stop) {
        switch (random() % 100) {
        case 0: // rare, so that the handles it leaves stay few; the refresh needs its structure
            csr_product(0);
            csr_product(2);
            csr_product(1);
            calls += 3;
            break;
        case 1:
            spgmatspgmattr_gmat_mkl_int64_new(n, n, n, a.val.data(), a.col_ind.data(), a.row_ptr.data(), a.val.data(),
                                              a.col_ind.data(), a.row_ptr.data(), c.data());
            ++calls;
            break;
        case 2: // no column numbers: the wrap fails
            spgmatgvec_mkl_G_int64(a.val.data(), nullptr, a.row_ptr.data(), b.data(), n, 1, c.data());
            ++calls;
            break;
        default:
            spgmatgvec_mkl_G_int64(a.val.data(), a.col_ind.data(), a.row_ptr.data(), b.data(), n, n, c.data());
            spgmatgmatsum_mkl_G_int64(a.val.data(), a.col_ind.data(), a.row_ptr.data(), b.data(), n, n, n, columns,
                                      c.data(), n);
            spgmatgmat_mkl_S_int64(a.val.data(), a.col_ind.data(), a.row_ptr.data(), b.data(), n, n, columns, c.data());
            calls += 3;
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    const double seconds = argc == 2 ? std::atof(argv[1]) : 0.0;
    if (seconds <= 0.0) {
        fmt::print(stderr, "soak: usage: soak SECONDS\n");
        return 1;
    }
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < thread_count; ++seed) {
        threads.emplace_back(call_until_stopped, seed);
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(warm_up * seconds));
    const Int first_resident = resident_bytes();
    const Int first_leaking = leaking_calls;
    std::this_thread::sleep_for(std::chrono::duration<double>((1 - warm_up) * seconds));
    const auto growth = static_cast<double>(resident_bytes() - first_resident);
    const Int leaking = std::max<Int>(leaking_calls - first_leaking, 1);
    fmt::print("{} calls in {} s: {:.0f} bytes for each of {} that leave a handle\n", calls.load(), seconds,
               growth / static_cast<double>(leaking), leaking);
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 0;
}
