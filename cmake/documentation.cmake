# Manual pages and completions of the shells. What they say of the programs' options comes from the programs.

# Makes OUTPUT, a name in the build directory, from a file: the same bytes at any time.
function(pallion_compressed output file)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/${output}
    COMMAND gzip -9nc ${file} > ${CMAKE_BINARY_DIR}/${output} DEPENDS ${file} VERBATIM)
  string(MAKE_C_IDENTIFIER ${output} name)
  add_custom_target(make_${name} ALL DEPENDS ${CMAKE_BINARY_DIR}/${output})
endfunction()

# Installs what `program` prints about its options for a shell.
function(pallion_completion program shell file directory)
  set(output ${CMAKE_BINARY_DIR}/completions/${shell}/${file})
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/completions/${shell})
  add_custom_command(OUTPUT ${output} COMMAND ${program} --print-options ${shell} > ${output} DEPENDS ${program} VERBATIM)
  add_custom_target(${shell}-completion-of-${program} ALL DEPENDS ${output})
  install(FILES ${output} DESTINATION share/${directory} COMPONENT runtime)
endfunction()

# Where zsh looks: what its packages bring has a place of its own.
set(zsh_directory zsh/site-functions)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(zsh_directory zsh/vendor-completions)
endif()

set(manuals ${CMAKE_BINARY_DIR}/man)
file(MAKE_DIRECTORY ${manuals})
foreach(program migration-host palliontool make-old-layout)
  pallion_completion(${program} bash ${program} bash-completion/completions)
  pallion_completion(${program} zsh _${program} ${zsh_directory})
  pallion_completion(${program} fish ${program}.fish fish/vendor_completions.d)
  # The page with the program's own words in the place of the mark.
  set(page ${CMAKE_SOURCE_DIR}/docs/man/${program}.1)
  add_custom_command(OUTPUT ${manuals}/${program}.1
    COMMAND ${program} --print-options man > ${manuals}/${program}.options
    COMMAND sed -e "/^@OPTIONS@/{r ${manuals}/${program}.options" -e "d}" ${page} > ${manuals}/${program}.1
    DEPENDS ${program} ${page} VERBATIM)
endforeach()

file(GLOB pages RELATIVE ${CMAKE_SOURCE_DIR}/docs/man CONFIGURE_DEPENDS docs/man/*.[157])
foreach(page ${pages})
  string(REGEX REPLACE ".*\\." "" section ${page})
  if(section EQUAL 1)
    pallion_compressed(man/${page}.gz ${manuals}/${page})
  else()
    pallion_compressed(man/${page}.gz ${CMAKE_SOURCE_DIR}/docs/man/${page})
  endif()
  # The interface of plug-ins is read by those who write one, the others by those who run programs.
  set(component runtime)
  if(section EQUAL 7)
    set(component development)
  endif()
  install(FILES ${manuals}/${page}.gz DESTINATION share/man/man${section} COMPONENT ${component})
endforeach()
