#include "matrix_source.h"

#include <fmt/format.h>
#include <unsupported/Eigen/SparseExtra>

#include <algorithm>
#include <array>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace {

// Eigen's reader tells of a bad line on std::cerr and goes on; here it is an error.
class CapturedErrors {
public:
    CapturedErrors() : original_(std::cerr.rdbuf(text_.rdbuf())) {}
    ~CapturedErrors() { std::cerr.rdbuf(original_); }
    CapturedErrors(const CapturedErrors&) = delete;
    CapturedErrors& operator=(const CapturedErrors&) = delete;

    std::string first_line() const { return text_.str().substr(0, text_.str().find('\n')); }

private:
    std::ostringstream text_;
    std::streambuf* original_;
};

// Whether a file's first line announces a symmetric matrix; throws unless it announces one we take.
bool announces_symmetric(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line)) {
        throw std::runtime_error(fmt::format("{}: cannot be read, or is empty", path));
    }
    std::transform(line.begin(), line.end(), line.begin(), [](unsigned char c) { return std::tolower(c); });
    std::istringstream words(line);
    std::array<std::string, 5> header;
    for (std::string& word : header) {
        words >> word;
    }
    const auto& [banner, object, format, field, symmetry] = header;
    if (banner != "%%matrixmarket" || object != "matrix") {
        throw std::runtime_error(fmt::format("{}: not a Matrix Market file", path));
    }
    if (format != "coordinate" || (field != "real" && field != "integer") ||
        (symmetry != "general" && symmetry != "symmetric")) {
        throw std::runtime_error(
            fmt::format("{}: a {} {} {} matrix; real or integer coordinates, general or symmetric, "
                        "are what this program reads",
                        path, format, field, symmetry));
    }
    return symmetry == "symmetric";
}

} // namespace

EigenMatrix poisson(Int grid) {
    const Int plane = grid * grid;
    EigenMatrix a(plane * grid, plane * grid);
    a.reserve(Eigen::VectorXi::Constant(a.rows(), 7));
    for (Int row = 0; row < a.rows(); ++row) {
        const Int x = row % grid;
        const Int y = row / grid % grid;
        const Int z = row / plane;
        const auto couple = [&](bool inside, Int neighbour) {
            if (inside) {
                a.insert(row, neighbour) = -1.0;
            }
        };
        couple(z > 0, row - plane);
        couple(y > 0, row - grid);
        couple(x > 0, row - 1);
        a.insert(row, row) = 6.0;
        couple(x < grid - 1, row + 1);
        couple(y < grid - 1, row + grid);
        couple(z < grid - 1, row + plane);
    }
    return a;
}

EigenMatrix read_matrix_market(const std::string& path) {
    const bool symmetric = announces_symmetric(path);
    EigenMatrix a;
    const CapturedErrors errors;
    if (!Eigen::loadMarket(a, path) || !errors.first_line().empty() || a.nonZeros() == 0) {
        throw std::runtime_error(fmt::format("{}: malformed Matrix Market file ({})", path,
                                             errors.first_line().empty() ? "no entries" : errors.first_line()));
    }
    if (symmetric && a.rows() != a.cols()) {
        throw std::runtime_error(fmt::format("{}: symmetric, but {} x {}", path, a.rows(), a.cols()));
    }
    return symmetric ? EigenMatrix(a.selfadjointView<Eigen::Lower>()) : a;
}

bool is_symmetric(const EigenMatrix& a) {
    return a.rows() == a.cols() && EigenMatrix(a - EigenMatrix(a.transpose())).norm() == 0.0;
}
