#include <future>
#include <mutex>
#include <set>

#include "priv_rova_umem_api.h"
#include "rova_umem.h"
#include "subject.hpp"

namespace rova::conformance {

namespace {

void succeeds(const char* what, rova_error_t code)
{
    require(code == ROVA_SUCCESS, what, " gave ", rova_error_get_name(code));
}

priv_rova_umem* create(const device_layer& layer, const device& dev, const fenced_memory& memory)
{
    priv_rova_umem* region = nullptr;
    succeeds("priv_rova_umem_create", priv_rova_umem_create(dev.get(), memory.data(), memory.size(),
                                                            layer.access_flags, &region));
    return region;
}

bytes descriptor_of(priv_rova_umem* region)
{
    void* begin = nullptr;
    size_t length = 0;
    succeeds("priv_rova_umem_export", priv_rova_umem_export(region, &begin, &length));
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
    succeeds("priv_rova_umem_create_from_export",
             priv_rova_umem_create_from_export(importer.get(), descriptor.data(), descriptor.size(),
                                               memory.data(), &imported));
    uint32_t size = 0;
    succeeds("priv_rova_umem_size_get", priv_rova_umem_size_get(imported, &size));
    require(size == memory.size(), "the imported region has ", size, " bytes");
    descriptor_of(imported);

    succeeds("priv_rova_umem_destroy of the import", priv_rova_umem_destroy(imported));
    succeeds("priv_rova_umem_destroy", priv_rova_umem_destroy(region));
    succeeds("priv_rova_umem_release", priv_rova_umem_release(create(layer, exporter, memory)));

    rova_umem* handle = nullptr;
    succeeds("rova_umem_create", rova_umem_create(exporter.get(), memory.data(), memory.size(),
                                                  layer.access_flags, &handle));
    succeeds("rova_umem_destroy", rova_umem_destroy(handle));
    importer.close();
    exporter.close();
    return words("created, exported, imported, destroyed and released; a descriptor has ",
                 descriptor.size(), " bytes");
}

std::string codes_of_refusals_arrive(const device_layer& layer)
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
            ", and the caller got ", rova_error_get_name(code));
    dev.close();
    return words("the caller got ", rova_error_get_name(code));
}

/** The ids that live on one device, as all threads see them. */
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

std::string threads_do_not_meet(const device_layer& layer)
{
    constexpr size_t threads = 8;
    constexpr size_t rounds = 64;
    device exporter(layer);
    device importer(layer);
    live_ids exported;
    live_ids imported;
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
    importer.close();
    exporter.close();
    return words(threads, " threads, ", rounds, " registrations and imports each");
}

}  // namespace

std::vector<check> component_checks()
{
    return {
        {"regions_live_their_lives",
         "Regions of the component are created, exported, imported, destroyed and released.", false,
         regions_live_their_lives},
        {"codes_of_refusals_arrive",
         "The code with which the device layer refuses is the one that the caller gets.", false,
         codes_of_refusals_arrive},
        {"threads_do_not_meet",
         "Threads that work on registrations of their own do not disturb each other.", false,
         threads_do_not_meet},
    };
}

}  // namespace rova::conformance
