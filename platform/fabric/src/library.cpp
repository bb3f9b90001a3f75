#include "library.hpp"

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "failure.hpp"

namespace fabric {
namespace {

/**
 * Adds a variable to the environment. Without it, a library that libfabric uses would install
 * handlers of its own for SIGSEGV and other signals when it is loaded.
 *
 * The whole environment is replaced, because setenv may move the table while another thread
 * searches it. What that thread sees stays valid: the replacement is never freed.
 */
class extended_environment {
public:
    extended_environment() : m_before(::environ)
    {
        static char variable[] = "IPATH_NO_BACKTRACE=1";
        static std::vector<char*>* const table = std::make_unique<std::vector<char*>>().release();
        table->assign(1, variable);
        for (char** entry = m_before; entry != nullptr && *entry != nullptr; ++entry) {
            table->push_back(*entry);
        }
        table->push_back(nullptr);
        m_during = table->data();
        ::environ = m_during;
    }
    ~extended_environment()
    {
        if (::environ == m_during) {
            ::environ = m_before;
        } else {
            ::unsetenv("IPATH_NO_BACKTRACE");
        }
    }
    extended_environment(const extended_environment&) = delete;
    extended_environment& operator=(const extended_environment&) = delete;

private:
    char** m_before;
    char** m_during = nullptr;
};

void* load()
{
    const extended_environment environment;
    void* const handle = ::dlopen("libfabric.so.1", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle == nullptr) {
        platform::fail(ROVA_ERROR_INITIALIZATION, ROVA_HERE,
                       "libfabric cannot be loaded; is it installed? %s", ::dlerror());
    }
    return handle;
}

template <typename function_t>
void find(void* handle, const char* name, function_t& function)
{
    void* const found = ::dlsym(handle, name);
    if (found == nullptr) {
        platform::fail(ROVA_ERROR_INITIALIZATION, ROVA_HERE, "libfabric has no function %s", name);
    }
    function = reinterpret_cast<function_t>(found);
}

/** Held while no other thread may fork. Recursive, as a library may fork while it is loaded. */
std::recursive_mutex fork_mutex;

void lock_before_fork()
{
    fork_mutex.lock();
}

void unlock_in_parent()
{
    fork_mutex.unlock();
}

/** The mutex belongs to the parent's thread, so the child cannot unlock it. */
void renew_in_child()
{
    new (&fork_mutex) std::recursive_mutex;
}

/** Set when this library is loaded, before a thread can call it. If that fails, no fork waits. */
[[maybe_unused]] const int prepared =
    ::pthread_atfork(lock_before_fork, unlock_in_parent, renew_in_child);

library load_functions()
{
    void* const handle = load();
    library functions = {};
    find(handle, "fi_getinfo", functions.get_info);
    find(handle, "fi_freeinfo", functions.free_info);
    find(handle, "fi_dupinfo", functions.duplicate_info);
    find(handle, "fi_fabric", functions.open_fabric);
    find(handle, "fi_strerror", functions.describe_error);
    return functions;
}

}  // namespace

fork_delay::fork_delay()
{
    fork_mutex.lock();
}

fork_delay::~fork_delay()
{
    fork_mutex.unlock();
}

const library& loaded_library()
{
    const fork_delay delay;
    static const library functions = load_functions();
    return functions;
}

}  // namespace fabric
