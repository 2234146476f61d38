# tolvar_header_check(NAME folder...): a target that compiles every header of the folders as the only
# content of a translation unit, twice, so that a header that leans on its includer or lacks its guard
# breaks the build. Part of `all`.
function(tolvar_header_check name)
  set(units)
  foreach(folder ${ARGN})
    file(GLOB headers RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
      ${PROJECT_SOURCE_DIR}/${folder}/*.h)
    foreach(header ${headers})
      string(MAKE_C_IDENTIFIER ${header} unit)
      set(file ${CMAKE_CURRENT_BINARY_DIR}/${name}/${unit}.cpp)
      file(GENERATE OUTPUT ${file} CONTENT "#include \"${header}\"\n#include \"${header}\"\n")
      list(APPEND units ${file})
    endforeach()
  endforeach()
  add_library(${name} OBJECT ${units})
  target_link_libraries(${name} PRIVATE tolvar_options)
endfunction()
