include(GoogleTest)

# retra_test(<name> SOURCES <files...> LIBS <targets...>): one GoogleTest executable, its tests
# discovered when ctest runs (not at build time, so sanitizer builds stay quick to link).
function(retra_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
    PROPERTIES ENVIRONMENT "RETRA_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
endfunction()
