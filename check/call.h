#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <string_view>

namespace csr_products::check {

using Int = std::int64_t;

constexpr std::uint64_t as_unsigned(Int value) noexcept {
    return static_cast<std::uint64_t>(value);
}

constexpr Int most_elements = std::numeric_limits<Int>::max();

enum Property : unsigned { General = 0, Symmetric = 1, Transposed = 2, Accumulates = 4, NamedSum = 8, Long = 16 };

// One of the thirteen functions, and what was counted of it.
struct Entry {
    const char* symbol;
    unsigned properties = General;
    std::atomic<void*> real{nullptr}; // the function of the library that computes
    std::atomic<std::uint64_t> calls{0};
    std::atomic<std::uint64_t> nanoseconds{0};

    // The name stands in the symbol behind "_Z" and its own length, which has two digits.
    std::string_view name() const noexcept {
        return {symbol + 4, static_cast<std::size_t>((symbol[2] - '0') * 10 + symbol[3] - '0')};
    }
};

// An entry, and where it was called from. The default argument is evaluated in the entry that makes the site.
struct Site {
    Site(Entry& called, const void* address = __builtin_return_address(0)) noexcept : entry(called), caller(address) {}

    Entry& entry;
    const void* caller;
};

// Memory that a call reads or writes. All elements have eight bytes.
struct Block {
    const char* name;
    const void* data;
    Int rows;
    Int columns;
    Int leading_dimension;
    bool written;

    // Elements from the first to the last, or as many as there can be.
    Int extent() const noexcept {
        Int elements = 0;
        if (rows <= 0 || columns <= 0) {
            return 0;
        }
        const bool overflows = __builtin_mul_overflow(columns - 1, leading_dimension, &elements) ||
                               __builtin_add_overflow(elements, rows, &elements);
        return overflows ? most_elements : elements;
    }
};

inline Block array(const char* name, const void* data, Int elements, bool written = false) noexcept {
    return {name, data, elements, 1, elements, written};
}

// The arrays of a call that are there as a whole: at most those of A, B and C.
struct Blocks {
    Block blocks[9];
    int count = 0;

    void add(const Block& block) noexcept { blocks[count++] = block; }
    const Block* begin() const noexcept { return blocks; }
    const Block* end() const noexcept { return blocks + count; }
};

struct SparseNames {
    const char* matrix;
    const char* val;
    const char* col_ind;
    const char* row_ptr;
};

inline constexpr SparseNames OnlyNames{"A", "val", "col_ind", "row_ptr"};
inline constexpr SparseNames ANames{"A", "a_val", "a_col_ind", "a_row_ptr"};
inline constexpr SparseNames BNames{"B", "b_val", "b_col_ind", "b_row_ptr"};
inline constexpr SparseNames CNames{"C", "c_val", "c_col_ind", "c_row_ptr"};

struct Sparse {
    const SparseNames* names;
    Int rows;
    Int cols;
    const double* val;
    const Int* col_ind;
    const Int* row_ptr;

    // Only of a row pointer that was checked.
    Int entries() const noexcept { return row_ptr[rows] - 1; }
};

enum class Form { Vector, Matrix, SparseDense, SparseCsr, ThreadCount };

struct Call {
    Form form;
    Site site;
    Int m = 0;
    Int k = 0;
    Int n = 1;
    Sparse a{};
    Sparse b{};     // of the products of two sparse matrices
    Block dense{};  // B or x
    Block output{}; // a dense one, or the name C alone
    Sparse c{};     // of the CSR product
    Int stage = 0;  // of the CSR product
    int threads = 0;

    Blocks blocks{};
    std::uint64_t number = 0; // in the process
    std::uint64_t start = 0;  // nanoseconds
    Call* next = nullptr;     // among the running calls
    bool leaves_structure = false;

    bool has(Property property) const noexcept { return (site.entry.properties & property) != 0; }
    bool is_sparse_by_sparse() const noexcept { return form == Form::SparseDense || form == Form::SparseCsr; }
};

// The arguments of each form of call, as its entries take them.
// clang-format off

inline Call describe(const Site& site, double* val, Int* col_ind, Int* row_ptr, double* x, Int m, Int k, double* y) noexcept {
    return {Form::Vector, site, m, k, 1, {&OnlyNames, m, k, val, col_ind, row_ptr}, {}, array("x", x, k), array("y", y, m, true)};
}

inline Call describe(const Site& site, double* val, Int* col_ind, Int* row_ptr, double* b, Int ldb, Int m, Int k, Int n,
                     double* c, Int ldc) noexcept {
    const bool transposed = (site.entry.properties & Transposed) != 0;
    return {Form::Matrix, site, m, k, n, {&OnlyNames, m, k, val, col_ind, row_ptr}, {},
            {"b", b, transposed ? m : k, n, ldb, false}, {"c", c, transposed ? k : m, n, ldc, true}};
}

inline Call describe(const Site& site, double* val, Int* col_ind, Int* row_ptr, double* b, Int m, Int k, Int n, double* c) noexcept {
    return describe(site, val, col_ind, row_ptr, b, k, m, k, n, c, m);
}

inline Call describe(const Site& site, Int m, Int k, Int n, double* a_val, Int* a_col_ind, Int* a_row_ptr,
                     double* b_val, Int* b_col_ind, Int* b_row_ptr, double* c) noexcept {
    return {Form::SparseDense, site, m, k, n, {&ANames, m, k, a_val, a_col_ind, a_row_ptr},
            {&BNames, n, k, b_val, b_col_ind, b_row_ptr}, {}, {"c", c, m, n, m, true}};
}

inline Call describe(const Site& site, Int stage, Int m, Int k, Int n, double* a_val, Int* a_col_ind, Int* a_row_ptr,
                     double* b_val, Int* b_col_ind, Int* b_row_ptr, Int /*ignored_count*/,
                     double* c_val, Int* c_col_ind, Int* c_row_ptr, Int* /*ignored_result*/) noexcept {
    return {Form::SparseCsr, site, m, k, n, {&ANames, m, k, a_val, a_col_ind, a_row_ptr},
            {&BNames, n, k, b_val, b_col_ind, b_row_ptr}, {}, {"C", nullptr, m, n, m, true},
            {&CNames, m, n, c_val, c_col_ind, c_row_ptr}, stage};
}

inline Call describe(const Site& site, int threads) noexcept {
    Call call{Form::ThreadCount, site};
    call.threads = threads;
    return call;
}

// clang-format on

} // namespace csr_products::check
