/*
 * libfabric, loaded when the first device is opened: a program that links this platform without
 * using it does not need libfabric.
 */
#pragma once

#include <rdma/fabric.h>

namespace fabric {

/**
 * The functions that libfabric exports; all others are reached through the objects that it creates.
 */
struct library {
    decltype(&::fi_getinfo) get_info;
    decltype(&::fi_freeinfo) free_info;
    decltype(&::fi_dupinfo) duplicate_info;
    decltype(&::fi_fabric) open_fabric;
    decltype(&::fi_strerror) describe_error;
};

/**
 * While one of these lives, a fork in another thread waits. libfabric and the dynamic loader have
 * locks for the whole process; a child forked while another thread holds one could never take it.
 * Code that loads libfabric, or looks for, opens or closes a provider, holds one of these.
 */
class fork_delay {
public:
    fork_delay();
    fork_delay(const fork_delay&) = delete;
    fork_delay& operator=(const fork_delay&) = delete;
    ~fork_delay();
};

/**
 * Loads libfabric and never unloads it; throws ROVA_ERROR_INITIALIZATION if it cannot be loaded.
 */
const library& loaded_library();

}  // namespace fabric
