#include "place.h"

#include "lock.h"

#include <atomic>
#include <cstdlib>
#include <cxxabi.h>
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

void take_symbol(void* found, std::uintptr_t /*pc*/, const char* name, std::uintptr_t /*at*/, std::uintptr_t /*size*/) {
    static_cast<Found*>(found)->function = name;
}

void ignore_error(void* /*found*/, const char* /*message*/, int /*number*/) {}

// A state knows the modules of the moment when it was first used, which takes a tenth of a second and 20 MB that are
// never given back. Each module that calls gets one of its own; when they are gone, there are no more files and lines.
backtrace_state* state_for(std::uint64_t module) noexcept {
    constexpr int most = 16;
    static std::atomic<std::uint64_t> modules[most];
    static std::atomic<backtrace_state*> states[most];
    for (int i = 0; i < most; ++i) {
        std::uint64_t other = 0;
        if (modules[i].compare_exchange_strong(other, module)) {
            states[i] = backtrace_create_state(nullptr, 1, ignore_error, nullptr);
        }
        if (other == 0 || other == module) {
            return states[i];
        }
    }
    return nullptr;
}

#endif

Found look_up([[maybe_unused]] std::uintptr_t pc, [[maybe_unused]] std::uint64_t module) noexcept {
    Found found;
#ifdef CSR_PRODUCTS_HAS_BACKTRACE
    if (backtrace_state* const state = state_for(module); state != nullptr) {
        backtrace_pcinfo(state, pc, take_line, ignore_error, &found);
        if (found.function == nullptr) {
            backtrace_syminfo(state, pc, take_symbol, ignore_error, &found);
        }
    }
#endif
    return found;
}

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

Text<200> place_of(const void* return_address) noexcept {
    const NoCancellation guard;                                           // debug information is read from files
    const auto pc = reinterpret_cast<std::uintptr_t>(return_address) - 1; // within the call
    const Found found = look_up(pc, hash_of_module(return_address));
    Dl_info module{};
    void* map = nullptr;
    dladdr1(return_address, &module, &map, RTLD_DL_LINKMAP);
    Text<200> place;
    if (found.file != nullptr) {
        place.append("{}:{}", base_name(found.file), found.line);
    } else if (map != nullptr) {
        place.append("{}+{:#x}", base_name(module.dli_fname), pc - static_cast<link_map*>(map)->l_addr);
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

std::uint64_t hash_of_module(const void* code) noexcept {
    Dl_info module{};
    const std::string_view file = dladdr(code, &module) != 0 ? module.dli_fname : "";
    return std::hash<std::string_view>()(file) ^ reinterpret_cast<std::uintptr_t>(module.dli_fbase);
}

} // namespace csr_products::check
