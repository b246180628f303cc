# What "cmake --install" lays down: bin, lib, lib/cmake/Pallion and include/pallion below the prefix. The folders' names are
# fixed, not options: programs look for libraries and module in ../lib, so that the whole tree may be moved anywhere.
include(CMakePackageConfigHelpers)

set(public_headers
  foundation/error.h
  foundation/export.h
  foundation/file_contents.h
  foundation/format.h
  foundation/property_list.h
  foundation/url.h
  foundation/value.h
  platform/app_workspace.h
  platform/bundle.h
  platform/cpu_usage_monitor.h
  platform/icon.h
  platform/installer_service.h
  platform/migration_log.h
  platform/migration_plugin.h
  platform/product_log.h
  platform/registry.h
  platform/service_transactions.h
  platform/task_queue.h
  file_operations/error_makers.h
  support/bundle_metadata.h
  support/file_digest.h
  support/process_helpers.h
  support/value_helpers.h)
foreach(header ${public_headers})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION include/pallion/${folder})
endforeach()

install(TARGETS pallion-platform PLAppMigrator EXPORT PallionTargets LIBRARY DESTINATION lib)
install(EXPORT PallionTargets NAMESPACE Pallion:: DESTINATION lib/cmake/Pallion)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/PallionConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/PallionConfig.cmake ${CMAKE_BINARY_DIR}/PallionConfigVersion.cmake DESTINATION lib/cmake/Pallion)
