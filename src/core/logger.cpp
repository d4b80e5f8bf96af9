#include "core/logger.hpp"

namespace foundation::storage::vfs::detail {

namespace {
foundation::log::diagnostic_logger libraryLogger("foundation::storage::vfs");
} // namespace

foundation::log::diagnostic_logger& getLogger() noexcept { return libraryLogger; }

} // namespace foundation::storage::vfs::detail
