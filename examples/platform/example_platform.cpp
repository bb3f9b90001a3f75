/*
 * A very small platform for the memory regions: the services of the runtime, and a device layer
 * whose devices access the memory of this process and share it within the process.
 *
 * Start your own platform from it. Keep the functions of platform/include, and do what their
 * comments promise; you decide how a device keeps its registrations. The program shows a region
 * that is registered with one device and read through another, and then runs the conformance checks
 * on the device layer.
 */
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "priv_rova_exception_converter.h"
#include "priv_rova_log.h"
#include "priv_rova_page_size.h"
#include "priv_rova_sub_dev_apx.h"
#include "priv_rova_sub_dev_gpu.h"
#include "priv_rova_umem_api.h"
#include "rova_conformance.hpp"
#include "rova_dev.hpp"
#include "rova_exception.hpp"

/* ---- Runtime services ----------------------------------------------------------------------- */

namespace {

// The component registers its log source while it is loaded, before the constructors of this
// program run. So these variables need none.
constexpr int source_of_headers = 1;
constexpr size_t max_sources = 16;
std::array<std::array<char, 64>, max_sources> source_names = {{{"-"}, {"HEADERS"}}};
std::atomic<int> next_source{2};
std::atomic<uint32_t> log_threshold{ROVA_LOG_LEVEL_WARNING};

const std::array<const char*, 32> error_names = {
    "ROVA_SUCCESS",
    "ROVA_ERROR_UNKNOWN",
    "ROVA_ERROR_NOT_PERMITTED",
    "ROVA_ERROR_IN_USE",
    "ROVA_ERROR_NOT_SUPPORTED",
    "ROVA_ERROR_AGAIN",
    "ROVA_ERROR_INVALID_VALUE",
    "ROVA_ERROR_NO_MEMORY",
    "ROVA_ERROR_INITIALIZATION",
    "ROVA_ERROR_TIME_OUT",
    "ROVA_ERROR_SHUTDOWN",
    "ROVA_ERROR_CONNECTION_RESET",
    "ROVA_ERROR_CONNECTION_ABORTED",
    "ROVA_ERROR_CONNECTION_INPROGRESS",
    "ROVA_ERROR_NOT_CONNECTED",
    "ROVA_ERROR_NO_LOCK",
    "ROVA_ERROR_NOT_FOUND",
    "ROVA_ERROR_IO_FAILED",
    "ROVA_ERROR_BAD_STATE",
    "ROVA_ERROR_UNSUPPORTED_VERSION",
    "ROVA_ERROR_OPERATING_SYSTEM",
    "ROVA_ERROR_DRIVER",
    "ROVA_ERROR_UNEXPECTED",
    "ROVA_ERROR_ALREADY_EXIST",
    "ROVA_ERROR_FULL",
    "ROVA_ERROR_EMPTY",
    "ROVA_ERROR_IN_PROGRESS",
    "ROVA_ERROR_TOO_BIG",
    "ROVA_ERROR_AUTHENTICATION",
    "ROVA_ERROR_BAD_CONFIG",
    "ROVA_ERROR_SKIPPED",
    "ROVA_ERROR_DEVICE_FATAL_ERROR",
};

const char* source_name(int source)
{
    const auto index = static_cast<size_t>(source);
    return source_names[index < max_sources ? index : 0].data();
}

}  // namespace

const char* rova_error_get_name(rova_error_t error)
{
    const auto index = static_cast<size_t>(error);
    return index < error_names.size() ? error_names[index] : "unknown error code";
}

rova_error_t rova_log_register_source(const char* source_name, int* source)
{
    if (source_name == nullptr || source == nullptr) {
        return ROVA_ERROR_INVALID_VALUE;
    }
    int number = next_source.load();
    do {
        if (number == static_cast<int>(max_sources)) {
            return ROVA_ERROR_FULL;
        }
    } while (!next_source.compare_exchange_weak(number, number + 1));
    auto& name = source_names[static_cast<size_t>(number)];
    std::strncpy(name.data(), source_name, name.size() - 1);
    *source = number;
    return ROVA_SUCCESS;
}

