# find_package(Pallion) offers Pallion::Platform, the operating system's side, and Pallion::AppMigrator, the functions and
# constants that the migrator's module exports.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include("${CMAKE_CURRENT_LIST_DIR}/PallionTargets.cmake")
