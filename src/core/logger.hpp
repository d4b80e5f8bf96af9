#pragma once

#include <foundation/log/diagnostic_logger.hpp>

namespace foundation::storage::vfs::detail {

/// The library's one diagnostic logger, "foundation::storage::vfs", built when the library
/// is loaded and destroyed when it is unloaded.
foundation::log::diagnostic_logger& getLogger() noexcept;

} // namespace foundation::storage::vfs::detail