rova_error_t priv_rova_log_developer(uint32_t level, int source, const char* file, int line,
                                     const char* function, const char* format, ...)
{
    if (level > log_threshold) {
        return ROVA_SUCCESS;
    }
    // Records of several threads must not mix.
    ::flockfile(stderr);
    std::fprintf(stderr, "%u %s %s:%d %s: ", level, source_name(source), file, line, function);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
    ::funlockfile(stderr);
    return ROVA_SUCCESS;
}

int priv_rova_log_get_header_source(void)
{
    return source_of_headers;
}

rova_error_t priv_rova_exception_to_rova_error_imp(const char* file, int line, const char* function,
                                                   const char* message, bool /*flag*/)
{
    rova_error_t code = ROVA_ERROR_UNEXPECTED;
    const auto log = [&](const char* what) {
        priv_rova_log_developer(ROVA_LOG_LEVEL_ERROR, source_of_headers, file, line, function,
                                "%s: %s (%s)", message, what, rova_error_get_name(code));
    };
    if (std::current_exception() == nullptr) {
        log("there is no exception");
        return code;
    }
    try {
        throw;
    } catch (const rova::exception& e) {
        code = e.error_code();
        log(e.message());
    } catch (const std::bad_alloc&) {
        code = ROVA_ERROR_NO_MEMORY;
        log("memory has run out");
    } catch (const std::exception& e) {
        log(e.what());
    } catch (...) {
        log("something was thrown that is not a std::exception");
    }
    return code;
}

size_t priv_rova_get_page_size(void)
{
    return static_cast<size_t>(::sysconf(_SC_PAGESIZE));
}

// There is neither a GPU layer nor an accelerator layer.
const priv_rova_sub_dev_gpu_ops* priv_rova_sub_dev_gpu_ops_get(void)
{
    return nullptr;
}

const priv_rova_sub_dev_apx_ops* priv_rova_sub_dev_apx_ops_get(void)
{
    return nullptr;
}

/* ---- Device layer --------------------------------------------------------------------------- */

namespace {

enum access : uint32_t { access_read = 1, access_write = 2 };

/** The block of an export: random, so that nobody can guess it. */
using export_key = std::array<uint8_t, 16>;

/** Registered memory. It belongs to the registration that made it; imports only refer to it. */
struct region {
    region(void* at, size_t bytes, uint32_t flags)
        : address(static_cast<uint8_t*>(at)), size(bytes), access_flags(flags)
    {}
    ~region();
    region(const region&) = delete;
    region& operator=(const region&) = delete;

    uint8_t* const address;
    const size_t size;
    const uint32_t access_flags;
    export_key key = {};
};

// One lock for all devices protects the variables below and the end of every region: simple, not
// fast.
std::mutex device_layer_lock;
std::map<export_key, std::weak_ptr<region>> exports;

region::~region()
{
    exports.erase(key);
}

[[noreturn]] void refuse(rova_error_t code, const char* why, rova::exception::source_loc where)
{
    throw rova::exception(code, why, where);
}

}  // namespace

/** One registration. */
struct tlox_umem {
    std::shared_ptr<region> own; /**< null when imported */
    std::weak_ptr<region> memory;
    bool released = false;
};

namespace {

/** The registrations of one device. Handles are looked up, never followed. */
class registrations final : public device_abstraction::itlox_adapter {
public:
    std::pair<tlox_umem*, uint32_t> register_umem(void* address, size_t size, uint32_t access_flags,
                                                  size_t page_size) override
    {
        if (size == 0 || reinterpret_cast<uintptr_t>(address) > UINTPTR_MAX - size) {
            refuse(ROVA_ERROR_INVALID_VALUE, "the range is empty or wraps round", ROVA_HERE);
        }
        if ((access_flags & ~(access_read | access_write)) != 0) {
            refuse(ROVA_ERROR_INVALID_VALUE, "unknown access flags", ROVA_HERE);
        }
        if (page_size == 0 || (page_size & (page_size - 1)) != 0) {
            refuse(ROVA_ERROR_INVALID_VALUE, "the page size is not a power of two", ROVA_HERE);
        }
        const std::lock_guard<std::mutex> lock(device_layer_lock);
        auto own = std::make_shared<region>(address, size, access_flags);
        return add({own, own});
    }

