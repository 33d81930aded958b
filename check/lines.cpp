#include "lines.h"

#include "lock.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace csr_products::check {
namespace {

// A descriptor, and the file that it had at the start. The host may have closed it since, and may have another file
// under its number.
struct Target {
    int number;
    struct stat file;
};

constexpr int far_away = 200;

Target targets[] = {{-1, {}}, {STDERR_FILENO, {}}};

bool write_to(const Target& target, std::string_view text) noexcept {
    struct stat file {};
    return fstat(target.number, &file) == 0 && file.st_dev == target.file.st_dev && file.st_ino == target.file.st_ino &&
           write(target.number, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

} // namespace

// A host may close its standard error, and a file of its own then gets the number: lines go to a copy with a number
// far away. Programs that this one starts do not get the copy.
void open_output() noexcept {
    const char* const file = std::getenv("CSR_PRODUCTS_CHECK_OUTPUT");
    const int given = file == nullptr ? STDERR_FILENO : open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    const int number = fcntl(given, F_DUPFD_CLOEXEC, far_away);
    targets[0].number = number != -1 ? number : fcntl(given, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); // not so many
    if (file != nullptr) {
        close(given);
    }
    for (Target& target : targets) {
        fstat(target.number, &target.file);
    }
}

void write_text(std::string_view line) noexcept {
    const Text<900> text("csr_products[{}]: {}\n", getpid(), line);
    const NoCancellation guard;
    sigset_t ours; // a reader that has gone, and a file that may not grow, are not the host's fault
    sigset_t before;
    sigset_t pending;
    sigemptyset(&ours);
    sigaddset(&ours, SIGPIPE);
    sigaddset(&ours, SIGXFSZ);
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &ours, &before);
    (void)std::any_of(targets, std::end(targets), [&](const Target& target) { return write_to(target, text.view()); });
    if (const timespec no_time{}; sigismember(&pending, SIGPIPE) + sigismember(&pending, SIGXFSZ) == 0) {
        sigtimedwait(&ours, nullptr, &no_time);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace csr_products::check
