# What "cmake --install" lays down below the prefix: programs, libraries and the module in the component "runtime",
# headers and build descriptions in "development".
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
  install(FILES ${header} DESTINATION include/pallion/${folder} COMPONENT development)
endforeach()

install(TARGETS pallion-platform EXPORT PallionTargets
        LIBRARY DESTINATION ${PALLION_LIBRARY_DIRECTORY} COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS PLAppMigrator EXPORT PallionTargets
        LIBRARY DESTINATION ${PALLION_MODULE_DIRECTORY} COMPONENT runtime)

set(cmake_directory ${PALLION_LIBRARY_DIRECTORY}/cmake/Pallion)
install(EXPORT PallionTargets NAMESPACE Pallion:: DESTINATION ${cmake_directory} COMPONENT development)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/PallionConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/PallionConfig.cmake ${CMAKE_BINARY_DIR}/PallionConfigVersion.cmake DESTINATION ${cmake_directory}
        COMPONENT development)

file(RELATIVE_PATH PALLION_PC_TO_PREFIX /${PALLION_LIBRARY_DIRECTORY}/pkgconfig /)
configure_file(packaging/pallion.pc.in ${CMAKE_BINARY_DIR}/pallion.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/pallion.pc DESTINATION ${PALLION_LIBRARY_DIRECTORY}/pkgconfig COMPONENT development)

set(PALLION_HOST ${CMAKE_INSTALL_PREFIX}/bin/migration-host)
configure_file(packaging/pallion-migration.service.in ${CMAKE_BINARY_DIR}/pallion-migration.service @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/pallion-migration.service DESTINATION lib/systemd/system COMPONENT runtime)
