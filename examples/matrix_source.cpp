#include "matrix_source.h"

#include <fmt/format.h>
#include <suitesparse/cholmod.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace {

// The lines of a Matrix Market file, checked for what CHOLMOD accepts silently: another banner, indices from
// zero, words behind a value, values that are not finite, more entries than were announced.
class MatrixMarketLines {
public:
    explicit MatrixMarketLines(const std::string& path) : path_(path.empty() ? "''" : path) {
        errno = 0;
        file_.open(path);
        read_banner();
        read_size();
        for (Int entry = 0; next(); ++entry) {
            if (entry == entries_) {
                fail_here(fmt::format("more than the {} entries that were announced", entries_));
            }
            if (!holds_entry()) {
                fail_here(pattern_ ? "not a row and a column" : "not a row, a column and a finite value");
            }
            text_ += line_ + '\n';
        }
        const auto read = std::count(text_.begin(), text_.end(), '\n') - 2;
        if (read < entries_) {
            fail(fmt::format("ends after {} of {} entries", read, entries_));
        }
    }

    // The banner in the usual spelling, the size, and the entries, a line each.
    std::string& text() { return text_; }

private:
    [[noreturn]] void fail(const std::string& problem) const {
        throw std::runtime_error(fmt::format("{}: {}", path_, problem));
    }
    [[noreturn]] void fail_here(const std::string& problem) const {
        fail(fmt::format("line {}: {}", line_number_, problem));
    }

    bool next_line() {
        ++line_number_;
        return static_cast<bool>(std::getline(file_, line_));
    }

    // The next line that is neither blank nor a comment.
    bool next() {
        while (next_line()) {
            if (line_[0] != '%' && line_.find_first_not_of(blanks) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    void read_banner() {
        if (!next_line()) {
            fail(fmt::format("cannot be read ({})",
                             errno != 0 ? std::generic_category().message(errno) : "it is empty"));
        }
        std::transform(line_.begin(), line_.end(), line_.begin(), [](unsigned char c) { return std::tolower(c); });
        std::istringstream words(line_);
        std::array<std::string, 5> banner;
        for (std::string& word : banner) {
            words >> word;
        }
        const auto& [mark, object, format, field, symmetry] = banner;
        if (mark != "%%matrixmarket" || object != "matrix") {
            fail("not a Matrix Market file");
        }
        pattern_ = field == "pattern";
        if (format != "coordinate" || (field != "real" && field != "integer" && !pattern_) ||
            (symmetry != "general" && symmetry != "symmetric")) {
            fail(fmt::format("a {} {} {} matrix, where a coordinate matrix is needed that is real, integer or "
                             "pattern and general or symmetric",
                             format, field, symmetry));
        }
        symmetric_ = symmetry == "symmetric";
        text_ = fmt::format("%%MatrixMarket matrix coordinate {} {}\n", field, symmetry);
    }

    void read_size() {
        Int rows = 0;
        Int cols = 0;
        std::string rest;
        if (!next()) {
            fail("ends before its size");
        }
        std::istringstream numbers(line_);
        if (!(numbers >> rows >> cols >> entries_) || numbers >> rest || rows < 0 || cols < 0 || entries_ < 0) {
            fail_here("not a number of rows, of columns and of entries");
        }
        if (symmetric_ && rows != cols) {
            fail(fmt::format("symmetric, but {} x {}", rows, cols));
        }
        if (std::max(rows, cols) > greatest_dimension) {
            fail(fmt::format("{} x {}, where {} rows and columns are the most", rows, cols, greatest_dimension));
        }
        if (entries_ == 0) {
            fail("no entries");
        }
        text_ += line_ + '\n';
    }

    bool holds_entry() const {
        const char* rest = line_.c_str();
        char* end = nullptr;
        for (int index = 0; index < 2; ++index, rest = end) {
            if (std::strtoll(rest, &end, 10) < 1) {
                return false;
            }
        }
        if (!pattern_ && (!std::isfinite(std::strtod(rest, &end)) || end == rest)) {
            return false;
        }
        return end[std::strspn(end, blanks)] == '\0';
    }

    static constexpr const char* blanks = " \t\r";

    std::string path_;
    std::ifstream file_;
    std::string line_;
    Int line_number_ = 0;
    bool pattern_ = false;
    bool symmetric_ = false;
    Int entries_ = 0;
    std::string text_;
};

// CHOLMOD, which reports a problem by a message.
class Cholmod {
public:
    Cholmod() {
        cholmod_l_start(&common_);
        common_.print = 0;
        common_.prefer_binary = 1; // the entries of a pattern are ones
        common_.error_handler = [](int, const char*, int, const char* message) { problem = message; };
        problem = "CHOLMOD cannot read it";
    }
    ~Cholmod() { cholmod_l_finish(&common_); }
    Cholmod(const Cholmod&) = delete;
    Cholmod& operator=(const Cholmod&) = delete;

    // All entries of a matrix, with both triangles of a symmetric one, entries at one place summed.
    EigenMatrix read(std::string& text) {
        const std::unique_ptr<FILE, int (*)(FILE*)> file(fmemopen(text.data(), text.size(), "r"), std::fclose);
        const auto triplet = owned(cholmod_l_read_triplet(file.get(), &common_), cholmod_l_free_triplet);
        const auto folded = owned(cholmod_l_triplet_to_sparse(triplet.get(), 0, &common_), cholmod_l_free_sparse);
        const auto a = owned(cholmod_l_copy(folded.get(), 0, 1, &common_), cholmod_l_free_sparse);
        using ByColumns = Eigen::SparseMatrix<double, Eigen::ColMajor, Int>;
        return Eigen::Map<const ByColumns>(static_cast<Int>(a->nrow), static_cast<Int>(a->ncol),
                                           cholmod_l_nnz(a.get(), &common_), static_cast<const Int*>(a->p),
                                           static_cast<const Int*>(a->i), static_cast<const double*>(a->x));
    }

private:
    template <class T>
    std::shared_ptr<T> owned(T* object, int (*free)(T**, cholmod_common*)) {
        if (object == nullptr) {
            throw std::runtime_error(problem);
        }
        return {object, [this, free](T* p) { free(&p, &common_); }};
    }

    static inline std::string problem;
    cholmod_common common_{};
};

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
    MatrixMarketLines lines(path);
    try {
        return Cholmod().read(lines.text());
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(fmt::format("{}: {}", path, error.what()));
    }
}

bool is_symmetric(const EigenMatrix& a) {
    return a.rows() == a.cols() && EigenMatrix(a - EigenMatrix(a.transpose())).norm() == 0.0;
}
