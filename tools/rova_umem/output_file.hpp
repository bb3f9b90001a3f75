/*
 * A file that appears under its name only when it is whole.
 */
#pragma once

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>

#include "files.hpp"
#include "signals.hpp"

namespace tool {

/**
 * A regular file is written without a name and gets one in `commit`. On a file system that cannot
 * do that, it is written under a temporary name in the same folder and renamed. A file that
 * replaces another takes over its owner and mode. If that is impossible, or if the other file has
 * more names (hard links), nothing is replaced and the failure says so.
 *
 * A terminal, a pipe or a device is written directly. The program does not follow symbolic links
 * itself: the kernel opens the link if this user may follow it, and a regular file behind it is
 * refused.
 */
class output_file {
public:
    explicit output_file(std::string path);

    int fd() const { return m_fd.get(); }
    const unique_fd& folder() const { return m_folder; }
    const std::string& name() const { return m_name; }

    /** Whether it is a terminal, a pipe or a device. */
    bool is_direct() const { return m_is_direct; }

    /** The file that is to be replaced. */
    const std::optional<struct stat>& replaced() const { return m_replaced; }

    /** Gives the file its name. */
    void commit();

private:
    void open_existing();
    void refuse_planted_file() const;
    void create();
    void create_named();
    void take_over_owner_and_mode();
    void give_name();
    void give_new_name();
    void replace(const std::string& temporary);

    std::string m_path;
    unique_fd m_folder;
    std::string m_name;
    unique_fd m_fd;
    bool m_is_direct = false;
    std::optional<struct stat> m_replaced;
    std::unique_ptr<leftover> m_temporary;  ///< absent while the file has no name
};

/** The folder that a file with this path is in. */
unique_fd open_folder_of(const std::string& path);

/** The last part of a path; a failure when it names a folder. */
std::string name_in_folder(const std::string& path);

}  // namespace tool
