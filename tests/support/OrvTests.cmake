# Functions that add tests. Each test gets the label of its folder, ORV_TEST_LABEL.
include(GoogleTest)

set(ORV_TEST_SECONDS 300) # after this, a test counts as hanging
# ctest starts tests of a high cost first, so that no processor waits for the last one. A script takes longer than a test
# of a program.
set(ORV_TEST_COST 0)

# With an emulator or a sanitizer a program takes longer to start than most tests take to run.
option(ORV_TEST_BY_SUITE "Run a suite of tests in one process, not each test in its own" OFF)

# orv_add_test(NAME COMMAND...): adds any command.
function(orv_add_test name)
  add_test(NAME ${name} COMMAND ${ARGN} COMMAND_EXPAND_LISTS)
  set_tests_properties(${name} PROPERTIES LABELS ${ORV_TEST_LABEL} TIMEOUT ${ORV_TEST_SECONDS})
endfunction()

# orv_add_python_test(NAME SCRIPT ARGUMENT...): adds a script of this folder, which may import the modules of support/.
# The script ends with 77 if it was skipped.
function(orv_add_python_test name script)
  orv_add_test(${name} ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/${script} ${ARGN})
  set(environment PYTHONPATH=${PROJECT_SOURCE_DIR}/tests/support ORV_VERSION=${PROJECT_VERSION}
                  ORV_ORACLE=${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/oracle.json)
  set_tests_properties(${name} PROPERTIES SKIP_RETURN_CODE 77 ENVIRONMENT "${environment}" COST 10)
endfunction()

# orv_discover_tests(PROGRAM): adds each test of the program, to run in a process of its own.
function(orv_discover_tests program)
  gtest_discover_tests(${program} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS ${ORV_TEST_LABEL} TIMEOUT
                       ${ORV_TEST_SECONDS} COST ${ORV_TEST_COST})
endfunction()

# orv_add_suites(PROGRAM SOURCE...): adds a test for each suite in the sources, and one that checks for other suites.
function(orv_add_suites program)
  set(all "-")
  foreach(source IN LISTS ARGN)
    file(STRINGS ${source} lines REGEX "^TEST(_F|_P)?\\(")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^TEST[_FP]*\\(([A-Za-z0-9]+).*" "\\1" suite "${line}")
      list(APPEND suites ${suite})
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES suites)
  foreach(suite IN LISTS suites)
    orv_add_test(${suite} ${program} --gtest_filter=${suite}.*:*/${suite}.*)
    set_tests_properties(${suite} PROPERTIES FAIL_REGULAR_EXPRESSION "Running 0 tests from 0 test suites")
    string(APPEND all "${suite}.*:*/${suite}.*:")
  endforeach()
  orv_add_test(${program}.others ${program} --gtest_filter=${all})
  set_tests_properties(${program}.others PROPERTIES PASS_REGULAR_EXPRESSION "Running 0 tests from 0 test suites")
endfunction()

# orv_add_plain_test_program(NAME SOURCE...): adds a program without wrapped system calls, because ThreadSanitizer makes
# system calls while it reports.
function(orv_add_plain_test_program name)
  add_executable(${name} ${ARGN})
  orv_host_program(${name} orv_test_support)
  if(ORV_TEST_BY_SUITE)
    orv_add_suites(${name} ${ARGN})
  else()
    orv_discover_tests(${name})
  endif()
endfunction()

# orv_add_test_program(NAME SOURCE...): adds a program whose wrappers the libraries call.
function(orv_add_test_program name)
  orv_add_plain_test_program(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE orv_test_faults)
endfunction()
