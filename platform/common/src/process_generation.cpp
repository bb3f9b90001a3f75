#include "process_generation.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

namespace platform {
namespace {

/**
 * The number of this process. The kernel wipes it in a child; if it cannot do that, the pointer is
 * null.
 */
std::atomic<uint64_t>* wiped_by_fork() noexcept
{
    const auto size = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    void* const page =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED || ::madvise(page, size, MADV_WIPEONFORK) != 0) {
        return nullptr;
    }
    return static_cast<std::atomic<uint64_t>*>(page);
}

std::atomic<uint64_t>* current() noexcept
{
    static std::atomic<uint64_t>* const page = wiped_by_fork();
    return page;
}

/**
 * Created when the library is loaded, so that no thread can be creating it while another one forks.
 */
[[maybe_unused]] const std::atomic<uint64_t>* const made_early = current();

/** The highest number given so far, in this process and its ancestors. */
std::atomic<uint64_t> last{0};

}  // namespace

uint64_t process_generation() noexcept
{
    std::atomic<uint64_t>* const page = current();
    if (page == nullptr) {
        return static_cast<uint64_t>(::getpid());
    }
    uint64_t generation = page->load(std::memory_order_relaxed);
    if (generation == 0) {
        const uint64_t next = last.fetch_add(1) + 1;
        // Another thread may have set it first; then its number holds.
        generation = page->compare_exchange_strong(generation, next) ? next : generation;
    }
    return generation;
}

}  // namespace platform
