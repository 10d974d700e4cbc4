# Included by ctest when it starts: one entry for each suite of a gtest program, so that no entry holds a whole program
# and a suite's costly set-up is done once. The program lists its suites itself; the list is kept beside it and made
# anew when the program is newer, so that ctest after a build needs no configuring.
cmake_policy(VERSION 3.25)

# The list of a program, made anew where it is older. A program that cannot be run has none. The emulator is what runs
# programs for another processor, else empty.
function(vexo_list_suites program list emulator)
  if(NOT EXISTS ${program} OR NOT ${program} IS_NEWER_THAN ${list})
    return()
  endif()
  execute_process(COMMAND ${emulator} ${program} --gtest_list_tests OUTPUT_VARIABLE said RESULT_VARIABLE code ERROR_QUIET)
  string(REGEX MATCHALL "(^|\n)[A-Za-z0-9_/]+\\.[^\n]*" lines "${said}") # tests are indented; the first line is prose
  set(suites "")
  foreach(line IN LISTS lines)
    string(REGEX MATCH "[A-Za-z0-9_/]+" suite "${line}")
    string(APPEND suites "${suite}\n")
  endforeach()
  if(code EQUAL 0)
    file(WRITE ${list} "${suites}")
  endif()
endfunction()

# A time limit is there against hangs alone: half an hour, where the longest suite takes a minute.
function(vexo_add_suites name program label emulator)
  set(list ${program}.suites)
  vexo_list_suites(${program} ${list} "${emulator}")
  set(suites "")
  if(EXISTS ${program} AND EXISTS ${list})
    file(STRINGS ${list} suites)
  endif()
  foreach(suite IN LISTS suites)
    add_test(${name}.${suite} ${emulator} ${program} --gtest_filter=${suite}.*)
    set_tests_properties(${name}.${suite} PROPERTIES LABELS "${label}" TIMEOUT 1800)
  endforeach()
  if(NOT suites) # not built, or it does not start: the entry fails and says so
    add_test(${name} ${emulator} ${program})
    set_tests_properties(${name} PROPERTIES LABELS "${label}" TIMEOUT 1800)
  endif()
endfunction()
