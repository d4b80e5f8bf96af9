# `cmake --install` puts the headers, the shared libraries and a package configuration in a
# prefix; applications then use find_package(vfs CONFIG REQUIRED) and link vfs::vfs (the
# library) or vfs::standard (the ready storage system with its providers).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(vfs_installed_targets
  foundation_core:core foundation_eventmgr:eventmgr foundation_event_kinds:event_kinds foundation_events:events
  foundation_provider:provider foundation_memory_provider:memory_provider foundation_local_provider:local_provider
  foundation_provider_wrappers:provider_wrappers foundation_archive_provider:archive_provider
  foundation_s3_provider:s3_provider foundation_sftp_provider:sftp_provider vfs:vfs vfs_standard:standard)

set(vfs_target_names)
foreach(pair IN LISTS vfs_installed_targets)
  string(REPLACE ":" ";" fields "${pair}")
  list(GET fields 0 target)
  list(GET fields 1 export_name)
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${export_name})
  list(APPEND vfs_target_names ${target})
endforeach()

# Installed libraries find each other beside themselves.
set_target_properties(${vfs_target_names} PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS ${vfs_target_names} EXPORT vfsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

foreach(dir platform/core platform/event_manager platform/event_kinds platform/provider_interface providers/memory providers/local
            providers/wrappers providers/archive providers/s3 providers/sftp systems/standard .)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${dir}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endforeach()

install(EXPORT vfsTargets NAMESPACE vfs:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vfs)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/vfsConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/vfsConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vfs)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/vfsConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vfsConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/vfsConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vfs)
