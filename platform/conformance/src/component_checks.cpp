// Checks of resources, of threads, and of the component's regions on this layer.

#include <filesystem>
#include <future>
#include <iterator>
#include <mutex>
#include <set>

#include "dmabuf.hpp"
#include "priv_rova_umem_api.h"
#include "rova_umem.h"
#include "subject.hpp"

namespace rova::conformance {

namespace {

void require_success(const char* what, rova_error_t code)
{
    require(code == ROVA_SUCCESS, what, " gave ", name_of(code));
}

priv_rova_umem* create(const device_layer& layer, const device& dev, const fenced_memory& memory)
{
    priv_rova_umem* region = nullptr;
    require_success("priv_rova_umem_create",
                    priv_rova_umem_create(dev.get(), memory.data(), memory.size(),
                                          layer.access_flags, &region));
    return region;
}

bytes descriptor_of(priv_rova_umem* region)
{
    void* begin = nullptr;
    size_t length = 0;
    require_success("priv_rova_umem_export", priv_rova_umem_export(region, &begin, &length));
    const auto* const first = static_cast<const uint8_t*>(begin);
    return {first, first + length};
}

std::string regions_live_their_lives(const device_layer& layer)
{
    device exporter(layer);
    device importer(layer);
    const fenced_memory memory(page_size());
    priv_rova_umem* const region = create(layer, exporter, memory);
    const bytes descriptor = descriptor_of(region);

    priv_rova_umem* imported = nullptr;
    require_success("priv_rova_umem_create_from_export",
                    priv_rova_umem_create_from_export(importer.get(), descriptor.data(),
                                                      descriptor.size(), memory.data(), &imported));
    uint32_t size = 0;
    require_success("priv_rova_umem_size_get", priv_rova_umem_size_get(imported, &size));
    require(size == memory.size(), "the imported region has ", size, " bytes");
    descriptor_of(imported);

    require_success("priv_rova_umem_destroy of the import", priv_rova_umem_destroy(imported));
    require_success("priv_rova_umem_destroy", priv_rova_umem_destroy(region));
    require_success("priv_rova_umem_release",
                    priv_rova_umem_release(create(layer, exporter, memory)));

    rova_umem* handle = nullptr;
    require_success("rova_umem_create",
                    rova_umem_create(exporter.get(), memory.data(), memory.size(),
                                     layer.access_flags, &handle));
    require_success("rova_umem_destroy", rova_umem_destroy(handle));
    importer.close();
    exporter.close();
    return concat("created, exported, imported, destroyed and released; a descriptor has ",
                  descriptor.size(), " bytes");
}

std::string refusal_codes_reach_the_caller(const device_layer& layer)
{
    device dev(layer);
    const size_t page = page_size();
    auto* const last_page = reinterpret_cast<void*>(UINTPTR_MAX - page + 1);
    const attempt direct = try_to([&] {
        return dev.adapter()->register_umem(last_page, 2 * page, layer.access_flags, page);
    });
    require(!direct.made, "a range that wraps round the address space was registered");

    priv_rova_umem* region = nullptr;
    const rova_error_t code = priv_rova_umem_create_pg_sz(dev.get(), last_page, 2 * page, page,
                                                          layer.access_flags, &region);
    require(code != ROVA_SUCCESS && region == nullptr, "a refused registration made a region");
    require(!direct.code || code == *direct.code, "the device layer refused with ", direct.refusal,
            ", and the caller got ", name_of(code));
    dev.close();
    return concat("the caller got ", name_of(code));
}

/** The ids in use on one device, shared by all threads. */
class live_ids {
public:
    void add(uint32_t id)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        require(m_ids.insert(id).second, "two threads have a live registration with the id ", id);
    }
    void remove(uint32_t id)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ids.erase(id);
    }

private:
    std::mutex m_mutex;
    std::set<uint32_t> m_ids;
};