    std::pair<tlox_umem*, uint32_t> register_umem_dmabuf(int, void*, size_t, size_t, uint32_t,
                                                         size_t) override
    {
        refuse(ROVA_ERROR_NOT_SUPPORTED, "this device does not know dma-bufs", ROVA_HERE);
    }

    rova_error_t deregister_umem(tlox_umem* umem) noexcept override
    {
        const std::lock_guard<std::mutex> lock(device_layer_lock);
        const auto found = find(umem);
        if (found == m_umems.end()) {
            return ROVA_ERROR_NOT_FOUND;
        }
        m_umems.erase(found);
        return ROVA_SUCCESS;
    }

    std::vector<uint8_t> export_umem(tlox_umem* umem) override
    {
        const std::lock_guard<std::mutex> lock(device_layer_lock);
        const auto memory = find_or_refuse(umem)->second->memory.lock();
        if (memory == nullptr) {
            refuse(ROVA_ERROR_NOT_FOUND, "the exporter has ended the registration", ROVA_HERE);
        }
        if (memory->key == export_key{}) {
            const export_key key = random_key();
            exports[key] = memory;
            memory->key = key;
        }
        return {memory->key.begin(), memory->key.end()};
    }

    std::pair<tlox_umem*, uint32_t> import_umem(const uint8_t* block, size_t block_length) override
    {
        export_key key = {};
        if (block_length != key.size()) {
            refuse(ROVA_ERROR_INVALID_VALUE, "the block has the wrong size", ROVA_HERE);
        }
        std::copy_n(block, key.size(), key.begin());
        const std::lock_guard<std::mutex> lock(device_layer_lock);
        const auto found = exports.find(key);
        if (found == exports.end()) {
            refuse(ROVA_ERROR_NOT_FOUND, "no live registration has this block", ROVA_HERE);
        }
        return add({nullptr, found->second});
    }

    void release_umem(tlox_umem* umem) override
    {
        const std::lock_guard<std::mutex> lock(device_layer_lock);
        find_or_refuse(umem)->second->released = true;
    }

    /** Moves bytes between a registration and `data`, as the device would. */
    rova_error_t transfer(access way, uint32_t id, uint64_t offset, void* data, size_t size)
    {
        const std::lock_guard<std::mutex> lock(device_layer_lock);
        const auto found = m_umems.find(id);
        const auto memory = found != m_umems.end() ? found->second->memory.lock() : nullptr;
        if (memory == nullptr) {
            return ROVA_ERROR_NOT_FOUND;
        }
        if (offset > memory->size || size > memory->size - offset) {
            return ROVA_ERROR_INVALID_VALUE;
        }
        if ((memory->access_flags & way) == 0) {
            return ROVA_ERROR_NOT_PERMITTED;
        }
        uint8_t* const there = memory->address + offset;
        std::memcpy(way == access_read ? data : there, way == access_read ? there : data, size);
        return ROVA_SUCCESS;
    }

    /** Ends the released registrations; there may be no others. */
    rova_error_t close()
    {
        const std::lock_guard<std::mutex> lock(device_layer_lock);
        if (!std::all_of(m_umems.begin(), m_umems.end(),
                         [](const auto& each) { return each.second->released; }))
        {
            return ROVA_ERROR_IN_USE;
        }
        m_umems.clear();
        return ROVA_SUCCESS;
    }

private:
    using table = std::map<uint32_t, std::unique_ptr<tlox_umem>>;

    static export_key random_key()
    {
        export_key key = {};
        if (::getrandom(key.data(), key.size(), 0) != static_cast<ssize_t>(key.size())) {
            refuse(ROVA_ERROR_OPERATING_SYSTEM, "there are no random numbers", ROVA_HERE);
        }
        return key;
    }

    std::pair<tlox_umem*, uint32_t> add(tlox_umem umem)
    {
        // Ids count up, wrap around at the end, and skip 0 and those that are still in use.
        do {
            ++m_last_id;
        } while (m_last_id == 0 || m_umems.count(m_last_id) != 0);
        const auto added =
            m_umems.emplace(m_last_id, std::make_unique<tlox_umem>(std::move(umem))).first;
        return {added->second.get(), added->first};
    }

