#include "output_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace tool {
namespace {

[[noreturn]] void fail_to_create(const std::string& path)
{
    fail("create", in_quotes(path), "; check the path and the permissions");
}

[[noreturn]] void fail_for_folder(const std::string& path)
{
    throw failure(in_quotes(path) + " names a folder; add the name of a file", exit_code::usage);
}

[[noreturn]] void fail_for_change(const std::string& path, const std::string& change)
{
    throw failure(in_quotes(path) + " was " + change + " by another program meanwhile; try again");
}

/** The mode of a new file: what the umask allows. */
mode_t usual_mode()
{
    // The mask can only be read by setting it; this value keeps everybody else out meanwhile.
    const mode_t mask = umask(077);
    umask(mask);
    return 0666 & ~mask;
}

/** The name by which the kernel finds an open file of this process. */
std::string kernel_name(const unique_fd& file)
{
    return "/proc/self/fd/" + std::to_string(file.get());
}

/** Whether the file system does not know the operation, as opposed to refusing it. */
bool is_not_supported(int error)
{
    return error == EOPNOTSUPP || error == EINVAL || error == ENOSYS || error == EISDIR;
}

}  // namespace

unique_fd open_folder_of(const std::string& path)
{
    const size_t end = path.rfind('/');
    const std::string folder = end == std::string::npos ? "." : path.substr(0, end + 1);
    unique_fd fd(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) {
        fail_to_create(path);
    }
    return fd;
}

std::string name_in_folder(const std::string& path)
{
    std::string name = path.substr(path.rfind('/') + 1);
    if (name.empty() || name == "." || name == "..") {
        fail_for_folder(path);
    }
    return name;
}

output_file::output_file(std::string path)
    : m_path(std::move(path)), m_folder(open_folder_of(m_path)), m_name(name_in_folder(m_path))
{
    struct stat status {};
    if (fstatat(m_folder.get(), m_name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISREG(status.st_mode)) {
            m_replaced = status;
        } else {
            open_existing();
        }
    } else if (errno != ENOENT) {
        fail_to_create(m_path);
    }
    if (!m_is_direct) {
        create();
    }
}

