#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <system_error>

#include "subject.hpp"

namespace rova::conformance {

namespace {

constexpr size_t many = 64;

/** A file in memory, which stands for a dma-buf where a layer takes it for one. */
class memory_file {
public:
    explicit memory_file(size_t size) : m_fd(::memfd_create("conformance", MFD_CLOEXEC))
    {
        if (m_fd < 0 || ::ftruncate(m_fd, static_cast<off_t>(size)) != 0) {
            const int error = errno;
            close();
            throw std::system_error(error, std::generic_category(), "cannot make a memory file");
        }
    }
    ~memory_file() { close(); }
    memory_file(const memory_file&) = delete;
    memory_file& operator=(const memory_file&) = delete;

    int number() const { return m_fd; }
    bool is_open() const { return ::fcntl(m_fd, F_GETFD) >= 0; }
    void put(const bytes& content) const
    {
        if (::pwrite(m_fd, content.data(), content.size(), 0) !=
            static_cast<ssize_t>(content.size())) {
            throw std::system_error(errno, std::generic_category(), "cannot fill a memory file");
        }
    }
    void close()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }

private:
    int m_fd;
};

/** A registration that a layer may or, where nobody could grant it, has to refuse. */
struct doubtful {
    const char* label;
    bool has_to_be_refused;
    std::function<registration(itlox_adapter&)> call;
};

std::vector<doubtful> doubtful_registrations(const fenced_memory& memory, uint32_t flags)
{
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
    const auto closed_descriptor = [flags, page](itlox_adapter& adapter) {
        memory_file file(page);
        const int number = file.number();
        file.close();
        return adapter.register_umem_dmabuf(number, nullptr, 0, page, flags, page);
    };
    const auto past_the_end = [flags, page](itlox_adapter& adapter) {
        const memory_file file(page);
        return adapter.register_umem_dmabuf(file.number(), nullptr, 2 * page, page, flags, page);
    };
    const auto* const last_page = reinterpret_cast<const void*>(UINTPTR_MAX - page + 1);
    return {
        {"a range that wraps round the address space", true, host(last_page, 2 * page)},
        {"a dma-buf whose descriptor is closed", true, closed_descriptor},
        {"a range of size 0", false, host(memory.data(), 0)},
        {"memory that nobody can touch", false, host(memory.data() + memory.size(), page)},
        {"page size 0", false, with(flags, 0)},
        {"page size 3", false, with(flags, 3)},
        {"unknown access bits", false, with(~flags, page)},
        {"a dma-buf's range past its end", false, past_the_end},
    };
}

/** Tries them all and ends what was made. Returns how many were refused. */
size_t try_doubtful(const device& dev, const fenced_memory& memory, uint32_t flags)
{
    size_t refused = 0;
    for (const doubtful& each : doubtful_registrations(memory, flags)) {
        const attempt tried = [&] {
            try {
                return try_to([&] { return each.call(*dev.adapter()); });
            } catch (const violation& e) {
                throw violation(words(each.label, ": ", e.what()));
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
    return words("asked ", many, " times, there every time");
}

std::string adapter_is_given_back(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const auto held = dev.adapter();
    const long before = held.use_count();

    const registration made = dev.add(memory);
    dev.export_block(made);
    dev.end(made);
    try_doubtful(dev, memory, layer.access_flags);
    dev.try_import({});
    dev.refuses_to_export(nullptr, "the null handle");

    require(held.use_count() == before, "the adapter's use count was ", before, " and is ",
            held.use_count());
    return words("use count ", before, " before and after");
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
    // Every second one makes room for another, whose id may be an old one, but none that is in use.
    for (size_t i = 0; i < many; i += 2) {
        dev.end(live[i]);
        live[i] = add(i);
    }
    require_unique(live);
    for (const registration& each : live) {
        dev.end(each);
    }
    dev.close();
    return words(many, " live registrations, ", many / 2, " of them replaced: all different");
}

std::string refusals_are_exceptions(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const size_t refused = try_doubtful(dev, memory, layer.access_flags);
    dev.close();
    return words(refused, " doubtful registrations refused, the others usable");
}

std::string refusals_change_nothing(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(2 * page_size());
    const registration first = dev.add(memory.data(), page_size());
    try_doubtful(dev, memory, layer.access_flags);
    const registration second = dev.add(memory.data() + page_size(), page_size());
    require_unique({first, second});
    dev.export_block(first);
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
    dev.refuses_to_deregister(first.first, "an ended registration again");
    dev.end(second);
    dev.close();
    return "ended once, refused the second time";
}

std::string unknown_handles_are_refused(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(page_size());
    const registration live = dev.add(memory);
    // Zeros that belong to nobody: a layer may not even look at them.
    const fenced_memory nobodys(256);
    auto* const stranger = reinterpret_cast<tlox_umem*>(nobodys.data());
    for (const auto& [umem, what] : {std::pair<tlox_umem*, const char*>{nullptr, "the null handle"},
                                     {stranger, "a handle that was never given out"}})
    {
        dev.refuses_to_deregister(umem, what);
        dev.refuses_to_release(umem, what);
    }
    dev.end(live);
    dev.close();
    return "null and a stranger refused, the live registration untouched";
}

std::string dmabuf_stays_the_callers(const device_layer& layer)
{
    device dev(layer);
    const size_t page = page_size();
    memory_file file(2 * page);
    file.put({1, 2, 3});
    const attempt tried = try_to([&] {
        return dev.adapter()->register_umem_dmabuf(file.number(), nullptr, 0, page,
                                                   layer.access_flags, page);
    });
    require(file.is_open(), "the descriptor was closed");
    if (!tried.made) {
        dev.close();
        return "a memfd is no dma-buf for this layer: " + tried.refusal;
    }
    file.close();
    bytes seen(3);
    if (layer.read) {
        require(dev.reads(tried.made->second, 0, seen) && seen == bytes{1, 2, 3},
                "with the descriptor closed, its memory is not to be read");
    }
    dev.end(*tried.made);
    dev.close();
    return "registered a memfd, which was closed before the registration ended";
}

std::string memory_is_reached_by_id(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(2 * page_size());
    memory.data()[memory.size() - 1] = 7;
    const registration made = dev.add(memory);
    bytes seen(1);
    require(dev.reads(made.second, memory.size() - 1, seen) && seen[0] == 7,
            "the last byte was not read");
    require(dev.writes(made.second, 0, {8, 9}) && memory.data()[0] == 8 && memory.data()[1] == 9,
            "the first bytes were not written");
    dev.end(made);
    dev.close();
    return "first and last bytes reached";
}

std::string nothing_else_is_reached(const device_layer& layer)
{
    device dev(layer);
    const fenced_memory memory(2 * page_size());
    const registration made = dev.add(memory.data(), page_size());
    const uint64_t end = page_size();
    bytes two(2);
    for (const uint64_t offset : {end - 1, end, end + 1, UINT64_MAX}) {
        require(!dev.reads(made.second, offset, two), "2 bytes were read at ", offset);
        require(!dev.writes(made.second, offset, {1, 1}), "2 bytes were written at ", offset);
    }
    require(std::all_of(memory.data(), memory.data() + memory.size(),
                        [](uint8_t byte) { return byte == 0; }),
            "a refused write has written");
    dev.end(made);
    require(!dev.reads(made.second, 0, two), "an ended registration could be read");
    dev.close();
    return "beyond the end and after it, all refused";
}

}  // namespace

std::vector<check> registration_checks()
{
    return {
        {"adapter_is_there", "An open device has an object adapter whenever it is asked for it.",
         false, adapter_is_there},
        {"adapter_is_given_back",
         "Nobody keeps the adapter: its use count comes back after every operation.", false,
         adapter_is_given_back},
        {"registering_gives_a_handle", "Registering memory gives a handle that is not null.", false,
         registering_gives_a_handle},
        {"ids_are_unique", "No two live registrations of a device share a handle or an id.", false,
         ids_are_unique},
        {"refusals_are_exceptions",
         "What cannot be registered is refused by an exception with a code that says so; what is "
         "registered can be ended.",
         false, refusals_are_exceptions},
        {"refusals_change_nothing",
         "A refused registration leaves the others as they are and nothing behind.", false,
         refusals_change_nothing},
        {"deregistering_ends",
         "Deregistering gives ROVA_SUCCESS for a live registration, and afterwards another code.",
         false, deregistering_ends},
        {"unknown_handles_are_refused",
         "A handle that the device has not given out is refused and not followed.", false,
         unknown_handles_are_refused},
        {"dmabuf_stays_the_callers",
         "Registering a dma-buf leaves its descriptor open, and does not depend on it afterwards.",
         false, dmabuf_stays_the_callers},
        {"memory_is_reached_by_id", "The device reads and writes the whole of a registration.",
         true, memory_is_reached_by_id},
        {"nothing_else_is_reached",
         "No byte outside of a live registration can be read or written.", true,
         nothing_else_is_reached},
    };
}

}  // namespace rova::conformance
