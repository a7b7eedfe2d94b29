# nyr_add_plugin(<name> SOURCES ... [LIBRARIES ...] [OUTPUT_DIRECTORY dir])
#
# A plug-in library: a MODULE library (loaded with dlopen, never linked against), named <name>.so
# without the "lib" prefix, built with hidden visibility so that it exports only the entry points that
# NY_PLUGIN_ENTRY marks (NyPlugin/PluginExport.h). It is written to OUTPUT_DIRECTORY, by default to
# ${NYR_PLUGIN_OUTPUT_DIRECTORY} (the folder the host loads), else to the current binary folder.
# LIBRARIES are linked privately, e.g. NyRoutine::NyRoutineSdk.
function(nyr_add_plugin name)
  cmake_parse_arguments(ARG "" "OUTPUT_DIRECTORY" "SOURCES;LIBRARIES" ${ARGN})
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "nyr_add_plugin(${name}): unknown arguments ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT ARG_SOURCES)
    message(FATAL_ERROR "nyr_add_plugin(${name}): SOURCES is required")
  endif()
  if(NOT ARG_OUTPUT_DIRECTORY)
    if(DEFINED NYR_PLUGIN_OUTPUT_DIRECTORY)
      set(ARG_OUTPUT_DIRECTORY ${NYR_PLUGIN_OUTPUT_DIRECTORY})
    else()
      set(ARG_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
    endif()
  endif()
  add_library(${name} MODULE ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES})
  # Inside this project: the same warnings and sanitizers as every other target.
  if(TARGET nyr_settings)
    target_link_libraries(${name} PRIVATE nyr_settings)
  endif()
  set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".so"
                        CXX_VISIBILITY_PRESET hidden C_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
                        LIBRARY_OUTPUT_DIRECTORY ${ARG_OUTPUT_DIRECTORY})
endfunction()
