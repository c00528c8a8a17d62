# The library as other programs get it: static and shared, one header, and how to find them.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(fsfilter_version 1.0.0)
set(fsfilter_soversion 1)

# A copy of the public header on its own keeps the others out of reach.
configure_file(fsfilter.h ${PROJECT_BINARY_DIR}/interface/fsfilter/fsfilter.h COPYONLY)

set(fsfilter_exports ${CMAKE_CURRENT_SOURCE_DIR}/package/libfsfilter.map)
add_library(fsfilter_shared SHARED $<TARGET_OBJECTS:fsfilter>)
target_include_directories(fsfilter_shared INTERFACE ${PROJECT_BINARY_DIR}/interface/fsfilter)
target_link_libraries(fsfilter_shared PRIVATE pelo_options)
# Never unloaded: the worker threads are detached, and run its code until they have left. Its own
# calls stay inside, whatever a program calls its functions.
target_link_options(fsfilter_shared PRIVATE
  LINKER:--version-script=${fsfilter_exports} LINKER:-z,nodelete LINKER:-Bsymbolic-functions)
set_target_properties(fsfilter_shared PROPERTIES
  OUTPUT_NAME fsfilter VERSION ${fsfilter_version} SOVERSION ${fsfilter_soversion}
  LINKER_LANGUAGE CXX LINK_DEPENDS ${fsfilter_exports})

set(fsfilter_pc_directory ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(fsfilter_cmake_directory ${CMAKE_INSTALL_LIBDIR}/cmake/fsfilter)
set(fsfilter_generated ${CMAKE_CURRENT_BINARY_DIR}/package)
# Found from where the file lies, so that the installed copy can be moved; where the folders are
# absolute, they are what they are.
set(fsfilter_pc_prefix ${CMAKE_INSTALL_PREFIX})
if(NOT IS_ABSOLUTE ${fsfilter_pc_directory})
  file(RELATIVE_PATH fsfilter_pc_prefix /${fsfilter_pc_directory} /)
  string(REGEX REPLACE "/$" "" fsfilter_pc_prefix "\${pcfiledir}/${fsfilter_pc_prefix}")
endif()
foreach(directory LIBDIR INCLUDEDIR)
  set(fsfilter_pc_${directory} ${CMAKE_INSTALL_${directory}})
  if(NOT IS_ABSOLUTE ${CMAKE_INSTALL_${directory}})
    set(fsfilter_pc_${directory} "\${prefix}/${CMAKE_INSTALL_${directory}}")
  endif()
endforeach()
configure_file(package/fsfilter.pc.in ${fsfilter_generated}/fsfilter.pc @ONLY)
configure_package_config_file(package/fsfilterConfig.cmake.in
  ${fsfilter_generated}/fsfilterConfig.cmake
  INSTALL_DESTINATION ${fsfilter_cmake_directory}
  PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${fsfilter_generated}/fsfilterConfigVersion.cmake
  VERSION ${fsfilter_version} COMPATIBILITY SameMajorVersion)

install(TARGETS fsfilter fsfilter_shared COMPONENT fsfilter)
install(FILES fsfilter.h TYPE INCLUDE COMPONENT fsfilter)
install(FILES ${fsfilter_generated}/fsfilter.pc
        DESTINATION ${fsfilter_pc_directory} COMPONENT fsfilter)
install(FILES ${fsfilter_generated}/fsfilterConfig.cmake
              ${fsfilter_generated}/fsfilterConfigVersion.cmake
        DESTINATION ${fsfilter_cmake_directory} COMPONENT fsfilter)
