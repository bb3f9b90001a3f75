/*
 * What the fabric device is compared with: the same operation in a loop of plain libfabric, on the
 * caller's memory, without checks.
 */
#pragma once

#include <memory>
#include <string>

#include "transport.hpp"

namespace bench {

/** An endpoint of the provider "net". */
class bare_fabric final : public transport {
public:
    bare_fabric(const char* address, size_t size);
    ~bare_fabric() override;
    bare_fabric(const bare_fabric&) = delete;
    bare_fabric& operator=(const bare_fabric&) = delete;

    std::string name() override;
    [[noreturn]] void serve() override;
    void connect(const std::string& name) override;
    void move(bool reading, void* data, size_t size) override;

    /** fi_mr_reg and fi_close. */
    void register_and_deregister(void* memory, size_t size);

private:
    struct objects;
    std::unique_ptr<objects> m_objects;
};

}  // namespace bench
