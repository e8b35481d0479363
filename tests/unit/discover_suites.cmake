# Lists the suites of a test program for ctest, each as one test:
#
#   cmake -D PROGRAM=... -D LIST=... -D REPORTS=... -P discover_suites.cmake
#
# A process for each test instead would spend most of its time on starting and ending: the
# sanitizers take a sixth of a second for that.
execute_process(
  COMMAND "${PROGRAM}" --gtest_list_tests
  OUTPUT_VARIABLE listed
  COMMAND_ERROR_IS_FATAL ANY
  TIMEOUT 60)

# A suite's line begins with its name and a full stop, a test's line with spaces.
string(REGEX MATCHALL "\n[^ \n]+\\." suites "\n${listed}")
if(NOT suites)
  message(FATAL_ERROR "${PROGRAM} has no tests")
endif()
set(script "")
foreach(suite ${suites})
  string(REGEX REPLACE "^\n(.*)\\.$" "\\1" suite "${suite}")
  string(REPLACE "/" "-" report "${suite}")
  string(APPEND script
    "add_test([=[${suite}]=] [=[${PROGRAM}]=]\n"
    "  [=[--gtest_filter=${suite}.*]=] [=[--gtest_output=xml:${REPORTS}/${report}.xml]=])\n"
    "set_tests_properties([=[${suite}]=] PROPERTIES TIMEOUT 300)\n")
endforeach()
file(WRITE "${LIST}" "${script}")
