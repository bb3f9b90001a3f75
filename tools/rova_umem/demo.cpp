#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "commands.hpp"
#include "console.hpp"
#include "demo_peer.hpp"
#include "devices.hpp"
#include "files.hpp"
#include "sdk.hpp"

namespace tool {
namespace {

constexpr size_t largest_file_bytes = 64 * 1024 * 1024;
constexpr uint32_t read_and_write = ROVA_PLATFORM_ACCESS_READ | ROVA_PLATFORM_ACCESS_WRITE;

// The accelerator region begins a little way into the accelerator's memory, as regions do.
constexpr uint64_t accelerator_base = 0x10000000;
constexpr uint64_t accelerator_offset = 4096;
constexpr uint64_t accelerator_address = accelerator_base + accelerator_offset;

/** A region, and the memory under it as the program itself sees it. */
struct demo_region {
    std::string name;
    region_ptr region;
    std::function<byte_vector()> seen_by_program;
};

/** Reports whether each result is the expected one, and remembers whether all were. */
class finding {
public:
    std::string of(bool right, const std::string& yes = "yes")
    {
        m_all_right = m_all_right && right;
        return right ? yes : "NO, DIFFERENT";
    }
    bool all_right() const { return m_all_right; }

private:
    bool m_all_right = true;
};

class demo {
public:
    explicit demo(const options& given)
        : m_given(given),
          m_path(given.operands.front()),
          m_bytes(read_whole(m_path, largest_file_bytes)),
          m_device(make<device_ptr>("a device", rova_soft_dev_open))
    {
        if (m_bytes.empty()) {
            throw failure(in_quotes(m_path) + " is empty; choose a file with bytes in it");
        }
    }

    int run()
    {
        print("The " + count(m_bytes.size(), "byte") + " of " + in_quotes(m_path) +
              (m_bytes.size() == 1 ? " goes" : " go") +
              " into memory of each kind, which is registered with a software device.\n\n");
        register_all();
        show_regions();
        show_access();
        show_refusals();
        hand_over_to_process();
        if (m_given.device == "fabric") {
            hand_over_to_host();
        }
        end_all();
        print(m_finding.all_right() ? "Every result was as expected.\n"
                                    : "A result was not as expected; see above.\n");
        return m_finding.all_right() ? 0 : 1;
    }

private:
    size_t size() const { return m_bytes.size(); }

    /** Adds a region over memory that the program can read by its address. */
    void add(const std::string& name, region_ptr region, const uint8_t* memory)
    {
        const auto look = [memory, length = size()] {
            return byte_vector(memory, memory + length);
        };
        m_regions.push_back({name, std::move(region), look});
    }

    void register_all()
    {
        register_host_memory();
        register_dmabuf();
        m_gpu = make<gpu_ptr>("a GPU", rova_soft_gpu_open);
        m_gpu_memory = register_gpu_memory("GPU memory, as a dma-buf");
        check(rova_soft_gpu_set_dmabuf_supported(m_gpu.get(), false), "switch dma-bufs off");
        m_plain_gpu_memory = register_gpu_memory("GPU memory, by its address");
        register_accelerator_memory();
    }

    region_ptr make_host_region(void* address, uint32_t access)
    {
        return make<region_ptr>("a region of host memory", priv_rova_umem_create, m_device.get(),
                                address, size(), access);
    }

    void register_host_memory()
    {
        m_host = m_bytes;
        add("host memory", make_host_region(m_host.data(), read_and_write), m_host.data());
    }

    void register_dmabuf()
    {
        const unique_fd memfd(memfd_create("rova_umem demo", MFD_CLOEXEC));
        if (memfd.get() < 0) {
            throw failure("cannot make a memfd: " + os_error());
        }
        write_all(memfd.get(), m_bytes.data(), size(), "a memfd");
        m_dmabuf = mapping::shared(memfd.get(), size());
        const auto page_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));  // never fails
        add("dma-buf",
            make<region_ptr>("a region of a dma-buf", priv_rova_umem_create_dmabuf, m_device.get(),
                             static_cast<void*>(m_dmabuf.data()), size_t{0}, size(), page_size,
                             memfd.get(), read_and_write),
            m_dmabuf.data());
    }

