#include "subject.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "priv_rova_page_size.h"
#include "rova_exception.hpp"

namespace rova::conformance {

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

attempt try_to(const std::function<registration()>& call)
{
    attempt result;
    try {
        result.made = call();
    } catch (const rova::exception& e) {
        result.code = e.error_code();
        result.refusal = words(rova_error_get_name(e.error_code()), " (", e.message(), ')');
    } catch (const std::exception& e) {
        result.refusal = e.what();
    } catch (...) {
        throw violation("something was thrown that is no std::exception");
    }
    require(!result.made || result.made->first != nullptr,
            "a null handle came back where an exception belongs");
    require(result.code != ROVA_SUCCESS, "a refusal carries the code ROVA_SUCCESS");
    return result;
}

device::device(const device_layer& layer) : m_layer(layer), m_dev(layer.open())
{
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
        // The check has failed already, and for a better reason.
    }
}

std::shared_ptr<itlox_adapter> device::adapter() const
{
    require(m_dev->device_adapter != nullptr, "the device's device_adapter is null");
    auto adapter = m_dev->device_adapter->get_tlox_adapter();
    require(adapter != nullptr, "get_tlox_adapter gave null");
    return adapter;
}

registration device::add(void* address, size_t size) const
{
    const attempt added = try_to(
        [&] { return adapter()->register_umem(address, size, m_layer.access_flags, page_size()); });
    require(added.made.has_value(), "registering ", size, " bytes was refused: ", added.refusal);
    return *added.made;
}

registration device::add(const fenced_memory& memory) const
{
    return add(memory.data(), memory.size());
}

bytes device::export_block(const registration& made) const
{
    bytes block = adapter()->export_umem(made.first);
    require(!block.empty(), "the block of a live registration is empty");
    return block;
}

attempt device::try_import(const bytes& block) const
{
    const fenced_memory fenced(block);
    return try_to([&] { return adapter()->import_umem(fenced.data(), fenced.size()); });
}

registration device::import_block(const bytes& block) const
{
    const attempt imported = try_import(block);
    require(imported.made.has_value(), "an exported block was refused: ", imported.refusal);
    return *imported.made;
}

void device::end(const registration& made) const
{
    const rova_error_t code = adapter()->deregister_umem(made.first);
    require(code == ROVA_SUCCESS, "deregistering a live registration gave ",
            rova_error_get_name(code));
}

void device::refuses_to_deregister(tlox_umem* umem, const char* what) const
{
    require(adapter()->deregister_umem(umem) != ROVA_SUCCESS, "deregistering ", what,
            " gave ROVA_SUCCESS");
}

void device::refuses_to_export(tlox_umem* umem, const char* what) const
{
    bool refused = false;
    try {
        refused = adapter()->export_umem(umem).empty();
    } catch (const std::exception&) {
        refused = true;
    }
    require(refused, "exporting ", what, " gave a block");
}

void device::refuses_to_release(tlox_umem* umem, const char* what) const
{
    bool refused = false;
    try {
        adapter()->release_umem(umem);
    } catch (const std::exception&) {
        refused = true;
    }
    require(refused, "releasing ", what, " was not refused");
}

bool device::reads(uint32_t id, uint64_t offset, bytes& data) const
{
    return m_layer.read(m_dev, id, offset, data.data(), data.size()) == ROVA_SUCCESS;
}

bool device::writes(uint32_t id, uint64_t offset, const bytes& data) const
{
    return m_layer.write(m_dev, id, offset, data.data(), data.size()) == ROVA_SUCCESS;
}

void device::close()
{
    const rova_error_t code = m_layer.close(std::exchange(m_dev, nullptr));
    require(code == ROVA_SUCCESS, "with every registration ended, closing the device gave ",
            rova_error_get_name(code));
}

}  // namespace rova::conformance
