#pragma once

/// Marks a declaration as part of a shared library's exported interface. Everything else
/// is hidden (the build uses -fvisibility=hidden). Exception and other polymorphic types
/// that cross library boundaries must carry it so that RTTI matches in every module.
#if defined(_WIN32)
#define FOUNDATION_API
#else
#define FOUNDATION_API __attribute__((visibility("default")))
#endif
