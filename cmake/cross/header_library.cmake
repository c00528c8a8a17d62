# header_library(TARGET FOLDER HEADER): a library of the build machine that is headers alone, as a
# cross build can use it: through links of its own, since /usr/include itself is of another ABI.
function(header_library target folder header)
  if(TARGET ${target})
    return()
  endif()
  find_path(${folder}_PARENT ${folder}/${header} PATHS /usr/include NO_DEFAULT_PATH
            NO_CMAKE_FIND_ROOT_PATH)
  if(NOT ${folder}_PARENT)
    return()
  endif()
  set(links ${PROJECT_BINARY_DIR}/header_libraries/${folder})
  file(MAKE_DIRECTORY ${links})
  file(CREATE_LINK ${${folder}_PARENT}/${folder} ${links}/${folder} SYMBOLIC)
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${links})
endfunction()
