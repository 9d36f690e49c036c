# Run by ctest before the tests: each suite of a gtest program becomes a test of ctest. A process a
# suite rather than a test, since under a sanitizer starting one takes longer than most tests do.
#
# In: program, prefix, label, properties.
execute_process(COMMAND ${program} --gtest_list_tests OUTPUT_VARIABLE list RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${program} --gtest_list_tests ended with ${status}")
endif()
# CMake would read these, which a parameter's value may hold, as ends of lists' elements or as none.
string(REGEX REPLACE "[][;]" " " list "${list}")
string(REGEX MATCHALL "[^\n]+" lines "${list}")
set(count 0)
foreach(line ${lines})
  # Suites stand at the line's begin and end in a dot, their tests are indented.
  if(line MATCHES "^([A-Za-z0-9_/]+)\\.( |$)")
    set(suite ${CMAKE_MATCH_1})
    add_test("${prefix}${suite}" ${program} "--gtest_filter=${suite}.*" --gtest_brief=1)
    set_tests_properties("${prefix}${suite}" PROPERTIES
      LABELS ${label} TIMEOUT 600 PROCESSORS 1 ${properties})
    math(EXPR count "${count} + 1")
  endif()
endforeach()
if(count EQUAL 0)
  message(FATAL_ERROR "${program} --gtest_list_tests names no suite")
endif()
