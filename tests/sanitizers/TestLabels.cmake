# orv_label_tests(target LABELS label... [MATCHING regex])
#
# Gives the gtest cases that orv_add_test discovered for `target` (all of them,
# or those whose full names match `regex`) exactly the labels listed. Call it
# after orv_add_test and repeat the folder's own label: ctest can replace a
# case's label list but not extend it.
#
# The label "concurrency" marks the cases that tools/check-sanitizers.sh thread
# runs under TSan: give it to every case that runs library code on more than
# one thread.
#
# Cases are only known once the test binary has been listed, so the labels are
# set by a small script that ctest reads after the discovered cases. A MATCHING
# that selects none of them (a case renamed, say) adds a failing test rather
# than silently taking the cases out of the TSan run.
function(orv_label_tests target)
  cmake_parse_arguments(L "" "MATCHING" "LABELS" ${ARGN})
  if(NOT L_LABELS)
    message(FATAL_ERROR "orv_label_tests(${target}): LABELS is required")
  endif()
  if(NOT L_MATCHING)
    set(L_MATCHING ".")
  endif()
  string(MD5 key "${target};${L_LABELS};${L_MATCHING}")
  set(script "${CMAKE_CURRENT_BINARY_DIR}/${target}_labels_${key}.cmake")
  file(WRITE "${script}" "\
set(orv_matched 0)
foreach(orv_test IN LISTS ${target}_TESTS)
  if(orv_test MATCHES [=[${L_MATCHING}]=])
    set_tests_properties(\"\${orv_test}\" PROPERTIES LABELS [=[${L_LABELS}]=])
    math(EXPR orv_matched \"\${orv_matched} + 1\")
  endif()
endforeach()
if(${target}_TESTS AND orv_matched EQUAL 0)
  add_test([=[${target}.labels_match_no_case]=] \"${CMAKE_COMMAND}\" -E false)
endif()
")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${script}")
endfunction()
