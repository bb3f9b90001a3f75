#include "record_mapping.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <string>

#include "failure.hpp"
#include "memory_map.hpp"
#include "priv_rova_page_size.h"
#include "record_pool.hpp"

namespace soft {
namespace {

/** The file system of all memory files. It holds no other file that a program can name. */
dev_t device_of_memory_files()
{
    const platform::file_descriptor file(::memfd_create(record_file_name, MFD_CLOEXEC));
    struct stat status = {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
        platform::fail(ROVA_ERROR_OPERATING_SYSTEM, ROVA_HERE, "cannot make a memory file: %s",
                       std::strerror(errno));
    }
    return status.st_dev;
}

bool is_pool(const platform::map_place& place)
{
    const platform::map_entry& guard = place.before;
    const platform::map_entry& records = place.here;
    const bool guard_has_rights = guard.readable || guard.writable || guard.executable;
    return records.readable && records.writable && !records.executable && !records.shared &&
           place.name == std::string("/memfd:") + record_file_name + " (deleted)" &&
           records.device == device_of_memory_files() &&
           records.offset == priv_rova_get_page_size() && !guard_has_rights && !guard.shared &&
           guard.end == records.begin && guard.offset == 0 && guard.device == records.device &&
           guard.inode == records.inode;
}

}  // namespace

void check_record_mapping(const process_directory& process, uint64_t address)
{
    const platform::file_descriptor maps = process.open("maps", O_RDONLY);
    const auto place = platform::find_place(maps.get(), address);
    if (!place || !is_pool(*place) || address < place->here.begin ||
        (address - place->here.begin) % record_slot_size != 0)
    {
        platform::fail(ROVA_ERROR_NOT_FOUND, ROVA_HERE,
                       "process %" PRIu64 " has no registration at 0x%" PRIx64 " any more",
                       process.name().pid, address);
    }
}

}  // namespace soft
