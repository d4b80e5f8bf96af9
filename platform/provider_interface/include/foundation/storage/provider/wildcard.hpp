#pragma once

#include <foundation/core/visibility.hpp>

#include <string_view>

namespace foundation::storage::provider {

/// Whether `name` matches `pattern`, code unit by code unit and case-sensitive. `*` matches
/// any run of code units and `?` exactly one; nothing else is special (no escapes, `[` is
/// literal). An empty pattern matches only the empty name. Deliberate asymmetry: a single
/// trailing `*` matches an empty remainder (`a*` matches `a`) but two or more trailing `*`
/// need at least one more code unit (`a**` does not match `a`, `**` not the empty name).
/// Every provider that filters listings uses this matcher, so that filtering by the
/// provider and by the library agree. Linear in practice; allocates nothing.
FOUNDATION_API bool matchesWildcard(std::u16string_view pattern, std::u16string_view name) noexcept;

} // namespace foundation::storage::provider
