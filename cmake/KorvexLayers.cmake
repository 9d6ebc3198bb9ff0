# The code is built as layers, each a library that links only the layers below it:
#
#   pod → qsn → convert ┐
#   pod → edit ─────────┴→ pipeline → Korvex
#   (import, view, and the test support sit beside pipeline, above what they use)
#
# A layer's headers are included as "<layer>/<Name>.h". Each layer gets its own include folder in
# the build tree holding links to its headers only, so a layer sees the headers of the layers it
# links and no others; and a check run before the layer compiles refuses any quoted include that
# is not qualified that way or names a layer it does not link (a same-folder or "../" include
# would otherwise slip past the include folders).

set(KORVEX_LAYER_CHECK ${CMAKE_CURRENT_LIST_DIR}/CheckLayerIncludes.cmake)

# korvex_layer(NAME FILES <sources and headers> [PREFIX <include prefix, default NAME>]
#              [LAYERS <layers below>] [LINK <other libraries>] [DEFINITIONS <compile definitions>])
# Makes the library korvex_NAME (an interface library when FILES holds no source).
function(korvex_layer name)
  cmake_parse_arguments(L "" "PREFIX" "FILES;LAYERS;LINK;DEFINITIONS" ${ARGN})
  if(NOT L_PREFIX)
    set(L_PREFIX ${name})
  endif()
  set(includeDir ${CMAKE_BINARY_DIR}/include/${name})
  file(REMOVE_RECURSE ${includeDir})
  file(MAKE_DIRECTORY ${includeDir}/${L_PREFIX})

  set(sources)
  set(visible)
  foreach(f ${L_FILES})
    get_filename_component(fileName ${f} NAME)
    if(f MATCHES "\\.h$")
      file(CREATE_LINK ${f} ${includeDir}/${L_PREFIX}/${fileName} SYMBOLIC)
      list(APPEND visible ${L_PREFIX}/${fileName})
    else()
      list(APPEND sources ${f})
    endif()
  endforeach()

  # What this layer may include: its own headers and those of every layer below, transitively.
  set(allowed ${visible})
  foreach(below ${L_LAYERS})
    get_property(belowAllowed GLOBAL PROPERTY KORVEX_LAYER_${below}_ALLOWED)
    if(NOT DEFINED belowAllowed OR NOT TARGET korvex_${below})
      message(FATAL_ERROR "layer ${name}: layer ${below} must be defined first")
    endif()
    list(APPEND allowed ${belowAllowed})
  endforeach()
  list(REMOVE_DUPLICATES allowed)
  set_property(GLOBAL PROPERTY KORVEX_LAYER_${name}_ALLOWED ${allowed})

  if(sources)
    add_library(korvex_${name} STATIC ${sources})
    target_include_directories(korvex_${name} PUBLIC ${includeDir})
    set(scope PUBLIC)
  else()
    add_library(korvex_${name} INTERFACE)
    target_include_directories(korvex_${name} INTERFACE ${includeDir})
    set(scope INTERFACE)
  endif()
  foreach(below ${L_LAYERS})
    target_link_libraries(korvex_${name} ${scope} korvex_${below})
  endforeach()
  if(L_LINK)
    target_link_libraries(korvex_${name} ${scope} ${L_LINK})
  endif()
  if(L_DEFINITIONS)
    target_compile_definitions(korvex_${name} ${scope} ${L_DEFINITIONS})
  endif()

  korvex_include_check(korvex_${name} "${allowed}" ${L_FILES})
endfunction()

# The include check of `target`: run before it compiles, and again whenever one of `files`
# changes, against the headers listed in `allowed`.
function(korvex_include_check target allowed)
  set(files ${ARGN})
  set(listFile ${CMAKE_BINARY_DIR}/layer-check/${target}.allowed)
  string(REPLACE ";" "\n" allowedLines "${allowed}")
  file(WRITE ${listFile} "${allowedLines}\n")
  set(stamp ${CMAKE_BINARY_DIR}/layer-check/${target}.stamp)
  add_custom_command(
    OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -DLAYER=${target} -DALLOWED_FILE=${listFile} "-DFILES=${files}"
            -P ${KORVEX_LAYER_CHECK}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${files} ${KORVEX_LAYER_CHECK} ${listFile}
    COMMENT "Checking the includes of ${target}"
    VERBATIM)
  add_custom_target(${target}_includes DEPENDS ${stamp})
  add_dependencies(${target} ${target}_includes)
endfunction()

# Programs (tools, tests, benchmarks, fuzz targets) are checked the same way against the layers
# they link: korvex_check_includes(TARGET FILES <files> LAYERS <layers>).
function(korvex_check_includes target)
  cmake_parse_arguments(L "" "" "FILES;LAYERS" ${ARGN})
  set(allowed)
  foreach(below ${L_LAYERS})
    get_property(belowAllowed GLOBAL PROPERTY KORVEX_LAYER_${below}_ALLOWED)
    list(APPEND allowed ${belowAllowed})
  endforeach()
  list(REMOVE_DUPLICATES allowed)
  korvex_include_check(${target} "${allowed}" ${L_FILES})
endfunction()

# korvex_program(NAME SOURCE <file> LAYERS <layers> [LINK <other libraries>]): an executable that
# links `layers` (and `LINK`), its includes checked against them.
function(korvex_program name)
  cmake_parse_arguments(P "" "SOURCE" "LAYERS;LINK" ${ARGN})
  add_executable(${name} ${P_SOURCE})
  foreach(layer ${P_LAYERS})
    target_link_libraries(${name} PRIVATE korvex_${layer})
  endforeach()
  if(P_LINK)
    target_link_libraries(${name} PRIVATE ${P_LINK})
  endif()
  korvex_check_includes(${name} FILES ${P_SOURCE} LAYERS ${P_LAYERS})
endfunction()
