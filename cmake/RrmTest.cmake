# rrm_tests(LABEL label LIBS libs...): one executable for every *Test.cpp of the calling folder, so
# that no test file can be forgotten. Every test case becomes a ctest of its own.
function(rrm_tests)
  cmake_parse_arguments(ARG "" "LABEL" "LIBS;PROPERTIES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*Test.cpp)
  foreach(source ${sources})
    get_filename_component(name ${source} NAME_WE)
    add_executable(${name} ${source})
    rrm_warnings(${name})
    target_link_libraries(${name} PRIVATE ${ARG_LIBS} rrm_test_support GTest::gtest GTest::gmock
                                          GTest::gtest_main)
    gtest_discover_tests(${name} NO_PRETTY_VALUES DISCOVERY_TIMEOUT 120
                         WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                         PROPERTIES LABELS "${ARG_LABEL}" TIMEOUT 300 ${ARG_PROPERTIES})
  endforeach()
endfunction()
include(GoogleTest)