    gpu_memory register_gpu_memory(const std::string& name)
    {
        gpu_memory memory(m_gpu.get(), size());
        std::copy(m_bytes.begin(), m_bytes.end(), memory.data());
        add(name,
            make<region_ptr>("a region of GPU memory", priv_rova_umem_gpu_create, m_gpu.get(),
                             m_device.get(), static_cast<void*>(memory.data()), size(),
                             read_and_write),
            memory.data());
        return memory;
    }

    void register_accelerator_memory()
    {
        m_accelerator = make<accelerator_ptr>("an accelerator", rova_soft_apx_open, m_device.get(),
                                              accelerator_base, accelerator_offset + size());
        rova_apx* accelerator = m_accelerator.get();
        check(rova_soft_apx_write(accelerator, accelerator_address, m_bytes.data(), size()),
              "fill accelerator memory");
        const auto look = [accelerator, length = size()] {
            byte_vector bytes(length);
            check(rova_soft_apx_read(accelerator, accelerator_address, bytes.data(), length),
                  "look at accelerator memory");
            return bytes;
        };
        m_regions.push_back(
            {"accelerator memory",
             make<region_ptr>("a region of accelerator memory", priv_rova_umem_apx_create,
                              accelerator, accelerator_address, size(), read_and_write),
             look});
    }

    void show_regions() const
    {
        table rows({false, true, true, true, true, true});
        rows.add({"region", "umem id", "size", "page size", "base offset", "address"});
        for (const demo_region& entry : m_regions) {
            const region_facts facts(entry.region.get());
            rows.add({entry.name, std::to_string(facts.id), std::to_string(facts.size),
                      std::to_string(facts.page_size), std::to_string(facts.base_offset),
                      hex(reinterpret_cast<uintptr_t>(facts.address))});
        }
        print("Regions: the device knows each by its umem id.\n" + rows.text() + "\n");
    }

    byte_vector read_by_device(const demo_region& entry)
    {
        const region_facts facts(entry.region.get());
        byte_vector bytes(size());
        check(rova_platform_dev_read(m_device.get(), facts.id, facts.base_offset, bytes.data(),
                                     size()),
              "read " + entry.name + " through the device");
        return bytes;
    }

    void write_by_device(const demo_region& entry, const byte_vector& bytes)
    {
        const region_facts facts(entry.region.get());
        check(rova_platform_dev_write(m_device.get(), facts.id, facts.base_offset, bytes.data(),
                                      bytes.size()),
              "write " + entry.name + " through the device");
    }

    void show_access()
    {
        byte_vector turned = m_bytes;
        std::for_each(turned.begin(), turned.end(), [](uint8_t& byte) { byte ^= 0xFF; });
        table rows({false, false, false});
        rows.add(
            {"region", "device reads the file's bytes", "program sees what the device writes"});
        for (const demo_region& entry : m_regions) {
            const bool read_same =
                read_by_device(entry) == m_bytes && entry.seen_by_program() == m_bytes;
            write_by_device(entry, turned);
            const bool seen = entry.seen_by_program() == turned;
            write_by_device(entry, m_bytes);
            rows.add({entry.name, m_finding.of(read_same), m_finding.of(seen)});
        }
        print("Access: the device reads every byte of each region, then writes every byte.\n" +
              rows.text() + "\n");
    }

    /** Shows a refusal; `code` is what the call returned. */
    void show_refusal(const std::string& what, rova_error_t code, rova_error_t expected)
    {
        std::string text = "  " + what + "\n    " +
                           m_finding.of(code == expected, rova_error_get_name(code)) + "\n";
        for (const log_line& line : take_log()) {
            text += "    " + line.level + " " + line.source + " " + line.function + ": " +
                    short_text(line, code) + "\n";
        }
        print(text);
    }

    void show_refusals()
    {
        print("Refusals: each gives a code, and the log says why.\n");
        static_cast<void>(take_log());

        // The first page of an address space is never mapped.
        priv_rova_umem* none = nullptr;
        void* nowhere = reinterpret_cast<void*>(uintptr_t{0x10});
        const rova_error_t unmapped =
            priv_rova_umem_create(m_device.get(), nowhere, size(), read_and_write, &none);
        region_ptr unwanted(none);
        show_refusal("registering memory that is not there:", unmapped, ROVA_ERROR_INVALID_VALUE);

        region_ptr read_only = make_host_region(m_host.data(), ROVA_PLATFORM_ACCESS_READ);
        const region_facts facts(read_only.get());
        show_refusal("writing through the device to a region that grants reading only:",
                     rova_platform_dev_write(m_device.get(), facts.id, 0, m_bytes.data(), size()),
                     ROVA_ERROR_NOT_PERMITTED);
        reclaim(read_only, "the read-only region");

        const rova_error_t in_use = rova_platform_dev_close(m_device.get());
        if (in_use == ROVA_SUCCESS) {
            static_cast<void>(m_device.release());  // closed already
            throw failure("the device was closed although regions are registered with it");
        }
        show_refusal("closing the device while regions are registered with it:", in_use,
                     ROVA_ERROR_IN_USE);
        print("\n");
    }

