# Helpers shared by every subsystem's CMakeLists.txt.

# ostrand_add_library(<name> SOURCES ... [DEPS ...])
# A static, position-independent subsystem library with hidden visibility.
# MODULE libraries are linked whole into libOstrand.so.
function(ostrand_add_library name)
  cmake_parse_arguments(ARG "MODULE" "" "SOURCES;DEPS;PUBLIC_INCLUDES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR} ${ARG_PUBLIC_INCLUDES})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  if(ARG_MODULE)
    set_property(GLOBAL APPEND PROPERTY OSTRAND_MODULE_LIBS ${name})
  endif()
endfunction()

# ostrand_add_test(<name> SOURCES ... DEPS ... [TSAN])
# One GoogleTest executable per subsystem, discovered by CTest. TSAN marks the
# executable as one of the threaded tests that the ThreadSanitizer build runs.
function(ostrand_add_test name)
  if(NOT OSTRAND_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "TSAN" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    OSTRAND_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
    OSTRAND_BUILD_DIR="${CMAKE_BINARY_DIR}"
    OSTRAND_MODULE_PATH="${OSTRAND_MODULE_DIR}/libOstrand.so")
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
  if(ARG_TSAN)
    set_property(GLOBAL APPEND PROPERTY OSTRAND_TSAN_TESTS ${name})
  endif()
endfunction()

# The shared module. Every MODULE library is linked whole, so the exports of
# each subsystem survive; everything not marked OSTRAND_EXPORT stays hidden.
function(ostrand_add_module)
  get_property(libs GLOBAL PROPERTY OSTRAND_MODULE_LIBS)
  add_library(Ostrand SHARED ${CMAKE_SOURCE_DIR}/cmake/module_anchor.cpp)
  # Plain --whole-archive flags rather than the WHOLE_ARCHIVE link feature:
  # module libraries depend on each other (everything on ostrand_support),
  # and CMake refuses an item linked both with and without a feature.
  target_link_libraries(Ostrand PRIVATE -Wl,--whole-archive ${libs} -Wl,--no-whole-archive)
  target_link_options(Ostrand PRIVATE -Wl,--no-undefined -Wl,--exclude-libs,ALL)
  set_target_properties(Ostrand PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${OSTRAND_MODULE_DIR}
    OUTPUT_NAME Ostrand)
  get_property(tsan GLOBAL PROPERTY OSTRAND_TSAN_TESTS)
  add_custom_target(tsan_tests DEPENDS ${tsan})
endfunction()