std::string threads_do_not_interfere(const device_layer& layer)
{
    constexpr size_t threads = 8;
    constexpr size_t rounds = 64;
    device exporter(layer);
    device importer(layer);
    live_ids exported;
    live_ids imported;
    // Is there all the time, so that a layer that gives an id twice is caught even if no two of the
    // other threads ever run at once.
    const fenced_memory lasting_memory(page_size());
    const registration lasting = exporter.add(lasting_memory);
    exported.add(lasting.second);
    const registration lasting_import = importer.import_block(exporter.export_block(lasting));
    imported.add(lasting_import.second);
    const auto work = [&] {
        const fenced_memory memory(page_size());
        for (size_t round = 0; round < rounds; ++round) {
            const registration made = exporter.add(memory);
            exported.add(made.second);
            const registration other = importer.import_block(exporter.export_block(made));
            imported.add(other.second);
            imported.remove(other.second);
            importer.end(other);
            exported.remove(made.second);
            exporter.end(made);
        }
    };
    {
        std::vector<std::future<void>> running;
        for (size_t i = 0; i < threads; ++i) {
            running.push_back(std::async(std::launch::async, work));
        }
        for (auto& each : running) {
            each.get();
        }
    }
    importer.end(lasting_import);
    exporter.end(lasting);
    importer.close();
    exporter.close();
    return concat(threads, " threads, ", rounds, " registrations and imports each");
}

std::string adapter_is_given_back(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const auto held = dev.adapter();
    const long before = held.use_count();

    const registration made = dev.add(memory);
    dev.end(dev.import_block(dev.export_block(made)));
    dev.end(made);
    dev.try_import({});
    dev.require_export_refused(nullptr, "the null handle");
    dev.require_release_refused(nullptr, "the null handle");

    require(held.use_count() == before, "the adapter's use count was ", before, " and is ",
            held.use_count());
    return concat("use count ", before, " before and after");
}

size_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

/** Repeats a call. A layer may keep some descriptors open, but not another one for each call. */
void require_descriptors_given_back(const char* what, const std::function<void()>& call)
{
    constexpr size_t rounds = 64;
    const size_t before = open_descriptors();
    for (size_t round = 0; round < rounds; ++round) {
        call();
    }
    const size_t after = open_descriptors();
    require(after < before + rounds, "after ", what, ' ', rounds, " times, ", after - before,
            " more file descriptors are open");
}

std::string descriptors_are_given_back(const device_layer& layer)
{
    const auto open_and_close = [&] { device(layer).close(); };
    require_descriptors_given_back("opening and closing a device", open_and_close);

    device dev(layer);
    const fenced_memory memory(page_size());
    const auto add = [&] { dev.end(dev.add(memory)); };
    require_descriptors_given_back("registering and deregistering", add);
    const registration made = dev.add(memory);
    const auto import = [&] { dev.end(dev.import_block(dev.export_block(made))); };
    require_descriptors_given_back("exporting, importing and deregistering", import);
    require_descriptors_given_back("refusing a block", [&] { dev.try_import({}); });
    const dmabuf_file file(layer, page_size());
    require_descriptors_given_back("registering and deregistering a dma-buf", [&] {
        const attempt tried = dev.try_add_dmabuf(file.number(), 0, page_size());
        if (tried.made) {
            dev.end(*tried.made);
        }
    });
    dev.end(made);
    dev.close();
    return "no operation left one open";
}

}  // namespace

std::vector<check> component_checks()
{
    return {
        {"adapter_is_given_back",
         "The use count of the adapter is the same after an operation as before it.",
         {"wrong_sizes_are_refused", "release_spends_the_handle"},
         adapter_is_given_back},
        {"descriptors_are_given_back",
         "No operation leaves a file descriptor open.",
         {"wrong_sizes_are_refused", "dmabuf_stays_the_callers"},
         descriptors_are_given_back},
        {"threads_do_not_interfere",
         "Threads that work on registrations of their own do not disturb each other.",
         {"import_makes_a_registration"},
         threads_do_not_interfere},
        {"refusal_codes_reach_the_caller",
         "When the device layer refuses, its code reaches the caller unchanged.",
         {"refusals_are_exceptions", "exceptions_become_their_codes"},
         refusal_codes_reach_the_caller},
        {"regions_live_their_lives",
         "Regions of the component are created, exported, imported, destroyed and released.",
         {"import_makes_a_registration", "release_spends_the_handle"},
         regions_live_their_lives},
    };
}

}  // namespace rova::conformance
