/*
 * The dma-buf that the checks register.
 */
#pragma once

#include "child_process.hpp"
#include "subject.hpp"

namespace rova::conformance {

/** A dma-buf that the layer made, or a memfd instead. Its bytes are mapped into the program. */
class dmabuf_file {
public:
    dmabuf_file(const device_layer& layer, size_t size);
    ~dmabuf_file();
    dmabuf_file(const dmabuf_file&) = delete;
    dmabuf_file& operator=(const dmabuf_file&) = delete;

    int number() const { return m_descriptor.number(); }
    bool is_open() const;

    /** Closes the descriptor. The bytes stay mapped. */
    void close() { m_descriptor.close(); }

    uint8_t* data() const { return m_data; }

private:
    descriptor m_descriptor;
    size_t m_size;
    uint8_t* m_data;
};

}  // namespace rova::conformance
