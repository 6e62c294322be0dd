# Limits the exports of a shared library to the functions that the public headers mark with TQ_API. The standard
# library's templates would be visible otherwise, whatever -fvisibility says. Further names are what the host itself
# looks for.
function(restrict_exports target)
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/*.h)
  set(names ${ARGN})
  foreach(header ${headers})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
    file(STRINGS ${header} lines REGEX "^TQ_API ")
    foreach(line ${lines})
      if(line MATCHES "([A-Za-z_][A-Za-z0-9_]*)\\(")
        list(APPEND names ${CMAKE_MATCH_1})
      else()
        message(FATAL_ERROR "${header}: no function name on the line: ${line}")
      endif()
    endforeach()
  endforeach()
  list(SORT names)
  list(JOIN names ";\n    " body)
  set(map ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
  file(WRITE ${map}.new "{\n  global:\n    ${body};\n  local: *;\n};\n")
  execute_process(COMMAND ${CMAKE_COMMAND} -E copy_if_different ${map}.new ${map})
  set_target_properties(${target} PROPERTIES LINK_DEPENDS ${map})
  # A worker may still run when the last environment that loaded the library has gone: the code must stay.
  target_link_options(${target} PRIVATE -Wl,-z,nodelete -Wl,--version-script=${map} -Wl,-Bsymbolic-functions -Wl,--gc-sections
    -Wl,-z,now -Wl,-z,relro)
endfunction()
