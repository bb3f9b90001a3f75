/*
 * A descriptor in a file, for as long as its region is shared.
 */
#pragma once

#include <memory>
#include <string>

#include "output_file.hpp"

namespace tool {

/**
 * The file of a descriptor. It appears whole, is locked (flock) by the process that shares, and
 * goes away with this object or with a signal, unless another file has taken its name. A descriptor
 * whose process no longer runs is replaced; any other file is left alone.
 */
class published_descriptor {
public:
    /** Fails if the path holds a file that must not be replaced. */
    explicit published_descriptor(std::string path);

    const std::string& path() const { return m_path; }
    size_t size() const { return m_size; }
    void publish(const byte_vector& descriptor);

private:
    unique_fd lock_former() const;

    std::string m_path;
    size_t m_size = 0;
    unique_fd m_former;  ///< the descriptor that is to be replaced, locked
    unique_fd m_file;    ///< keeps the lock
    std::unique_ptr<leftover> m_leftover;
};

}  // namespace tool
