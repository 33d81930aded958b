// The complaints, by their place and their text without its numbers.

#include "report.h"

#include "lock.h"
#include "place.h"

#include <cstdlib>
#include <ctime>

namespace csr_products::check {
namespace {

struct Written {
    std::uint64_t key;
    std::uint64_t count;
    Text<500> line; // without letters until it is there
};

Written written[512];
std::size_t distinct = 0;
const bool stops = std::getenv("CSR_PRODUCTS_CHECK_STOP") != nullptr;

std::uint64_t key_of(const Call& call, const Complaint& complaint) noexcept {
    std::uint64_t key = hash_of_module(call.caller) ^ reinterpret_cast<std::uintptr_t>(call.caller);
    for (const std::string_view part : {call.entry->name(), complaint.text.view()}) {
        for (const char letter : part) {
            key = letter >= '0' && letter <= '9' ? key : (key ^ static_cast<unsigned char>(letter)) * 0x100000001B3;
        }
    }
    return key;
}

// Counts the complaint. Returns its record if it is a new one, and null where the table is full.
Written* enter(const Call& call, const Complaint& complaint) noexcept {
    const std::uint64_t key = key_of(call, complaint);
    const Lock lock;
    ++(complaint.is_error ? errors : notes);
    Written* const end = written + distinct;
    Written* const found = std::find_if(written, end, [&](const Written& other) { return other.key == key; });
    if (found == std::end(written)) {
        return nullptr;
    }
    distinct += found == end ? 1 : 0;
    found->key = key;
    return ++found->count == 1 ? found : nullptr;
}

} // namespace

std::uint64_t errors = 0;
std::uint64_t notes = 0;
const bool traces = std::getenv("CSR_PRODUCTS_CHECK_TRACE") != nullptr;

bool report(const Call& call, const Findings& found) noexcept {
    static pthread_mutex_t last = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    const timespec soon{std::time(nullptr) + 2, 0};
    const bool ends = stops && found.has_errors;
    if (ends) { // one thread ends the process, after its lines, unless the host handles the signal and goes on
        pthread_mutex_timedlock(&last, &soon);
    }
    for (const Complaint* complaint = found.complaints; complaint < found.complaints + found.count; ++complaint) {
        Written* const entered = enter(call, *complaint);
        if (entered == nullptr && !traces) {
            continue;
        }
        const Text<500> line("{}: {}: {}, called from {}", complaint->is_error ? "error" : "note", call.entry->name(),
                             complaint->text.view(), place_of(call.caller).view());
        if (entered != nullptr) {
            const Lock lock;
            entered->line = line;
        }
        write_text(line.view());
    }
    return ends;
}

void write_repeated() noexcept {
    for (const Written* complaint = written; complaint < written + distinct; ++complaint) {
        if (complaint->count > 1 && !complaint->line.view().empty()) { // a signal may have interrupted the first
            write_line("{} times: {}", complaint->count, complaint->line.view());
        }
    }
}

void forget_complaints() noexcept {
    std::fill_n(written, distinct, Written{});
    distinct = errors = notes = 0;
}

} // namespace csr_products::check
