#include <memory>
#include <set>

#include "child_process.hpp"
#include "dmabuf.hpp"
#include "subject.hpp"

namespace rova::conformance {

namespace {

constexpr size_t many = 64;

/** A registration that a layer may refuse or, if it is impossible, must refuse. */
struct doubtful {
    const char* label;
    bool has_to_be_refused;
    std::function<registration(itlox_adapter&)> call;
};

std::vector<doubtful> doubtful_registrations(const device_layer& layer, const fenced_memory& memory)
{
    const uint32_t flags = layer.access_flags;
    const size_t page = page_size();
    const auto host = [flags, page](const void* address, size_t size) {
        return [=](itlox_adapter& adapter) {
            return adapter.register_umem(const_cast<void*>(address), size, flags, page);
        };
    };
    const auto with = [&memory](uint32_t some_flags, size_t some_page) {
        return [=, &memory](itlox_adapter& adapter) {
            return adapter.register_umem(memory.data(), memory.size(), some_flags, some_page);
        };
    };
    const auto dmabuf = std::make_shared<dmabuf_file>(layer, page);
    const auto past_the_end = [=](itlox_adapter& adapter) {
        return adapter.register_umem_dmabuf(dmabuf->number(), nullptr, 2 * page, page, flags, page);
    };
    const auto closed_descriptor = [=](itlox_adapter& adapter) {
        const int number = dmabuf->number();
        dmabuf->close();
        return adapter.register_umem_dmabuf(number, nullptr, 0, page, flags, page);
    };
    const auto* const last_page = reinterpret_cast<const void*>(UINTPTR_MAX - page + 1);
    return {
        {"a range that wraps round the address space", true, host(last_page, 2 * page)},
        {"a range of size 0", false, host(memory.data(), 0)},
        {"memory without any access", false, host(memory.data() + memory.size(), page)},
        {"page size 0", false, with(flags, 0)},
        {"page size 3", false, with(flags, 3)},
        {"unknown access bits", false, with(~flags, page)},
        {"a dma-buf's range past its end", false, past_the_end},
        {"a dma-buf whose descriptor is closed", true, closed_descriptor},
    };
}

/** Tries each registration and ends those that were made. Returns how many were refused. */
size_t try_doubtful(const device_layer& layer, const device& dev, const fenced_memory& memory)
{
    size_t refused = 0;
    for (const doubtful& each : doubtful_registrations(layer, memory)) {
        const attempt tried = [&] {
            const auto adapter = dev.adapter();
            set_step("registering", each.label);
            try {
                return try_to([&] { return each.call(*adapter); });
            } catch (const violation& e) {
                throw violation(concat(each.label, ": ", e.what()));
            }
        }();
        require(!tried.made || !each.has_to_be_refused, each.label, " was registered");
        if (tried.made) {
            dev.end(*tried.made);
        } else {
            ++refused;
        }
    }
    return refused;
}

std::string adapter_is_there(const device_layer& layer)
{
    device dev(layer);
    for (size_t i = 0; i < many; ++i) {
        dev.adapter();
    }
    dev.close();
    return concat("asked ", many, " times, there every time");
}

std::string registering_gives_a_handle(const device_layer& layer)
{
    device dev(layer);
    const std::vector<size_t> page_counts = {1, 4, 256};
    for (const size_t pages : page_counts) {
        const fenced_memory memory(pages * page_size());
        dev.end(dev.add(memory));
    }
    dev.close();
    return "ranges of 1, 4 and 256 pages have handles";
}

void require_unique(const std::vector<registration>& live)
{
    std::set<tlox_umem*> handles;
    std::set<uint32_t> ids;
    for (const auto& [handle, id] : live) {
        require(handles.insert(handle).second, "two live registrations have the handle ", handle);
        require(ids.insert(id).second, "two live registrations have the id ", id);
    }
}

std::string ids_are_unique(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(many * page_size());
    const auto add = [&](size_t i) {
        return dev.add(memory.data() + i * page_size(), page_size());
    };
    std::vector<registration> live;
    for (size_t i = 0; i < many; ++i) {
        live.push_back(add(i));
    }
    require_unique(live);
    // A new registration may get the id of an ended one, but never one that is in use.
    for (size_t i = 0; i < many; i += 2) {
        dev.end(live[i]);
        live[i] = add(i);
    }
    require_unique(live);
    for (const registration& each : live) {
        dev.end(each);
    }
    dev.close();
    return concat(many, " live registrations, ", many / 2, " of them replaced: all different");
}

std::string refusals_are_exceptions(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const size_t refused = try_doubtful(layer, dev, memory);
    dev.close();
    return concat(refused, " unusual registrations refused, the others usable");
}

std::string refusals_change_nothing(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(2 * page_size());
    const registration first = dev.add(memory.data(), page_size());
    try_doubtful(layer, dev, memory);
    const registration second = dev.add(memory.data() + page_size(), page_size());
    require_unique({first, second});
    dev.end(first);
    dev.end(second);
    dev.close();
    return "what was registered before stayed registered, and nothing was left over";
}

std::string deregistering_ends(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(2 * page_size());
    const registration first = dev.add(memory.data(), page_size());
    const registration second = dev.add(memory.data() + page_size(), page_size());
    dev.end(first);
    dev.require_deregister_refused(first.first, "an ended registration again");
    dev.end(second);
    dev.close();
    return "ended once, refused the second time";
}

std::string unknown_handles_are_refused(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const registration live = dev.add(memory);
    // Not a handle: a layer must not dereference it.
    const fenced_memory nobodys(256);
    auto* const stranger = reinterpret_cast<tlox_umem*>(nobodys.data());
    for (const auto& [umem, what] : {std::pair<tlox_umem*, const char*>{nullptr, "the null handle"},
                                     {stranger, "a handle that was never given out"}})
    {
        dev.require_deregister_refused(umem, what);
        dev.require_release_refused(umem, what);
    }
    dev.end(live);
    dev.close();
    return "null and an unknown handle refused, the live registration unchanged";
}

}  // namespace

std::vector<check> registration_checks()
{
    return {
        {"adapter_is_there",
         "An open device has an object adapter whenever it is asked for it, and can be closed.",
         {},
         adapter_is_there},
        {"registering_gives_a_handle",
         "Registering memory gives a handle that is not null; ending the registration leaves "
         "nothing behind.",
         {"page_size_is_the_systems", "adapter_is_there"},
         registering_gives_a_handle},
        {"deregistering_ends",
         "Deregistering gives ROVA_SUCCESS for a live registration, and afterwards another code.",
         {"registering_gives_a_handle"},
         deregistering_ends},
        {"unknown_handles_are_refused",
         "A handle that the device has not given out is refused and not dereferenced.",
         {"deregistering_ends"},
         unknown_handles_are_refused},
        {"ids_are_unique",
         "No two live registrations of a device share a handle or an id.",
         {"deregistering_ends"},
         ids_are_unique},
        {"refusals_are_exceptions",
         "An impossible registration is refused by an exception with a code; any other is refused "
         "the same way or can be ended.",
         {"registering_gives_a_handle"},
         refusals_are_exceptions},
        {"refusals_change_nothing",
         "A refused registration changes no other registration and leaves nothing behind.",
         {"refusals_are_exceptions", "ids_are_unique"},
         refusals_change_nothing},
    };
}

}  // namespace rova::conformance
