#include "console.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "files.hpp"

namespace tool {
namespace {

bool quiet = false;

}  // namespace

void open_standard_streams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            const int useless_direction = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
            static_cast<void>(open("/dev/null", useless_direction));  // takes the lowest free one
        }
    }
}

void be_quiet()
{
    quiet = true;
}

void print(std::string_view text)
{
    write_all(STDOUT_FILENO, text.data(), text.size(), "standard output");
}

void say(std::string_view text)
{
    if (!quiet) {
        print(text);
    }
}

void print_error(std::string_view text) noexcept
{
    while (!text.empty()) {
        const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
        if (written < 0 && errno == EAGAIN) {
            pollfd waiting{STDERR_FILENO, POLLOUT, 0};
            static_cast<void>(poll(&waiting, 1, -1));
        } else if (written < 0 && errno != EINTR) {
            return;
        }
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
    }
}

progress_bar::progress_bar(uint64_t total, bool wanted)
    : m_total(total),
      m_wanted(wanted && !quiet && isatty(STDERR_FILENO) == 1),
      m_next(std::chrono::steady_clock::now() + std::chrono::seconds(1))
{}

progress_bar::~progress_bar()
{
    if (m_shown) {
        print_error("\r\033[K");
    }
}

void progress_bar::update(uint64_t done)
{
    constexpr size_t width = 40;
    const auto now = std::chrono::steady_clock::now();
    if (!m_wanted || now < m_next) {
        return;
    }
    m_next = now + std::chrono::milliseconds(100);
    m_shown = true;
    // A file can grow while it is read.
    const double part =
        done < m_total ? static_cast<double>(done) / static_cast<double>(m_total) : 1.0;
    std::string bar(width, ' ');
    std::fill_n(bar.begin(), static_cast<size_t>(part * width), '#');
    print_error("\r[" + bar + "] " + std::to_string(static_cast<int>(part * 100)) + "%, " +
                std::to_string(done >> 20) + " of " + std::to_string(m_total >> 20) + " MiB");
}

}  // namespace tool