    void hand_over_to_process() { show_hand_over(m_regions.front().region, "soft"); }

    /** The same over the network, between two addresses of this machine. */
    void hand_over_to_host()
    {
        device_ptr device = open_device({ROVA_PLATFORM_BLOCK_FABRIC, "127.0.0.1"}, m_given);
        m_host = m_bytes;
        auto region =
            make<region_ptr>("a region of host memory", priv_rova_umem_create, device.get(),
                             static_cast<void*>(m_host.data()), size(), read_and_write);
        print("A fabric device on 127.0.0.1 registers the host memory, too.\n");
        show_hand_over(region, "fabric:127.0.0.2");
        reclaim(device, "the fabric device");
    }

    /** Lets a second process with a device of its own use a region of host memory. */
    void show_hand_over(region_ptr& region, const std::string& peer_device)
    {
        const byte_vector descriptor = export_region(region.get());
        demo_peer peer(peer_device);
        // Where the kernel lets in parents only, this lets in the other process by its id.
        static_cast<void>(prctl(PR_SET_PTRACER, peer.pid(), 0, 0, 0));
        print("Hand-over: process " + std::to_string(peer.pid()) + ", with the device " +
              peer_device + ", gets a descriptor of " + count(descriptor.size(), "byte") +
              " of the host memory, and nothing else.\n");
        table rows({false, false});
        const auto add = [&](const char* what, bool right, const std::string& yes) {
            rows.add({what, m_finding.of(right, yes)});
        };
        const auto name = [](uint32_t code) {
            return std::string(rova_error_get_name(static_cast<rova_error_t>(code)));
        };

        const message imported = peer.ask(request::import, descriptor);
        rows.add({"it imports the region",
                  m_finding.of(imported.head == ROVA_SUCCESS) + ", " + name(imported.head)});
        message read = peer.ask(request::read);
        add("it reads the file's bytes there", read.head == ROVA_SUCCESS && read.bytes == m_bytes,
            "yes");
        byte_vector turned(m_bytes.rbegin(), m_bytes.rend());
        turned.front() ^= 0xFF;  // differs from every file, also from one that is a palindrome
        const message written = peer.ask(request::write, turned);
        add("it writes, and this process sees the bytes",
            written.head == ROVA_SUCCESS && m_host == turned, "yes");
        reclaim(region, "the region of host memory");
        read = peer.ask(request::read);
        add("this process deregisters; it reads again", read.head == ROVA_ERROR_NOT_FOUND,
            "refused, " + name(read.head));
        peer.ask(request::deregister);
        peer.end();
        print(rows.text() + "\n");
    }

    void end_all()
    {
        m_regions.erase(m_regions.begin());  // its region has ended in the hand-over
        for (demo_region& entry : m_regions) {
            reclaim(entry.region, entry.name);
        }
        m_regions.clear();
        m_gpu_memory.free();
        m_plain_gpu_memory.free();
        reclaim(m_gpu, "the GPU");
        reclaim(m_accelerator, "the accelerator");
        reclaim(m_device, "the device");
        print("All regions are destroyed; the GPU, the accelerator and the device are closed.\n");
    }

    // What a region needs comes before it: members end in the reverse order.
    const options& m_given;
    std::string m_path;
    byte_vector m_bytes;
    finding m_finding;
    device_ptr m_device;
    gpu_ptr m_gpu;
    accelerator_ptr m_accelerator;
    byte_vector m_host;
    mapping m_dmabuf;
    gpu_memory m_gpu_memory;
    gpu_memory m_plain_gpu_memory;
    std::vector<demo_region> m_regions;
};

}  // namespace

int run_demo(const options& given)
{
    return demo(given).run();
}

}  // namespace tool
