# Shared helpers for the project's targets: warnings and the two kinds of tests.

# Our own code builds with every common warning, and a warning fails the build.
# QUILLMERE_WARNING_EXCEPTIONS names the few a particular build must leave out.
function(quillmere_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror ${QUILLMERE_WARNING_EXCEPTIONS})
endfunction()

# Every test runs offscreen so that a machine without a display can run the suite.
set(QUILLMERE_TEST_ENVIRONMENT "QT_QPA_PLATFORM=offscreen;QT_QUICK_BACKEND=software")

# A GoogleTest executable whose cases each become one CTest test.
#   quillmere_gtest(NAME LABEL unit SOURCES a.cpp b.cpp LIBS lib1 lib2)
function(quillmere_gtest name)
  cmake_parse_arguments(ARG "" "LABEL" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE GTest::gtest GTest::gmock GTest::gtest_main ${ARG_LIBS})
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/desktop_app/Sources"
                                             "${PROJECT_SOURCE_DIR}/desktop_app/Tests"
                                             "${CMAKE_CURRENT_SOURCE_DIR}")
  quillmere_warnings(${name})
  gtest_discover_tests(${name}
    PROPERTIES LABELS "${ARG_LABEL}" ENVIRONMENT "${QUILLMERE_TEST_ENVIRONMENT}"
    DISCOVERY_TIMEOUT 60)
endfunction()

# A QtTest executable, registered as one CTest test.
#   quillmere_qttest(NAME LABEL integration SOURCES a.cpp LIBS lib1)
function(quillmere_qttest name)
  cmake_parse_arguments(ARG "" "LABEL;TIMEOUT" "SOURCES;LIBS;ENVIRONMENT" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE Qt6::Test ${ARG_LIBS})
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}/desktop_app/Sources"
                                             "${PROJECT_SOURCE_DIR}/desktop_app/Tests"
                                             "${CMAKE_CURRENT_SOURCE_DIR}")
  quillmere_warnings(${name})
  add_test(NAME ${name} COMMAND ${name})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES
    LABELS "${ARG_LABEL}"
    TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "${QUILLMERE_TEST_ENVIRONMENT};${ARG_ENVIRONMENT}")
endfunction()
