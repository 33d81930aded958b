#include "matrices.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace {

// A row of `length` entries, their columns drawn from a distribution; one drawn twice counts once.
template <class DrawColumn>
void append_row(EigenMatrix& a, Int row, Int length, DrawColumn draw_column) {
    std::vector<Int> columns(static_cast<std::size_t>(length));
    std::generate(columns.begin(), columns.end(), draw_column);
    std::sort(columns.begin(), columns.end());
    columns.erase(std::unique(columns.begin(), columns.end()), columns.end());
    a.startVec(row);
    for (const Int column : columns) {
        a.insertBack(row, column) = 1.0 + static_cast<double>(column % 7);
    }
}

} // namespace

EigenMatrix random_matrix(Int rows, Int cols, Int per_row) {
    std::mt19937_64 random(1);
    std::uniform_int_distribution<Int> column(0, cols - 1);
    EigenMatrix a(rows, cols);
    a.reserve(rows * per_row);
    for (Int row = 0; row < rows; ++row) {
        append_row(a, row, per_row, [&] { return column(random); });
    }
    a.finalize();
    return a;
}

EigenMatrix power_law_matrix(Int rows, Int per_row) {
    constexpr double exponent = 0.6; // the length of the i-th longest row falls as i^-0.6
    constexpr double longest = 0.1;  // of all columns
    const auto n = static_cast<double>(rows);
    const double scale = static_cast<double>(per_row) * (1 - exponent) * std::pow(n, exponent);
    std::vector<Int> lengths(static_cast<std::size_t>(rows));
    for (Int i = 0; i < rows; ++i) {
        const double length = std::min(scale * std::pow(static_cast<double>(i + 1), -exponent), longest * n);
        lengths[static_cast<std::size_t>(i)] = std::max<Int>(1, std::lround(length));
    }
    std::mt19937_64 random(1);
    std::shuffle(lengths.begin(), lengths.end(), random);
    std::uniform_real_distribution<double> uniform;
    EigenMatrix a(rows, rows);
    a.reserve(rows * per_row);
    for (Int row = 0; row < rows; ++row) {
        append_row(a, row, lengths[static_cast<std::size_t>(row)],
                   [&] { return static_cast<Int>(n * std::pow(uniform(random), 2.0)); });
    }
    a.finalize();
    return a;
}
