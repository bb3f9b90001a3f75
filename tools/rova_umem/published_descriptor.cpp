#include "published_descriptor.hpp"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "descriptor.hpp"

namespace tool {
namespace {

/** False when another process holds the lock. Without locks in the file system, always true. */
bool lock(const unique_fd& file)
{
    return flock(file.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

}  // namespace

published_descriptor::published_descriptor(std::string path)
    : m_path(std::move(path)), m_former(lock_former())
{}

unique_fd published_descriptor::lock_former() const
{
    const unique_fd folder = open_folder_of(m_path);
    const std::string name = name_in_folder(m_path);
    struct stat status {};
    if (fstatat(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) {
            fail("create", in_quotes(m_path), "; check the path and the permissions");
        }
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        throw failure(in_quotes(m_path) +
                      (S_ISLNK(status.st_mode) ? " is a symbolic link" : " is not a regular file") +
                      "; name another file with --out");
    }
    unique_fd former(
        openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (former.get() < 0) {
        fail("open", in_quotes(m_path), "; name another file with --out");
    }
    if (!holds_descriptor(former.get(), m_path)) {
        throw failure(in_quotes(m_path) +
                      " exists and is not a descriptor; name another file with --out");
    }
    if (!lock(former)) {
        throw failure(in_quotes(m_path) +
                      " is the descriptor of another rova_umem share, which still runs; end that "
                      "one first, or name another file with --out");
    }
    return former;
}

void published_descriptor::publish(const byte_vector& descriptor)
{
    output_file file(m_path);
    const bool seen_before =
        !file.is_direct() && file.replaced().has_value() == (m_former.get() >= 0) &&
        (!file.replaced() ||
         file_identity(*file.replaced()) == file_identity(status_of(m_former.get(), m_path)));
    if (!seen_before) {
        throw failure(in_quotes(m_path) + " was replaced by another program meanwhile; try again");
    }
    write_all(file.fd(), descriptor.data(), descriptor.size(), in_quotes(m_path));
    m_file = unique_fd(fcntl(file.fd(), F_DUPFD_CLOEXEC, 0));
    if (m_file.get() < 0) {
        fail("lock", in_quotes(m_path));
    }
    // It is locked before others can see it.
    static_cast<void>(lock(m_file));
    m_leftover = std::make_unique<leftover>(file.folder(), file.name(),
                                            file_identity(status_of(file.fd(), m_path)));
    file.commit();
    m_size = descriptor.size();
    m_former.reset();
}

}  // namespace tool
