# kestrova_area(NAME SOURCES ... [DEPS ...])
# One static library per area of the core, so the build graph shows which area uses which.
function(kestrova_area name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(kestrova_${name} STATIC ${ARG_SOURCES})
  target_include_directories(kestrova_${name} PUBLIC ${PROJECT_SOURCE_DIR}/include
                                              PRIVATE ${PROJECT_SOURCE_DIR}/src/core)
  target_link_libraries(kestrova_${name} PUBLIC ${ARG_DEPS} PRIVATE kestrova_warnings
                                                                    ${ARG_PRIVATE_DEPS})
endfunction()

# kestrova_test(NAME SOURCES ... DEPS ...)
# One GoogleTest executable per area; its tests are registered with CTest when they run.
function(kestrova_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name}_test ${ARG_SOURCES})
  target_include_directories(${name}_test PRIVATE ${PROJECT_SOURCE_DIR}/src/core
                                                  ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name}_test PRIVATE ${ARG_DEPS} kestrova_test_support GTest::gtest_main
                                             GTest::gmock kestrova_warnings)
  gtest_discover_tests(${name}_test DISCOVERY_MODE PRE_TEST)
endfunction()
