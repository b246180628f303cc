# Where libraries and module stand below the prefix, which is also how programs find them: from their own place. Ordinarily
# that is ../lib, in the build directory as well, and the whole copy may be moved anywhere. Below /usr, where packages
# go, libraries stand where the system's do, and the module in a directory of ours.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  include(GNUInstallDirs)
  set(PALLION_LIBRARY_DIRECTORY ${CMAKE_INSTALL_LIBDIR})
  set(PALLION_MODULE_DIRECTORY ${CMAKE_INSTALL_LIBDIR}/pallion)
  # Programs run in the build directory, too; the installed ones need no search path.
  set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
else()
  set(PALLION_LIBRARY_DIRECTORY lib)
  set(PALLION_MODULE_DIRECTORY lib)
  set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib")
  set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
endif()
