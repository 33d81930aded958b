#include "matrix_source.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <vector>

namespace {

std::vector<std::string_view> words_of(std::string_view line) {
    constexpr std::string_view blanks = " \t\r";
    std::vector<std::string_view> words;
    for (std::size_t end = 0;;) {
        const std::size_t begin = line.find_first_not_of(blanks, end);
        if (begin == std::string_view::npos) {
            return words;
        }
        end = std::min(line.find_first_of(blanks, begin), line.size());
        words.push_back(line.substr(begin, end - begin));
    }
}

// The number that a whole word is: decimal, finite, without a plus sign.
template <class T>
std::optional<T> number(std::string_view word) {
    T value{};
    auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if constexpr (std::is_floating_point_v<T>) {
        if (error == std::errc::result_out_of_range) { // strtod tells zero from infinity
            value = std::strtod(std::string(word).c_str(), nullptr);
            error = {};
        }
        error = std::isfinite(value) ? error : std::errc::result_out_of_range;
    }
    return error == std::errc{} && end == word.data() + word.size() ? std::optional(value) : std::nullopt;
}

enum class Field { real, integer, pattern };

class MatrixMarketFile {
public:
    explicit MatrixMarketFile(const std::string& path) : path_(path.empty() ? "''" : path) {
        errno = 0;
        file_.open(path);
        read_banner();
        read_sizes();
    }

    EigenMatrix read_entries() {
        std::vector<Eigen::Triplet<double, Int>> entries;
        Int count = 0;
        for (; next(); ++count) {
            if (count == count_) {
                fail_here(fmt::format("more than the {} entries that were announced", count_));
            }
            const auto [row, col, value] = entry();
            entries.emplace_back(row, col, value);
            if (symmetric_ && row != col) {
                if (lower_.value_or(row > col) != (row > col)) {
                    fail_here("symmetric, but with entries on both sides of the diagonal");
                }
                lower_ = row > col;
                entries.emplace_back(col, row, value);
            }
        }
        if (count < count_) {
            fail(fmt::format("ends after {} of {} entries", count, count_));
        }
        EigenMatrix a(rows_, cols_);
        a.setFromTriplets(entries.begin(), entries.end());
        return a;
    }

private:
    struct Entry {
        Int row, col; // zero-based
        double value;
    };

    [[noreturn]] void fail(const std::string& problem) const {
        throw std::runtime_error(fmt::format("{}: {}", path_, problem));
    }
    [[noreturn]] void fail_here(const std::string& problem) const {
        fail(fmt::format("line {}: {}", line_number_, problem));
    }

    bool next_line() {
        ++line_number_;
        const bool read = static_cast<bool>(std::getline(file_, line_));
        words_ = words_of(line_);
        return read;
    }

    // The next line that is neither blank nor a comment.
    bool next() {
        while (next_line()) {
            if (!words_.empty() && line_[0] != '%') {
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
        if (words_.size() != 5 || words_[0] != "%%matrixmarket" || words_[1] != "matrix") {
            fail_here("not the first line of a Matrix Market file that holds a matrix");
        }
        const std::string_view field = words_[3];
        symmetric_ = words_[4] == "symmetric";
        field_ = field == "pattern" ? Field::pattern : field == "integer" ? Field::integer : Field::real;
        if (words_[2] != "coordinate" || (field_ == Field::real && field != "real") ||
            (!symmetric_ && words_[4] != "general")) {
            fail_here("not a coordinate matrix that is real, integer or pattern, and general or symmetric");
        }
    }

    void read_sizes() {
        if (!next()) {
            fail("ends before its size");
        }
        std::vector<Int> sizes;
        for (const std::string_view word : words_) {
            sizes.push_back(number<Int>(word).value_or(-1));
        }
        if (sizes.size() != 3 || *std::min_element(sizes.begin(), sizes.end()) < 0) {
            fail_here("not a number of rows, of columns and of entries");
        }
        rows_ = sizes[0];
        cols_ = sizes[1];
        count_ = sizes[2];
        if (std::min({rows_, cols_, count_}) == 0) {
            fail_here(fmt::format("{} x {} with {} entries: an empty matrix", rows_, cols_, count_));
        }
        if (symmetric_ && rows_ != cols_) {
            fail_here(fmt::format("symmetric, but {} x {}", rows_, cols_));
        }
        if (std::max(rows_, cols_) > greatest_dimension) {
            fail_here(fmt::format("{} x {}, where {} rows and columns are the most", rows_, cols_, greatest_dimension));
        }
    }

    // The entry of this line.
    Entry entry() const {
        const bool complete = words_.size() == (field_ == Field::pattern ? 2 : 3);
        const auto row = complete ? number<Int>(words_[0]) : std::nullopt;
        const auto col = complete ? number<Int>(words_[1]) : std::nullopt;
        const auto value = complete ? value_of_line() : std::nullopt;
        if (!row || !col || !value) {
            fail_here(field_ == Field::pattern   ? "not a row and a column"
                      : field_ == Field::integer ? "not a row, a column and an integer"
                                                 : "not a row, a column and a finite value");
        }
        for (const auto& [name, index, size] : {std::tuple{"row", *row, rows_}, {"column", *col, cols_}}) {
            if (index < 1 || index > size) {
                fail_here(fmt::format("{} {} of a {} x {} matrix", name, index, rows_, cols_));
            }
        }
        return {*row - 1, *col - 1, *value};
    }

    std::optional<double> value_of_line() const {
        switch (field_) {
        case Field::pattern:
            return 1.0;
        case Field::integer:
            return number<Int>(words_[2]);
        default:
            return number<double>(words_[2]);
        }
    }

    std::string path_;
    std::ifstream file_;
    std::string line_;
    std::vector<std::string_view> words_; // of the line
    Int line_number_ = 0;
    Field field_ = Field::real;
    bool symmetric_ = false;
    std::optional<bool> lower_; // which triangle of a symmetric matrix stands in the file
    Int rows_ = 0;
    Int cols_ = 0;
    Int count_ = 0;
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
    return MatrixMarketFile(path).read_entries();
}

bool is_symmetric(const EigenMatrix& a) {
    return a.rows() == a.cols() && EigenMatrix(a - EigenMatrix(a.transpose())).norm() == 0.0;
}
