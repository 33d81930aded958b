// A host of the library: solves A*x = b by an iterative solver of Eigen's whose products with A are
// calls of the library, then runs every product family on A and compares each with Eigen's own.

#include "matrix_source.h"
#include "products.h"
#include "progress_line.h"
#include "sparse_operator.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace {

constexpr double solver_tolerance = 1e-8;
constexpr double greatest_difference = 1e-12;

// Solves for a right-hand side whose solution is all ones. Returns whether the solver converged.
template <class Solver>
bool solve(const HostMatrix& a, const char* name, int products_an_iteration) {
    const Eigen::VectorXd b = a.eigen() * Eigen::VectorXd::Ones(a.cols());
    const ProgressLine progress;
    const auto start = std::chrono::steady_clock::now();
    const auto seconds = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    int products = 0;
    const SparseOperator matrix(a, [&] {
        progress.show(fmt::format("{}: iteration {}, {:.1f} s", name, products++ / products_an_iteration, seconds()));
    });
    Solver solver;
    solver.setTolerance(solver_tolerance);
    solver.compute(matrix);
    const Eigen::VectorXd x = solver.solve(b);
    const double elapsed = seconds();
    const double size = b.stableNorm() > 0 ? b.stableNorm() : 1.0;
    const double residual = (b - a.eigen() * x).stableNorm() / size;
    const bool converged = solver.info() == Eigen::Success && residual <= 10 * solver_tolerance;
    progress.show("");
    fmt::print("{}: {} after {} iterations and {:.2f} s, relative residual {}\n\n", name,
               converged ? "converged" : "did not converge", solver.iterations(), elapsed,
               std::isfinite(residual) ? fmt::format("{:.1e}", residual) : "not finite");
    return converged;
}

void print(const std::vector<Measurement>& table) {
    fmt::print("{:<13} {:>23} {:>10} {:>9} {:>9} {:>10}\n", "product", "shape", "stored", "ms", "Eigen ms",
               "difference");
    for (const Measurement& row : table) {
        fmt::print("{:<13} {:>23} {:>10} {:>9.3f} {:>9} {:>10}\n", row.product, row.shape, row.stored, row.milliseconds,
                   std::isnan(row.eigen_milliseconds) ? "-" : fmt::format("{:.3f}", row.eigen_milliseconds),
                   row.difference ? fmt::format("{:.1e}", *row.difference) : "overflow");
    }
}

} // namespace

int main(int argc, char** argv) try {
    std::string path;
    Int grid = 100;
    int threads = 0;
    CLI::App app("Solves A*x = b with the products of csr_products, and compares every product with Eigen's.");
    app.footer(fmt::format(R"(A file may have up to {} rows and columns.

Exit status:
  0  every product agrees with Eigen's; the system of a file may not have converged, which a line says
  1  bad arguments, a bad file, too little memory, output that cannot be written
  2  a product differs from Eigen's, or the Poisson system did not converge)",
                           greatest_dimension));
    auto* const file =
        app.add_option("file", path, "Matrix Market file; without one, the 3-D Poisson matrix is assembled");
    app.add_option("--grid", grid,
                   "points along an edge of the Poisson cube; 100 takes 0.5 GB of memory, 250 takes 6.7")
        ->excludes(file)
        ->check(CLI::Range(1, 250))
        ->capture_default_str();
    app.add_option("--threads", threads, "threads for MKL and for Eigen (default: MKL's own choice)")
        ->check(CLI::Range(1, 1024));
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    }

    if (threads > 0) {
        qz_mkl_set_num_threads_int64(threads);
        Eigen::setNbThreads(threads);
    }
    const bool built_in = file->count() == 0;
    const HostMatrix a(built_in ? poisson(grid) : read_matrix_market(path));
    const bool symmetric = is_symmetric(a.eigen());
    fmt::print("{}: {} x {}, {} stored entries that sum to {:.6g}, {}\n\n",
               built_in ? fmt::format("Poisson matrix of a {0} x {0} x {0} grid", grid) : path, a.rows(), a.cols(),
               a.stored(), a.eigen().sum(), symmetric ? "symmetric" : "unsymmetric");

    bool converged = true;
    using Jacobi = Eigen::DiagonalPreconditioner<double>;
    if (a.rows() != a.cols()) {
        fmt::print("rectangular: no system to solve\n\n");
    } else if (symmetric) {
        converged = solve<Eigen::ConjugateGradient<SparseOperator, Eigen::Lower | Eigen::Upper, Jacobi>>(
            a, "conjugate gradients", 1);
    } else {
        converged = solve<Eigen::BiCGSTAB<SparseOperator, Jacobi>>(a, "BiCGSTAB", 2);
    }

    const std::vector<Measurement> table =
        measure_products(a, symmetric, [progress = ProgressLine()](const std::string& product) {
            progress.show(fmt::format("measuring {}", product));
        });
    print(table);
    const bool agree = std::all_of(table.begin(), table.end(), [](const Measurement& row) {
        return !row.difference || *row.difference <= greatest_difference; // false for NaN
    });
    if (std::any_of(table.begin(), table.end(), [](const Measurement& row) { return !row.difference; })) {
        fmt::print("\nthe products overflow: these are not compared\n");
    }
    if (!agree) {
        fmt::print(stderr, "solver_host: a product differs from Eigen's by more than {:.0e}\n", greatest_difference);
    }
    if (!converged && built_in) {
        fmt::print(stderr, "solver_host: the Poisson problem did not converge\n");
    }
    if (std::fflush(stdout) != 0) {
        throw std::runtime_error("standard output cannot be written");
    }
    return agree && (converged || !built_in) ? 0 : 2;
} catch (const std::bad_alloc&) {
    fmt::print(stderr, "solver_host: not enough memory for this matrix\n");
    return 1;
} catch (const std::exception& error) {
    fmt::print(stderr, "solver_host: {}\n", error.what());
    return 1;
}
