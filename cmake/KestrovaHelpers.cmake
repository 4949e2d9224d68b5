# kestrova_area(NAME SOURCES ... [DEPS ...] [PRIVATE_DEPS ...])
# The static library kestrova_<NAME> of one area folder of src/. DEPS are the areas and libraries
# it builds on (they are part of its interface); the folder itself holds its private headers,
# which no other area sees. kestrova_core links every area.
function(kestrova_area name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(kestrova_${name} STATIC ${ARG_SOURCES})
  target_include_directories(kestrova_${name} PUBLIC ${PROJECT_SOURCE_DIR}/include
                                              PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(kestrova_${name} PUBLIC ${ARG_DEPS} PRIVATE kestrova_warnings
                                                                    ${ARG_PRIVATE_DEPS})
  target_link_libraries(kestrova_core INTERFACE kestrova_${name})
endfunction()

# kestrova_test(AREA SOURCES ... [DEPS ...])
# The GoogleTest executable <AREA>_test of tests/<AREA>/. It links the area and may include the
# area's private headers; its tests are registered with CTest when they run.
function(kestrova_test area)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${area}_test ${ARG_SOURCES})
  target_include_directories(${area}_test PRIVATE ${PROJECT_SOURCE_DIR}/src/${area}
                                                  ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${area}_test PRIVATE kestrova_${area} ${ARG_DEPS} GTest::gtest_main
                                             GTest::gmock kestrova_warnings)
  gtest_discover_tests(${area}_test DISCOVERY_MODE PRE_TEST)
endfunction()
