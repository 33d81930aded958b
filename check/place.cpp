#include "place.h"

#include <atomic>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>
#ifdef CSR_PRODUCTS_HAS_BACKTRACE
#include <backtrace.h>
#endif

namespace csr_products::check {
namespace {

// As far as it is known. The texts belong to the debug information, which stays.
struct Found {
    const char* file = nullptr;
    int line = 0;
    const char* function = nullptr;
};

#ifdef CSR_PRODUCTS_HAS_BACKTRACE

int take_line(void* found, std::uintptr_t /*pc*/, const char* file, int line, const char* function) {
    *static_cast<Found*>(found) = {file, line, function};
    return 1; // the innermost function is enough
}

void take_symbol(void* found, std::uintptr_t /*pc*/, const char* name, std::uintptr_t /*value*/,
                 std::uintptr_t /*size*/) {
    static_cast<Found*>(found)->function = name;
}

void ignore_error(void* /*found*/, const char* /*message*/, int /*number*/) {}

// How often modules were loaded and unloaded.
unsigned long long module_changes() noexcept {
    unsigned long long changes = 0;
    const auto take = [](dl_phdr_info* info, std::size_t /*size*/, void* to) {
        *static_cast<unsigned long long*>(to) = info->dlpi_adds + info->dlpi_subs;
        return 1;
    };
    dl_iterate_phdr(take, &changes);
    return changes;
}

// A state knows the modules of the moment when it was made, which takes a tenth of a second. An old one stays: another
// thread may use it.
Found look_up(std::uintptr_t pc) noexcept {
    static std::atomic<unsigned long long> known_changes{0};
    static std::atomic<backtrace_state*> state{nullptr};
    const unsigned long long changes = module_changes();
    if (known_changes.exchange(changes) != changes) {
        state.store(backtrace_create_state(nullptr, 1, ignore_error, nullptr));
    }
    Found found;
    backtrace_state* const known = state.load();
    if (known != nullptr) {
        backtrace_pcinfo(known, pc, take_line, ignore_error, &found);
    }
    if (known != nullptr && found.function == nullptr) {
        backtrace_syminfo(known, pc, take_symbol, ignore_error, &found);
    }
    return found;
}

#else

Found look_up(std::uintptr_t /*pc*/) noexcept {
    return {};
}

#endif

std::string_view base_name(std::string_view path) noexcept {
    return path.substr(path.find_last_of('/') + 1);
}

// Without the parameters of the function, which stand in the last brackets.
std::string_view without_parameters(std::string_view function) noexcept {
    int depth = 0;
    for (std::size_t i = function.find_last_of(')'); i < function.size(); --i) {
        depth += function[i] == ')' ? 1 : function[i] == '(' ? -1 : 0;
        if (depth == 0) {
            return function.substr(0, i);
        }
    }
    return function;
}

} // namespace

Place place_of(const void* return_address) noexcept {
    const auto pc = reinterpret_cast<std::uintptr_t>(return_address) - 1; // within the call
    Found found = look_up(pc);
    Dl_info module{};
    dladdr(return_address, &module);
    Place place;
    if (found.file != nullptr) {
        place.append("{}:{}", base_name(found.file), found.line);
    } else if (module.dli_fname != nullptr) {
        place.append("{}+{:#x}", base_name(module.dli_fname), pc - reinterpret_cast<std::uintptr_t>(module.dli_fbase));
    } else {
        place.append("{:#x}", pc);
    }
    if (const char* const symbol = found.function != nullptr ? found.function : module.dli_sname; symbol != nullptr) {
        constexpr std::size_t most = 200; // the demangler takes 72 bytes of stack for each letter
        const std::string_view mangled(symbol);
        const bool is_cpp = mangled.substr(0, 2) == "_Z" && mangled.size() < most;
        int status = 0;
        char* const name = is_cpp ? abi::__cxa_demangle(symbol, nullptr, nullptr, &status) : nullptr;
        const std::string_view text = name != nullptr ? without_parameters(name) : mangled;
        place.append(" in {:.100}{}", text, text.size() > 100 ? "..." : "");
        std::free(name); // NOLINT(*-no-malloc): the demangler's
    }
    return place;
}

} // namespace csr_products::check
