# nyr_add_layer(<target> [SHARED|INTERFACE] [DEVELOPMENT] SOURCES ... DEPS ...)
# One library per layer: public headers under <folder>/include, exported as NyRoutine::<target>.
# Install components: the shared library goes with the host ("runtime"), its headers and unversioned
# link with the development files ("dev"); a DEVELOPMENT library (the test kit) is development only.
function(nyr_add_layer target)
  cmake_parse_arguments(ARG "INTERFACE;DEVELOPMENT" "" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  if(ARG_INTERFACE)
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE
      $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${target} INTERFACE ${ARG_PUBLIC_DEPS})
  else()
    add_library(${target} SHARED ${ARG_SOURCES})
    target_include_directories(${target} PUBLIC
      $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${target} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE nyr_settings ${ARG_PRIVATE_DEPS})
    # Installed, each library finds the others in its own folder: a loader follows an executable's run
    # path only for the executable's direct dependencies, not for what the libraries need in turn.
    set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
                                               INSTALL_RPATH "$ORIGIN")
  endif()
  add_library(NyRoutine::${target} ALIAS ${target})
  set(library_component runtime)
  if(ARG_DEVELOPMENT)
    set(library_component dev)
  endif()
  install(TARGETS ${target} EXPORT NyRoutineTargets
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${library_component} NAMELINK_COMPONENT dev
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${library_component})
  install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
endfunction()

# nyr_add_test(<name> SOURCES ... DEPS ... [TIMEOUT s] [LABELS ...])
function(nyr_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE nyr_settings ${ARG_DEPS} nyr_test_main)
  add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}"
                       ENVIRONMENT "TSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/tsan.supp halt_on_error=1;ASAN_OPTIONS=detect_leaks=1;UBSAN_OPTIONS=print_stacktrace=1")
endfunction()
