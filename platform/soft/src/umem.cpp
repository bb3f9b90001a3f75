#include "umem.hpp"

#include <algorithm>
#include <cstring>
#include <utility>

#include "own_memory.hpp"

namespace soft {
namespace {

/** This many bytes move between two checks that an imported region still exists. */
constexpr size_t read_piece_size = size_t{1} << 20;
constexpr size_t write_piece_size = size_t{1} << 19;

/** Calls `move` with the offset and the size of each piece of a transfer. */
template <typename move_t>
void in_pieces(size_t size, size_t piece_size, const move_t& move)
{
    for (size_t done = 0; done < size; done += std::min(size - done, piece_size)) {
        move(done, std::min(size - done, piece_size));
    }
}

}  // namespace

umem::umem(std::shared_ptr<record_pool> records, const region& memory, const export_block& source)
    : tlox_umem(memory.size, memory.access_flags),
      m_records(std::move(records)),
      m_memory(memory),
      m_source(source)
{}

umem::~umem()
{
    // Qualified, since a destructor must not call a virtual function.
    umem::withdraw();
}

std::vector<uint8_t> umem::make_block()
{
    if (m_record == nullptr) {
        m_record = m_records->add(m_memory, m_source);
    }
    return to_bytes(block_of(*m_record, reinterpret_cast<uintptr_t>(m_record)));
}

void umem::withdraw() noexcept
{
    if (m_record != nullptr) {
        m_records->remove(std::exchange(m_record, nullptr));
    }
}

local_umem::local_umem(std::shared_ptr<record_pool> records, uint64_t address, size_t size,
                       uint32_t access_flags)
    : umem(std::move(records), {address, size, access_flags, 0}, {})
{}

local_umem::local_umem(std::shared_ptr<record_pool> records, platform::dmabuf_range range,
                       size_t size, uint32_t access_flags)
    : local_umem(std::move(records), range.address, size, access_flags)
{
    m_dmabuf = std::move(range);
}

void local_umem::read_bytes(uint64_t offset, void* data, size_t size)
{
    platform::move_own_region(platform::direction::read, memory().address + offset, data, size);
}

void local_umem::write_bytes(uint64_t offset, const void* data, size_t size)
{
    // Writing does not change the caller's bytes.
    platform::move_own_region(platform::direction::write, memory().address + offset,
                              const_cast<void*>(data), size);
}

imported_umem::imported_umem(std::shared_ptr<record_pool> records, import_chain chain)
    : umem(std::move(records),
           {chain.memory().address, chain.memory().size, chain.memory().access_flags, 1},
           chain.source()),
      m_chain(std::move(chain))
{}

void imported_umem::read_bytes(uint64_t offset, void* data, size_t size)
{
    if (size == 0) {
        m_chain.verify();
        return;
    }
    try {
        in_pieces(size, read_piece_size, [&](size_t begin, size_t length) {
            m_chain.read(offset + begin, static_cast<uint8_t*>(data) + begin, length);
        });
    } catch (...) {
        std::memset(data, 0, size);
        throw;
    }
}

void imported_umem::write_bytes(uint64_t offset, const void* data, size_t size)
{
    if (size == 0) {
        m_chain.verify();
        return;
    }
    in_pieces(size, write_piece_size, [&](size_t begin, size_t length) {
        m_chain.write(offset + begin, static_cast<const uint8_t*>(data) + begin, length);
    });
}

std::shared_ptr<tlox_umem> umem_factory::register_memory(uint64_t address, size_t size,
                                                         uint32_t access_flags)
{
    return std::make_shared<local_umem>(m_records, address, size, access_flags);
}

std::shared_ptr<tlox_umem> umem_factory::register_dmabuf(platform::dmabuf_range range, size_t size,
                                                         uint32_t access_flags)
{
    return std::make_shared<local_umem>(m_records, std::move(range), size, access_flags);
}

std::shared_ptr<tlox_umem> umem_factory::import(const uint8_t* block, size_t block_length)
{
    return std::make_shared<imported_umem>(
        m_records, import_chain(from_bytes(block, block_length), *m_memories));
}

}  // namespace soft
