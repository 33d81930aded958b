#pragma once

#include "entries.h"

#include <mkl_spblas.h>

#include <deque>
#include <optional>
#include <sstream>
#include <string>

// A call as text: its name and its arguments, enumerators by number, presets as type/mode/diag.
template <class... Args>
std::string call_text(const char* name, const Args&... args) {
    std::ostringstream text;
    text << name;
    ((text << ' ' << args), ...);
    return text.str();
}

inline std::ostream& operator<<(std::ostream& out, const matrix_descr& d) {
    return out << int{d.type} << '/' << int{d.mode} << '/' << int{d.diag};
}

inline sparse_matrix_t fake_handle(std::uintptr_t number) {
    return reinterpret_cast<sparse_matrix_t>(number); // NOLINT(*-no-int-to-ptr): never dereferenced
}

inline std::string create_text(Int rows, Int cols, CsrOperand a) {
    return call_text("create", 0, 1, rows, cols, a.row_ptr, a.row_ptr + 1, a.col_ind, a.val);
}

// Stands in for MKL: records each call with its arguments, and answers as a test has scripted.
struct ScriptedMkl {
    struct Wrap {
        sparse_status_t status;
        sparse_matrix_t handle; // null: the variable is left alone
    };
    struct Export {
        std::optional<Int> rows; // none: the export writes nothing
        Int* rows_start = nullptr;
        Int* col_indx = nullptr;
        double* values = nullptr;
    };

    std::deque<Wrap> wraps;
    sparse_status_t product_status = SPARSE_STATUS_SUCCESS;
    sparse_matrix_t product_handle = nullptr; // put into the slot of sp2m unless null
    Export result;
    std::function<void()> on_product = [] {}, on_destroy = [] {}; // run within the call

    std::vector<std::string> calls;
    std::vector<void*> freed; // by mkl_serv_free, past the library's wrapper
};

extern ScriptedMkl mkl;

extern "C" void mkl_serv_free(void* block);
