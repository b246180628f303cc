option(PALLION_TESTS "Build tests and benchmarks" ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Kind of build" FORCE)
endif()
set(PALLION_SANITIZE "" CACHE STRING "Sanitizers: 'address,undefined', 'thread' or none")

option(PALLION_FUZZ "Build the fuzz targets for libFuzzer (clang only; see the preset fuzz)" OFF)
if(PALLION_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

option(PALLION_COVERAGE "Count what of the product's four folders is run (g++ only; see ./dev coverage)" OFF)

# Warnings, visibility and hardening that every target of ours is built with.
function(pallion_target target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
    -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual -Wformat=2 -Wundef
    -fstack-protector-strong -fstack-clash-protection -fno-plt)
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_compile_definitions(${target} PRIVATE _GLIBCXX_ASSERTIONS _FILE_OFFSET_BITS=64)
  # An object inside the tree is named without the path of the machine that built it.
  target_compile_options(${target} PRIVATE -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    target_compile_options(${target} PRIVATE -ffile-prefix-map=${CMAKE_BINARY_DIR}=build)
  endif()
  if(PALLION_SANITIZE)
    target_compile_options(${target} PUBLIC -fsanitize=${PALLION_SANITIZE} -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=${PALLION_SANITIZE})
    if(PALLION_SANITIZE MATCHES "undefined")
      # The vptr check probes memory through a pipe of its own, which tests that refuse system calls or take all
      # descriptors away would make it fail.
      target_compile_options(${target} PUBLIC -fno-sanitize-recover=undefined -fno-sanitize=vptr)
    endif()
  else()
    # Fortification and the sanitizers' interceptors exclude each other.
    target_compile_options(${target} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
  endif()
  target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack
    # clang has the sanitizers in programs only, and libraries that miss them until then.
    $<$<NOT:$<BOOL:${PALLION_FUZZ}>>:-Wl,-z,defs>
    $<$<STREQUAL:$<TARGET_PROPERTY:${target},TYPE>,EXECUTABLE>:-pie>)
endfunction()
