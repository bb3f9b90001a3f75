/*
 * The log sources that exist without being registered.
 */
#pragma once

namespace platform {

// The numbers are indices into the table of sources; registered sources follow.
constexpr int log_source_unregistered = 0;
constexpr int log_source_core_header = 1;
constexpr int log_source_platform = 2;

}  // namespace platform