void output_file::open_existing()
{
    m_fd = unique_fd(openat(m_folder.get(), m_name.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
    if (m_fd.get() < 0) {
        if (errno == EISDIR) {
            fail_for_folder(m_path);
        }
        const bool leads_nowhere = errno == ENOENT || errno == ELOOP;
        fail("open", in_quotes(m_path),
             leads_nowhere ? "; it is a symbolic link that leads nowhere, so remove it, or name "
                             "another file"
                           : "; name another file");
    }
    const struct stat status = status_of(m_fd.get(), m_path);
    struct stat standard_output {};
    if (fstat(STDOUT_FILENO, &standard_output) == 0 &&
        file_identity(status) == file_identity(standard_output))
    {
        m_fd = unique_fd(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));  // it is /dev/stdout
    } else if (S_ISREG(status.st_mode)) {
        throw failure(in_quotes(m_path) + " is a symbolic link; name the file itself");
    }
    m_is_direct = true;
}

/**
 * In a folder where everybody may create files, the file may have been put there for this program
 * to fill. The kernel refuses such files by the same rule (fs.protected_regular).
 */
void output_file::refuse_planted_file() const
{
    const struct stat folder = status_of(m_folder.get(), m_path);
    const bool is_public =
        (folder.st_mode & S_ISVTX) != 0 && (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (is_public && m_replaced->st_uid != geteuid() && m_replaced->st_uid != folder.st_uid) {
        throw failure(in_quotes(m_path) +
                          " belongs to another user, in a folder that is open to everybody; name "
                          "another file",
                      exit_code::not_permitted);
    }
}

void output_file::create()
{
    if (m_replaced) {
        refuse_planted_file();
    }
    if (m_replaced && m_replaced->st_nlink > 1) {
        throw failure(in_quotes(m_path) +
                      " has more than one name (hard links), and the others would keep the old "
                      "bytes; remove it first, or name another file");
    }
    m_fd = unique_fd(openat(m_folder.get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    const bool can_get_a_name =
        m_fd.get() >= 0 && access(kernel_name(m_fd).c_str(), F_OK) == 0;  // not without /proc
    if (!can_get_a_name) {
        if (m_fd.get() < 0 && !is_not_supported(errno)) {
            fail_to_create(m_path);
        }
        create_named();
    }
    take_over_owner_and_mode();
}

void output_file::create_named()
{
    m_temporary = std::make_unique<leftover>(m_folder, random_name(".rova_umem."));
    m_fd = unique_fd(openat(m_folder.get(), m_temporary->name().c_str(),
                            O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (m_fd.get() < 0) {
        m_temporary->keep();  // another program has created it
        fail_to_create(m_path);
    }
}

void output_file::take_over_owner_and_mode()
{
    const struct stat own = status_of(m_fd.get(), m_path);
    const bool is_another_owners =
        m_replaced && (m_replaced->st_uid != own.st_uid || m_replaced->st_gid != own.st_gid);
    if (is_another_owners && fchown(m_fd.get(), m_replaced->st_uid, m_replaced->st_gid) != 0) {
        fail("replace", in_quotes(m_path) + " by a file of the same owner and group",
             "; remove it first, or name another file");
    }
    if (fchmod(m_fd.get(), m_replaced ? m_replaced->st_mode & 0777 : usual_mode()) != 0) {
        fail_to_create(m_path);
    }
}

void output_file::commit()
{
    if (m_is_direct) {
        return;
    }
    if (!m_replaced) {
        give_new_name();
        return;
    }
    if (m_temporary == nullptr) {
        auto temporary = std::make_unique<leftover>(m_folder, random_name(".rova_umem."));
        if (linkat(AT_FDCWD, kernel_name(m_fd).c_str(), m_folder.get(), temporary->name().c_str(),
                   AT_SYMLINK_FOLLOW) != 0)
        {
            temporary->keep();  // another program has created it
            fail_to_create(m_path);
        }
        m_temporary = std::move(temporary);
    }
    replace(m_temporary->name());
}

void output_file::give_new_name()
{
    const char* name = m_name.c_str();
    bool done = false;
    if (m_temporary == nullptr) {
        done = linkat(AT_FDCWD, kernel_name(m_fd).c_str(), m_folder.get(), name,
                      AT_SYMLINK_FOLLOW) == 0;
    } else {
        const char* temporary = m_temporary->name().c_str();
        done = renameat2(m_folder.get(), temporary, m_folder.get(), name, RENAME_NOREPLACE) == 0 ||
               (is_not_supported(errno) &&
                linkat(m_folder.get(), temporary, m_folder.get(), name, 0) == 0);
    }
    if (!done && errno == EEXIST) {
        fail_for_change(m_path, "created");
    }
    if (!done) {
        fail_to_create(m_path);
    }
}

void output_file::replace(const std::string& temporary)
{
    const int folder = m_folder.get();
    const auto exchange = [&] {
        return renameat2(folder, temporary.c_str(), folder, m_name.c_str(), RENAME_EXCHANGE) == 0;
    };
    if (!exchange()) {
        const bool done = is_not_supported(errno) &&
                          renameat(folder, temporary.c_str(), folder, m_name.c_str()) == 0;
        if (!done) {
            fail_to_create(m_path);
        }
        return;
    }
    // The former file now has the temporary name. If it is not the one that was examined, it goes
    // back.
    struct stat former {};
    if (fstatat(folder, temporary.c_str(), &former, AT_SYMLINK_NOFOLLOW) != 0 ||
        file_identity(former) != file_identity(*m_replaced))
    {
        if (!exchange()) {
            m_temporary->keep();
        }
        fail_for_change(m_path, "replaced");
    }
}

}  // namespace tool
