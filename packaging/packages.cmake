# The Debian packages of a build for the prefix /usr: "cpack" makes them, "./dev package" makes and tries them. The same
# sources give the same bytes wherever and whenever they are built, as long as SOURCE_DATE_EPOCH and the umask are the
# same: cpack gives that time to every file, sorts them, and makes them root's.
set(release 1)
set(PALLION_PACKAGE_VERSION ${PROJECT_VERSION}-${release})

configure_file(packaging/changelog.in ${CMAKE_BINARY_DIR}/changelog @ONLY)
pallion_compressed(changelog.Debian.gz ${CMAKE_BINARY_DIR}/changelog)
foreach(package_and_component pallion:runtime libpallion-dev:development)
  string(REPLACE ":" ";" both ${package_and_component})
  list(GET both 0 package)
  list(GET both 1 component)
  install(FILES packaging/copyright ${CMAKE_BINARY_DIR}/changelog.Debian.gz DESTINATION share/doc/${package}
          COMPONENT ${component})
endforeach()
# What --json prints.
install(FILES docs/json-lines.schema.json DESTINATION share/doc/pallion COMPONENT runtime)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pallion)
set(CPACK_PACKAGE_CONTACT "Pallion developers <pallion@localhost>")
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${release})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME pallion)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# The package's own library, which others are built against.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/shlibs
     CONTENT "libpallion-platform 1 pallion (= ${PALLION_PACKAGE_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/shlibs ${CMAKE_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "migration of applications to the new on-disk layout
Carries every user-installed application of a device from the old layout, one
directory an application, into the new one, where bundles and user data stand
in containers of their own. An interrupted run is finished by the next.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libpallion-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "pallion (= ${PALLION_PACKAGE_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "migration of applications to the new on-disk layout: development files
Headers and build descriptions for programs that use the installer platform,
and for plug-ins of the migration host.")
include(CPack)
