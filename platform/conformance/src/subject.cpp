#include "subject.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "child_process.hpp"
#include "isolation.hpp"
#include "priv_rova_page_size.h"
#include "rova_exception.hpp"

namespace rova::conformance {

namespace {

/** Requires that a call returns true, or throws with a code other than ROVA_SUCCESS. */
void require_refused(const char* verb, const char* what, const std::function<bool()>& call)
{
    bool refused = false;
    try {
        refused = call();
    } catch (const rova::exception& e) {
        require(e.error_code() != ROVA_SUCCESS, verb, ' ', what,
                " was refused by an exception with the code ROVA_SUCCESS");
        refused = true;
    } catch (const std::exception&) {
        refused = true;
    }
    require(refused, verb, ' ', what, " was not refused");
}

}  // namespace

size_t page_size()
{
    return priv_rova_get_page_size();
}

fenced_memory::fenced_memory(size_t size) : m_size(size)
{
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    const size_t usable = (size + page - 1) / page * page;
    m_mapped = usable + page;
    m_mapping =
        ::mmap(nullptr, m_mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m_mapping == MAP_FAILED) {
        throw std::bad_alloc();
    }
    auto* const begin = static_cast<uint8_t*>(m_mapping);
    if (::mprotect(begin + usable, page, PROT_NONE) != 0) {
        ::munmap(m_mapping, m_mapped);
        throw std::bad_alloc();
    }
    m_data = begin + usable - size;
}

fenced_memory::fenced_memory(const bytes& content) : fenced_memory(content.size())
{
    std::copy(content.begin(), content.end(), m_data);
    if (content.empty()) {
        m_data = nullptr;
    }
}

fenced_memory::~fenced_memory()
{
    ::munmap(m_mapping, m_mapped);
}

void fenced_memory::fill(uint8_t value) const
{
    std::fill_n(m_data, m_size, value);
}

bool fenced_memory::holds(uint8_t value, size_t offset, size_t size) const
{
    return std::all_of(m_data + offset, m_data + offset + size,
                       [=](uint8_t byte) { return byte == value; });
}

std::string name_of(rova_error_t code)
{
    const char* const name = rova_error_get_name(code);
    return name != nullptr ? name : concat("code ", code);
}

attempt try_to(const std::function<registration()>& call)
{
    attempt result;
    try {
        result.made = call();
    } catch (const rova::exception& e) {
        result.code = e.error_code();
        result.refusal = describe_current_exception();
    } catch (const std::exception&) {
        result.refusal = describe_current_exception();
    }
    require(!result.made || result.made->first != nullptr,
            "it returned a null handle instead of throwing");
    require(result.code != ROVA_SUCCESS, "a refusal carries the code ROVA_SUCCESS");
    return result;
}

bool can_transfer(const device_layer& layer)
{
    return layer.read && layer.write;
}

void need_transfers(const device_layer& layer)
{
    if (!can_transfer(layer)) {
        throw not_applicable("there is no way to read and write memory through the device");
    }
}

device::device(const device_layer& layer) : m_layer(layer)
{
    set_step("opening", "a device");
    m_dev = layer.open();
    require(m_dev != nullptr, "no device could be opened");
}

device::~device()
{
    if (m_dev == nullptr) {
        return;
    }
    try {
        m_layer.close(m_dev);
    } catch (...) {
        // The check has failed already, and only its own reason is reported.
    }
}

std::shared_ptr<itlox_adapter> device::adapter() const
{
    set_step("asking for", "the object adapter");
    require(m_dev->device_adapter != nullptr, "the device's device_adapter is null");
    auto adapter = m_dev->device_adapter->get_tlox_adapter();
    require(adapter != nullptr, "get_tlox_adapter gave null");
    return adapter;
}

attempt device::try_add(void* address, size_t size, uint32_t access_flags) const
{
    const auto to = adapter();
    set_step("registering", "# bytes", size);
    return try_to([&] { return to->register_umem(address, size, access_flags, page_size()); });
}

attempt device::try_add_dmabuf(int number, size_t offset, size_t size) const
{
    const auto to = adapter();
    set_step("registering", "a dma-buf at offset #", offset);
    return try_to([&] {
        return to->register_umem_dmabuf(number, nullptr, offset, size, m_layer.access_flags,
                                        page_size());
    });
}

registration device::add(void* address, size_t size, uint32_t access_flags) const
{
    const attempt added = try_add(address, size, access_flags);
    require(added.made.has_value(), "registering ", size, " bytes was refused: ", added.refusal);
    return *added.made;
}

registration device::add(void* address, size_t size) const
{
    return add(address, size, m_layer.access_flags);
}

registration device::add(const fenced_memory& memory) const
{
    return add(memory.data(), memory.size());
}

bytes device::export_block(const registration& made) const
{
    const auto from = adapter();
    set_step("exporting", "a live registration");
    bytes block = from->export_umem(made.first);
    require(!block.empty(), "the block of a live registration is empty");
    return block;
}

attempt device::try_import(const bytes& block) const
{
    const fenced_memory fenced(block);
    const auto to = adapter();
    set_step("importing", "a block of # bytes", block.size());
    return try_to([&] { return to->import_umem(fenced.data(), fenced.size()); });
}

registration device::import_block(const bytes& block) const
{
    const attempt imported = try_import(block);
    require(imported.made.has_value(), "an exported block was refused: ", imported.refusal);
    return *imported.made;
}

void device::end(const registration& made) const
{
    const auto of = adapter();
    set_step("deregistering", "a live registration");
    const rova_error_t code = of->deregister_umem(made.first);
    require(code == ROVA_SUCCESS, "deregistering a live registration gave ", name_of(code));
}

void device::require_deregister_refused(tlox_umem* umem, const char* what) const
{
    const auto of = adapter();
    set_step("deregistering", what);
    require(of->deregister_umem(umem) != ROVA_SUCCESS, "deregistering ", what,
            " gave ROVA_SUCCESS");
}

void device::require_export_refused(tlox_umem* umem, const char* what) const
{
    const auto from = adapter();
    set_step("exporting", what);
    require_refused("exporting", what, [&] { return from->export_umem(umem).empty(); });
}

void device::require_release_refused(tlox_umem* umem, const char* what) const
{
    const auto of = adapter();
    set_step("releasing", what);
    require_refused("releasing", what, [&] {
        of->release_umem(umem);
        return false;
    });
}

bool device::reads(uint32_t id, uint64_t offset, bytes& data) const
{
    set_step("reading", "at offset #", offset);
    return m_layer.read(m_dev, id, offset, data.data(), data.size()) == ROVA_SUCCESS;
}

bool device::writes(uint32_t id, uint64_t offset, const bytes& data) const
{
    set_step("writing", "at offset #", offset);
    return m_layer.write(m_dev, id, offset, data.data(), data.size()) == ROVA_SUCCESS;
}

bool device::reads_byte(uint32_t id, uint64_t offset, uint8_t value) const
{
    bytes seen(1, static_cast<uint8_t>(~value));
    return reads(id, offset, seen) && seen[0] == value;
}

void device::close()
{
    set_step("closing", "the device");
    const rova_error_t code = m_layer.close(std::exchange(m_dev, nullptr));
    require(code == ROVA_SUCCESS, "with every registration ended, closing the device gave ",
            name_of(code));
}

}  // namespace rova::conformance
