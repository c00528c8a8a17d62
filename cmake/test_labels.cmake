# Read by ctest, for the tests of one program: gives them the labels of the program, and those that
# its sources name in a comment directly above a test, or above the fixture of tests or their
# instantiation:
#
#   // labels: alone essential
#
# Set before: program_labels, and the lists tests and sources.
cmake_policy(VERSION 3.25)
set(known alone long essential one-processor)
set(name "[A-Za-z0-9_]+")
set(marked "[A-Z_]*TEST_?[A-Z_]*\\(${name},[ \n]*${name}|(class|struct|using) ${name}")
set(patterns "")
foreach(source IN LISTS sources)
  file(READ ${source} text)
  string(REGEX MATCHALL "// labels:" comments "${text}")
  string(REGEX MATCHALL "// labels: [a-z -]+\n(${marked})" comments_above_tests "${text}")
  list(LENGTH comments count)
  list(LENGTH comments_above_tests count_above_tests)
  if(NOT count EQUAL count_above_tests)
    message(FATAL_ERROR "${source}: labels stand above neither a test nor a fixture")
  endif()
  foreach(comment IN LISTS comments_above_tests)
    string(REGEX MATCH "^// labels: ([^\n]*)\n(.*)" comment "${comment}")
    string(REPLACE " " ";" labels "${CMAKE_MATCH_1}")
    # What follows the word and its bracket: "Suite, Test", "Instance, Suite" or the name of the
    # fixture.
    string(REGEX REPLACE "^[A-Z_a-z]+[( ]" "" place "${CMAKE_MATCH_2}")
    string(REGEX REPLACE ",[ \n]*" "[./]" place "${place}")
    foreach(label IN LISTS labels)
      if(NOT label IN_LIST known)
        message(FATAL_ERROR "${source}: there is no label ${label}, only: ${known}")
      endif()
      list(APPEND patterns_${label} ${place})
    endforeach()
  endforeach()
endforeach()

foreach(test IN LISTS tests)
  set(labels ${program_labels})
  foreach(label IN LISTS known)
    foreach(pattern IN LISTS patterns_${label})
      if(test MATCHES "^(.*/)?${pattern}([./]|$)")
        list(APPEND labels ${label})
        break()
      endif()
    endforeach()
  endforeach()
  set_tests_properties(${test} PROPERTIES LABELS "${labels}")
  if(alone IN_LIST labels)
    set_tests_properties(${test} PROPERTIES RUN_SERIAL TRUE)
  endif()
  # Those that wait long begin first, so that none of them is the only one left.
  if(long IN_LIST labels)
    set_tests_properties(${test} PROPERTIES COST 100)
  endif()
endforeach()
foreach(label IN LISTS known)
  unset(patterns_${label})
endforeach()