    table::iterator find(const tlox_umem* umem)
    {
        return std::find_if(m_umems.begin(), m_umems.end(), [=](const auto& each) {
            return each.second.get() == umem && !each.second->released;
        });
    }

    table::iterator find_or_refuse(const tlox_umem* umem)
    {
        const auto found = find(umem);
        if (found == m_umems.end()) {
            refuse(ROVA_ERROR_NOT_FOUND, "the device has no such registration", ROVA_HERE);
        }
        return found;
    }

    table m_umems;
    uint32_t m_last_id = 0;
};

/** What is behind every rova_dev of this platform. */
class device_adapter final : public device_abstraction::idevice_adapter {
public:
    std::shared_ptr<device_abstraction::itlox_adapter> get_tlox_adapter() noexcept override
    {
        return m_registrations;
    }

    registrations& own() const { return *m_registrations; }

private:
    std::shared_ptr<registrations> m_registrations = std::make_shared<registrations>();
};

registrations& registrations_of(rova_dev* dev)
{
    return static_cast<device_adapter&>(*dev->device_adapter).own();
}

rova_dev* open_device()
{
    return std::make_unique<rova_dev>(rova_dev{std::make_shared<device_adapter>()}).release();
}

rova_error_t close_device(rova_dev* dev)
{
    const rova_error_t code = registrations_of(dev).close();
    if (code == ROVA_SUCCESS) {
        const std::unique_ptr<rova_dev> ended(dev);
    }
    return code;
}

rova_error_t read_device(rova_dev* dev, uint32_t id, uint64_t offset, void* data, size_t size)
{
    return registrations_of(dev).transfer(access_read, id, offset, data, size);
}

rova_error_t write_device(rova_dev* dev, uint32_t id, uint64_t offset, const void* data,
                          size_t size)
{
    return registrations_of(dev).transfer(access_write, id, offset, const_cast<void*>(data), size);
}

/* ---- The program ---------------------------------------------------------------------------- */

// The log already says what went wrong, so the program only stops.
void must(rova_error_t code)
{
    if (code != ROVA_SUCCESS) {
        std::cerr << "stopped by " << rova_error_get_name(code) << '\n';
        std::exit(EXIT_FAILURE);
    }
}

/** Registers memory with one device, and reads it through another. */
void share_memory()
{
    char memory[] = "Hello, device!";
    rova_dev* const exporter = open_device();
    rova_dev* const importer = open_device();

    priv_rova_umem* exported = nullptr;
    must(priv_rova_umem_create(exporter, memory, sizeof(memory), access_read, &exported));
    void* descriptor = nullptr;
    size_t length = 0;
    must(priv_rova_umem_export(exported, &descriptor, &length));

    priv_rova_umem* imported = nullptr;
    must(priv_rova_umem_create_from_export(importer, descriptor, length, memory, &imported));
    uint32_t id = 0;
    must(priv_rova_umem_id_get(imported, &id));
    char seen[sizeof(memory)] = {};
    must(read_device(importer, id, 0, seen, sizeof(seen)));
    std::cout << "the importing device reads \"" << seen << "\"\n";

    must(priv_rova_umem_destroy(imported));
    must(priv_rova_umem_destroy(exported));
    must(close_device(importer));
    must(close_device(exporter));
}

/** Returns how many checks of the device layer failed. */
size_t check_device_layer()
{
    // Many checks provoke refusals, and every refusal would be logged.
    log_threshold = ROVA_LOG_LEVEL_DISABLE;
    rova::conformance::device_layer layer;
    layer.open = open_device;
    layer.close = close_device;
    layer.access_flags = access_read | access_write;
    layer.read_only_flags = access_read;
    layer.write_only_flags = access_write;
    layer.read = read_device;
    layer.write = write_device;
    return rova::conformance::report(rova::conformance::run(layer), std::cout);
}

}  // namespace

int main()
{
    share_memory();
    return check_device_layer() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
