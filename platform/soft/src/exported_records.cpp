#include "exported_records.hpp"

#include <memory>
#include <mutex>
#include <set>

namespace {

struct record_table {
    std::mutex mutex;
    std::set<uint64_t> addresses;

    /** Never destroyed: a device may be closed by a destructor that runs after this one would. */
    static record_table& instance()
    {
        static record_table* const table = std::make_unique<record_table>().release();
        return *table;
    }
};

uint64_t address_of(const soft::umem_record& record)
{
    return reinterpret_cast<uintptr_t>(&record);
}

}  // namespace

namespace soft {

void add_exported_record(const umem_record& record)
{
    record_table& table = record_table::instance();
    const std::lock_guard<std::mutex> lock(table.mutex);
    table.addresses.insert(address_of(record));
}

void remove_exported_record(const umem_record& record) noexcept
{
    record_table& table = record_table::instance();
    const std::lock_guard<std::mutex> lock(table.mutex);
    table.addresses.erase(address_of(record));
}

bool is_exported_record(uint64_t address)
{
    record_table& table = record_table::instance();
    const std::lock_guard<std::mutex> lock(table.mutex);
    return table.addresses.count(address) != 0;
}

}  // namespace soft
