#pragma once

#include <vfs/exceptions.hpp>

#include <foundation/core/except/exception.hpp>

namespace foundation::storage::vfs::detail {

/// InvalidIRIException that can carry Boost error information, such as the nested cause.
using InvalidIRI = core::except::detail::AnonymousInternalException<InvalidIRIException>;

} // namespace foundation::storage::vfs::detail
