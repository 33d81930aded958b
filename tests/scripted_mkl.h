#pragma once

#include <mkl_spblas.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

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

// Stands in for MKL: records each call with its arguments, and answers as a test has scripted.
struct ScriptedMkl {
    struct Wrap {
        sparse_status_t status;
        sparse_matrix_t handle; // null: the variable is left alone
    };
    struct Export {
        std::optional<MKL_INT> rows; // none: the export writes nothing
        const void* rows_start = nullptr;
        const void* col_indx = nullptr;
        const void* values = nullptr;
    };

    std::deque<Wrap> wraps;
    sparse_status_t product_status = SPARSE_STATUS_SUCCESS;
    sparse_matrix_t product_handle = nullptr; // put into the slot of sp2m unless null
    Export result;
    using Hook = std::function<void()>;
    Hook on_product, on_destroy; // run within the call, at its end

    std::vector<std::string> calls;
    std::vector<const void*> freed; // by mkl_serv_free, past the library's wrapper
};

extern ScriptedMkl mkl;

extern "C" void mkl_serv_free(void* block);
