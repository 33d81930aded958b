// A sparse product whose dense size does not fit into memory: C := A*B^T of Poisson matrices from local blocks, and a
// refresh for each new set of values, beside Eigen's product. Usage: large_product [GRID]

#include "host_matrix.h"
#include "local_blocks.h"

#include <unsupported/Eigen/KroneckerProduct>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <sys/resource.h>

namespace {

constexpr Int default_grid = 512; // points along an edge of the square
constexpr Int greatest_grid = 2048;
constexpr Int block_rows = 256;
constexpr Int compared_rows = 8192;
constexpr int refreshes = 3;

// The five-point Laplacian on a square of grid * grid points.
EigenMatrix poisson_2d(Int grid) {
    EigenMatrix identity(grid, grid);
    EigenMatrix line(grid, grid);
    identity.setIdentity();
    for (Int i = 0; i < grid; ++i) {
        for (Int j = std::max<Int>(i - 1, 0); j <= std::min(i + 1, grid - 1); ++j) {
            line.insert(i, j) = i == j ? 2.0 : -1.0;
        }
    }
    EigenMatrix matrix = Eigen::kroneckerProduct(identity, line);
    matrix += EigenMatrix(Eigen::kroneckerProduct(line, identity));
    return matrix;
}

// Small integers, so that every sum is exact and results are compared to the bit.
void set_values(const HostMatrix& a, Int seed) {
    for (Int p = 0; p < a.stored(); ++p) {
        a.val()[p] = static_cast<double>(1 + (p * 7 + seed) % 9);
    }
}

local_blocks::CsrView view(const HostMatrix& a) {
    return {a.rows(), a.cols(), a.val(), a.col_ind(), a.row_ptr()};
}

template <class Step>
double seconds(Step step) {
    const auto start = std::chrono::steady_clock::now();
    step();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Whether some rows of C are those of Eigen's product, in whatever order the columns stand.
bool agree(const local_blocks::Csr& c, Int first, const EigenMatrix& expected, std::vector<double>& row) {
    bool all = true;
    for (Int i = 0; i < expected.rows(); ++i) {
        const Int begin = c.row_ptr[local_blocks::size(first + i)] - 1;
        const Int end = c.row_ptr[local_blocks::size(first + i + 1)] - 1;
        for (Int p = begin; p < end; ++p) {
            row[local_blocks::size(c.col_ind[local_blocks::size(p)] - 1)] = c.val[local_blocks::size(p)];
        }
        Int entries = 0;
        for (EigenMatrix::InnerIterator entry(expected, i); entry; ++entry, ++entries) {
            double& ours = row[local_blocks::size(entry.col())];
            all = all && ours == entry.value();
            ours = 0.0;
        }
        all = all && entries == end - begin;
    }
    return all;
}

} // namespace

int main(int argc, char** argv) try {
    Int grid = default_grid;
    if (argc > 1) {
        const char* const end = argv[1] + std::strlen(argv[1]);
        const auto [last, error] = std::from_chars(argv[1], end, grid);
        grid = last == end && error == std::errc{} ? grid : 0;
    }
    if (argc > 2 || grid < 1 || grid > greatest_grid) {
        std::fprintf(stderr, "large_product: usage: large_product [GRID], 1 to %d\n", static_cast<int>(greatest_grid));
        return 1;
    }
    const HostMatrix a(poisson_2d(grid));
    const HostMatrix b(a.eigen());
    std::printf("A and B: %.0f rows, %.0f entries each; the dense size of C is %.1e\n", double(a.rows()),
                double(a.stored()), double(a.rows()) * double(b.rows()));

    local_blocks::Csr c;
    const double structure = seconds([&] { c = structure_of_product(view(a), view(b), block_rows); });
    std::printf("structure of C: %.0f entries, %.2f s\n", double(c.row_ptr.back() - 1), structure);

    bool same = true;
    std::vector<double> row(local_blocks::size(b.rows()));
    for (Int round = 0; same && round < refreshes; ++round) {
        set_values(a, round);
        set_values(b, 2 * round + 1);
        const double refreshed = seconds([&] { refresh(view(a), view(b), c); });
        double eigen = 0;
        EigenMatrix transposed;
        eigen += seconds([&] { transposed = b.eigen().transpose(); });
        for (Int first = 0; first < a.rows(); first += compared_rows) { // in pieces too, for the memory
            const Int count = std::min(compared_rows, a.rows() - first);
            EigenMatrix expected;
            eigen += seconds([&] { expected = a.eigen().middleRows(first, count) * transposed; });
            same = agree(c, first, expected, row) && same;
        }
        std::printf("refresh %d: %.3f s, Eigen's product %.3f s, %s\n", int(round) + 1, refreshed, eigen,
                    same ? "the same values" : "OTHER VALUES");
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("memory: %.0f MB at most\n", double(usage.ru_maxrss) / 1000);
    if (!same) {
        std::fputs("large_product: the product differs from Eigen's\n", stderr);
        return 2;
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::fputs("large_product: standard output cannot be written\n", stderr);
        return 1;
    }
    return 0;
} catch (const std::bad_alloc&) {
    std::fputs("large_product: not enough memory\n", stderr);
    return 1;
}
