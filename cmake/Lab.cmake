# The gateway lab: every GoogleTest case of a lab test binary runs in its
# own freshly started simulated gateway (lab/run, see lab/README.md).
get_filename_component(ZQ_LAB_DIR ${CMAKE_CURRENT_LIST_DIR}/../lab ABSOLUTE)
set(ZQ_LAB_RUN ${ZQ_LAB_DIR}/run)

if(NOT TARGET zqlab_helper)
  add_subdirectory(${ZQ_LAB_DIR} ${CMAKE_BINARY_DIR}/lab)
endif()

# zq_lab_discover_tests(<target> <scenario>)
#   Registers the cases of <target> with CTest; each runs as
#   lab/run --scenario <scenario> -- [emulator] <target> --gtest_filter=<case>.
#   Discovery runs inside a lab as well, at test time.
function(zq_lab_discover_tests target scenario)
  # The build tree stays the host's inside the lab wherever it lies: the
  # tests load the library from it.
  set(launcher ${ZQ_LAB_RUN} --scenario ${scenario} --keep ${CMAKE_BINARY_DIR} --)
  if(CMAKE_VERSION VERSION_GREATER_EQUAL 3.29)
    # TEST_LAUNCHER comes first; CMake adds the cross emulator after it.
    set_property(TARGET ${target} PROPERTY TEST_LAUNCHER ${launcher})
  else()
    if(CMAKE_CROSSCOMPILING AND CMAKE_CROSSCOMPILING_EMULATOR)
      list(APPEND launcher ${CMAKE_CROSSCOMPILING_EMULATOR})
    endif()
    set_property(TARGET ${target} PROPERTY CROSSCOMPILING_EMULATOR ${launcher})
  endif()
  gtest_discover_tests(${target}
    TEST_PREFIX "${target}."
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 120
    PROPERTIES LABELS lab)
endfunction()
