# Makes a C++ header with the content of a text file, for programs that carry one with them:
#
#   cmake -DINPUT=page.html -DOUTPUT=page_template.h -DNAME=kPageTemplate -DNAMESPACE=pallion -P text_as_header.cmake
#
# Depends on nothing but the text, so that the same text gives the same program.
file(READ ${INPUT} text)
if(text MATCHES "\\)text\"")
  message(FATAL_ERROR "${INPUT}: holds what ends a C++ raw string")
endif()
file(WRITE ${OUTPUT} "#pragma once\n\n#include <string_view>\n\nnamespace ${NAMESPACE} {\n\n"
  "inline constexpr std::string_view ${NAME} = R\"text(${text})text\";\n\n}  // namespace ${NAMESPACE}\n")
