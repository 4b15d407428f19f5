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
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} ostrand_test_support GTest::gtest GTest::gmock
    GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    OSTRAND_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
    OSTRAND_BUILD_DIR="${CMAKE_BINARY_DIR}"
    OSTRAND_MODULE_PATH="${OSTRAND_MODULE_DIR}/libOstrand.so")
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
  if(ARG_TSAN)
    set_property(GLOBAL APPEND PROPERTY OSTRAND_TSAN_TESTS ${name})
  endif()
endfunction()

# The shared module, made of every MODULE library; everything not marked
# OSTRAND_EXPORT stays hidden.
function(ostrand_add_module)
  get_property(libs GLOBAL PROPERTY OSTRAND_MODULE_LIBS)
  add_library(Ostrand SHARED ${CMAKE_SOURCE_DIR}/cmake/module_anchor.cpp)
  # Every object of every subsystem goes in, so each export survives even
  # when nothing else in the module calls it. Linking the libraries as well
  # brings their dependencies; nothing more is taken from the archives, as
  # all their symbols are already defined.
  foreach(lib IN LISTS libs)
    target_sources(Ostrand PRIVATE $<TARGET_OBJECTS:${lib}>)
  endforeach()
  target_link_libraries(Ostrand PRIVATE ${libs})
  target_link_options(Ostrand PRIVATE -Wl,--no-undefined -Wl,--exclude-libs,ALL
    -Wl,--version-script=${CMAKE_SOURCE_DIR}/cmake/module.map)
  set_property(TARGET Ostrand APPEND PROPERTY LINK_DEPENDS ${CMAKE_SOURCE_DIR}/cmake/module.map)
  # $ORIGIN: the module finds the libraries that lie beside it (the logger
  # factory) wherever the tree is.
  set_target_properties(Ostrand PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${OSTRAND_MODULE_DIR}
    OUTPUT_NAME Ostrand
    BUILD_RPATH "$ORIGIN"
    INSTALL_RPATH "$ORIGIN")
  get_property(tsan GLOBAL PROPERTY OSTRAND_TSAN_TESTS)
  add_custom_target(tsan_tests DEPENDS ${tsan})
  # The test script reads which executables the ThreadSanitizer run covers.
  list(JOIN tsan "\n" tsanLines)
  file(WRITE ${CMAKE_BINARY_DIR}/tsan_tests.txt "${tsanLines}\n")
endfunction()
