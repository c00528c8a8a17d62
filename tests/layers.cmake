# Tries what must not compile: for a target of each folder, whether the compiler, called as for its
# sources, finds the headers of other folders. Run by ctest with BUILD set to the build directory.
#
# A row: folder and target, then the folders of which it finds some headers, or "folder/header" for
# those of which it finds these alone. Of every other folder it finds none.
cmake_policy(VERSION 3.25)
set(rows
  "fsfilter/fsfilter base"
  "logging/logging base"
  "config/config base logging"
  "scanner/scanner base logging config"
  "mounts/mounts base logging config fsfilter"
  "onaccess/onaccess base logging config fsfilter scanner mounts"
  "schedule/schedule base logging config fsfilter scanner mounts onaccess"
  "daemon/daemon_core base logging config fsfilter scanner mounts onaccess schedule"
  "ctl/pelowatchctl base logging config fsfilter mounts/mountpt.h mounts/served_mount.h\
 schedule/commandparser.h schedule/job_schedule.h")
set(folders base config ctl daemon fsfilter logging mounts onaccess scanner schedule)

get_filename_component(root ${CMAKE_CURRENT_LIST_DIR} DIRECTORY)
file(READ ${BUILD}/compile_commands.json commands)
set(probe ${BUILD}/layers_probe.cpp)

# Sets found to those headers of a list, as folder/header, that a target's sources find.
function(find_headers folder target headers)
  if(NOT commands MATCHES "\"command\": \"([^\n]*) -o ${folder}/CMakeFiles/${target}\\.dir/")
    message(FATAL_ERROR "there is no command that compiles ${target}")
  endif()
  string(JSON command GET "{\"command\": \"${CMAKE_MATCH_1}\"}" command)
  separate_arguments(command UNIX_COMMAND "${command}")
  set(text "")
  foreach(header IN LISTS headers)
    get_filename_component(name ${header} NAME)
    string(APPEND text "#if __has_include(\"${name}\")\n<${header}>\n#endif\n")
  endforeach()
  file(WRITE ${probe} "${text}")
  execute_process(COMMAND ${command} -E -P ${probe} WORKING_DIRECTORY ${BUILD}
                  OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "<[^>]*>" output "${output}")
  list(TRANSFORM output REPLACE "[<>]" "")
  set(found "${output}" PARENT_SCOPE)
endfunction()

set(failures "")
foreach(row IN LISTS rows)
  string(REPLACE " " ";" row "${row}")
  list(POP_FRONT row source)
  get_filename_component(own ${source} DIRECTORY)
  get_filename_component(target ${source} NAME)
  foreach(folder IN LISTS folders)
    file(GLOB headers RELATIVE ${root} ${root}/${folder}/*.h)
    foreach(header IN LISTS headers)
      # A header of the same name in the folder itself would be found instead.
      get_filename_component(name ${header} NAME)
      if(EXISTS ${root}/${own}/${name})
        list(REMOVE_ITEM headers ${header})
      endif()
    endforeach()
    if(folder STREQUAL own OR NOT headers)
      continue()
    endif()
    find_headers(${own} ${target} "${headers}")
    set(named ${row})
    list(FILTER named INCLUDE REGEX "^${folder}/.")
    if(folder IN_LIST row)
      if(NOT found)
        list(APPEND failures "${source} finds no header of ${folder}")
      endif()
    elseif(NOT "${found}" STREQUAL "${named}")
      list(APPEND failures "${source} finds \"${found}\" of ${folder} and should find \"${named}\"")
    endif()
  endforeach()
endforeach()
if(failures)
  list(JOIN failures "\n" failures)
  message(FATAL_ERROR "${failures}")
endif()
