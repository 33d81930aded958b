#pragma once

#include <csr_products.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <numeric>
#include <vector>

// C := A*B^T in memory for the entries of C, where the m*n elements that a call writes are too many:
//
//     Csr c = structure_of_product(a, b, block_rows);
//     refresh(a, b, c); // the values, and again whenever those of A or B have changed
//
// All arrays are one-based. No column stands twice in a row. A block of rows takes memory for its rows times the rows
// of B that it meets, and leaves a handle of MKL's behind, of 17 to 26 KB.
namespace local_blocks {

using Int = std::int64_t;

// A matrix in arrays of the host's.
struct CsrView {
    Int rows, cols;
    double* val;
    Int *col_ind, *row_ptr;
};

struct Csr {
    Int rows, cols;
    std::vector<double> val;
    std::vector<Int> col_ind, row_ptr{1};

    explicit Csr(Int rows_ = 0, Int cols_ = 0) : rows(rows_), cols(cols_) {}

    // Makes it a matrix without rows so far, in the memory that it has.
    void clear(Int rows_, Int cols_) {
        rows = rows_;
        cols = cols_;
        val.clear();
        col_ind.clear();
        row_ptr.assign(1, 1);
    }
    CsrView view() { return {rows, cols, val.data(), col_ind.data(), row_ptr.data()}; }
};

inline std::size_t size(Int count) {
    return static_cast<std::size_t>(count);
}

inline void multiply(Int stage, const CsrView& a, const CsrView& b, const CsrView& c) {
    Int ignored = 0;
    spgmatspgmattr_mkl_int64_new(stage, a.rows, a.cols, b.rows, a.val, a.col_ind, a.row_ptr, b.val, b.col_ind,
                                 b.row_ptr, ignored, c.val, c.col_ind, c.row_ptr, ignored);
}

// Some rows or columns of a matrix, numbered 1, 2, 3 ... in ascending order.
class Chosen {
public:
    explicit Chosen(Int count) : number_(size(count + 1)) {}

    void add(Int i) {
        if (number_[size(i)] == 0) {
            number_[size(i)] = 1;
            chosen_.push_back(i);
        }
    }
    void number() {
        std::sort(chosen_.begin(), chosen_.end());
        Int count = 0;
        for (const Int i : chosen_) {
            number_[size(i)] = ++count;
        }
    }
    void clear() {
        for (const Int i : chosen_) {
            number_[size(i)] = 0;
        }
        chosen_.clear();
    }

    Int count() const { return static_cast<Int>(chosen_.size()); }
    Int number_of(Int i) const { return number_[size(i)]; } // 0: not chosen
    const std::vector<Int>& all() const { return chosen_; }

private:
    std::vector<Int> number_, chosen_;
};

// For each column its rows, in ascending order: those of column j stand at row_ptr[j - 1] ... row_ptr[j] - 1.
inline Csr rows_of_columns(const CsrView& b) {
    const Int stored = b.row_ptr[b.rows] - 1;
    Csr columns(b.cols, b.rows);
    columns.col_ind.resize(size(stored));
    columns.row_ptr.resize(size(b.cols + 1));
    std::for_each(b.col_ind, b.col_ind + stored, [&](Int column) { ++columns.row_ptr[size(column)]; });
    std::partial_sum(columns.row_ptr.begin(), columns.row_ptr.end(), columns.row_ptr.begin());
    std::vector<Int> next = columns.row_ptr;
    for (Int row = 1; row <= b.rows; ++row) {
        for (Int p = b.row_ptr[row - 1]; p < b.row_ptr[row]; ++p) {
            columns.col_ind[size(next[size(b.col_ind[p - 1] - 1)]++ - 1)] = row;
        }
    }
    return columns;
}

// Appends a row of a matrix to a part of it, with the chosen columns alone.
inline void append_row(const CsrView& whole, Int row, const Chosen& columns, Csr& part) {
    for (Int p = whole.row_ptr[row - 1] - 1; p < whole.row_ptr[row] - 1; ++p) {
        const Int column = columns.number_of(whole.col_ind[p]);
        if (column != 0) {
            part.col_ind.push_back(column);
            part.val.push_back(whole.val[p]);
        }
    }
    part.row_ptr.push_back(static_cast<Int>(part.col_ind.size()) + 1);
}

// The structure of C := A*B^T; val has its length. Each block of rows of A is multiplied by only the rows of B that it
// meets, those that share a column with it. Throws std::bad_alloc where memory runs out, in MKL too.
inline Csr structure_of_product(const CsrView& a, const CsrView& b, Int block_rows) {
    block_rows = std::clamp<Int>(block_rows, 1, std::max<Int>(a.rows, 1));
    const Csr b_columns = rows_of_columns(b);
    Csr c(a.rows, b.rows);
    Chosen columns(a.cols);
    Chosen met(b.rows);
    Csr local_a; // for all blocks: new memory costs more than their products
    Csr local_b;
    Csr local_c;
    for (Int first = 1; first <= a.rows; first += block_rows) {
        const Int last = std::min(first + block_rows - 1, a.rows);
        columns.clear();
        met.clear();
        std::for_each(a.col_ind + a.row_ptr[first - 1] - 1, a.col_ind + a.row_ptr[last] - 1,
                      [&](Int column) { columns.add(column); });
        columns.number();
        for (const Int column : columns.all()) {
            for (Int p = b_columns.row_ptr[size(column - 1)]; p < b_columns.row_ptr[size(column)]; ++p) {
                met.add(b_columns.col_ind[size(p - 1)]);
            }
        }
        met.number();

        local_a.clear(last - first + 1, columns.count());
        local_b.clear(met.count(), columns.count());
        for (Int row = first; row <= last; ++row) {
            append_row(a, row, columns, local_a);
        }
        for (const Int row : met.all()) {
            append_row(b, row, columns, local_b);
        }
        // Without values: a null output is not written. Where no row is met, MKL refuses the product.
        local_c.col_ind.resize(std::max(local_c.col_ind.size(), size(local_a.rows * local_b.rows)));
        local_c.row_ptr.assign(size(local_a.rows + 1), 1);
        multiply(0, local_a.view(), local_b.view(), {0, 0, nullptr, local_c.col_ind.data(), local_c.row_ptr.data()});
        if (met.count() > 0 && local_c.row_ptr.back() == 1) {
            throw std::bad_alloc(); // MKL says nothing, and leaves what stood there
        }
        const Int before = c.row_ptr.back() - 1;
        for (Int row = 1; row <= local_a.rows; ++row) {
            c.row_ptr.push_back(before + local_c.row_ptr[size(row)]);
        }
        for (Int p = 0; p < local_c.row_ptr.back() - 1; ++p) {
            c.col_ind.push_back(met.all()[size(local_c.col_ind[size(p)] - 1)]);
        }
    }
    c.val.resize(c.col_ind.size());
    return c;
}

// New values for a structure that structure_of_product has left. A and B have the structure that they had there. Where
// memory runs out, all values stay as they were: a host that makes one of them NaN beforehand can tell.
inline void refresh(const CsrView& a, const CsrView& b, Csr& c) {
    multiply(2, a, b, c.view());
}

} // namespace local_blocks
