# korvex_convert_scenes(TARGET <name> SCENES <scene.pod>... [WELD exact|near]
#                       [OUTPUT_DIRECTORY <dir>])
#
# Converts every scene to a .qsn in the build, one build rule a scene, so that the build tool
# converts only the scenes that changed (or whose Korvex changed), as many at once as it runs
# jobs. Korvex writes its .PODx and .qsn beside its input, so each rule copies its scene into the
# output folder, mirroring the scene's path below the current source folder (a scene outside it
# goes to the top of the output folder), and runs `Korvex [-r0|-r1] ./<name>` there.
#
#   TARGET            a target (built by default) that depends on every .qsn; its property
#                     KORVEX_SCENE_FILES lists them
#   SCENES            the scene files, relative to the current source folder or absolute; each
#                     file name must hold a "." (Korvex derives its output names from it)
#   WELD              exact: Korvex -r0; near: Korvex -r1; none when not given
#   OUTPUT_DIRECTORY  where the copies and their .PODx and .qsn go (relative to the current build
#                     folder; default: the current build folder)
#
# A rule fails, with what Korvex said, when Korvex ends with a non-zero status or abnormally, or
# ends without writing the .qsn.

if(CMAKE_VERSION VERSION_LESS 3.20)
  message(FATAL_ERROR "korvex_convert_scenes needs CMake 3.20 or later")
endif()

set_property(GLOBAL PROPERTY KORVEX_RUN_SCENE_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/KorvexRunScene.cmake)

# Replaces up to `count` characters of `text` from position `at` with `with`, as
# std::string::replace does.
function(korvex_replace_characters text at count with outVar)
  string(LENGTH "${text}" length)
  string(SUBSTRING "${text}" 0 ${at} head)
  set(tail "")
  math(EXPR kept "${at} + ${count}")
  if(kept LESS length)
    string(SUBSTRING "${text}" ${kept} -1 tail)
  endif()
  set(${outVar} "${head}${with}${tail}" PARENT_SCOPE)
endfunction()

# The names Korvex gives its outputs for an input file name `name` (one that holds a "."): the
# three characters after the last "." become "qsn" (fewer where the name ends sooner), and the
# last "." with at most four characters after it become ".PODx".
function(korvex_scene_output_names name qsnVar podxVar)
  string(FIND "${name}" "." dot REVERSE)
  if(dot EQUAL -1)
    message(FATAL_ERROR "korvex_scene_output_names: \"${name}\" holds no \".\"")
  endif()
  math(EXPR afterDot "${dot} + 1")
  korvex_replace_characters("${name}" ${afterDot} 3 "qsn" qsn)
  korvex_replace_characters("${name}" ${dot} 5 ".PODx" podx)
  set(${qsnVar} "${qsn}" PARENT_SCOPE)
  set(${podxVar} "${podx}" PARENT_SCOPE)
endfunction()

function(korvex_convert_scenes)
  cmake_parse_arguments(PARSE_ARGV 0 KX "" "TARGET;WELD;OUTPUT_DIRECTORY" "SCENES")
  if(KX_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "korvex_convert_scenes: unknown arguments: ${KX_UNPARSED_ARGUMENTS}")
  endif()
  if(KX_KEYWORDS_MISSING_VALUES)
    message(FATAL_ERROR "korvex_convert_scenes: ${KX_KEYWORDS_MISSING_VALUES} given without a value")
  endif()
  if(NOT KX_TARGET)
    message(FATAL_ERROR "korvex_convert_scenes: TARGET is needed")
  endif()
  if(NOT KX_SCENES)
    message(FATAL_ERROR "korvex_convert_scenes(${KX_TARGET}): SCENES lists no scene")
  endif()
  if(NOT TARGET Korvex::Korvex)
    message(FATAL_ERROR "korvex_convert_scenes(${KX_TARGET}): Korvex::Korvex is not defined "
                        "here; call find_package(Korvex) in this folder or one above it")
  endif()
  set(flag "")
  if(KX_WELD STREQUAL "exact")
    set(flag -r0)
  elseif(KX_WELD STREQUAL "near")
    set(flag -r1)
  elseif(DEFINED KX_WELD)
    message(FATAL_ERROR "korvex_convert_scenes(${KX_TARGET}): WELD takes exact or near, "
                        "not \"${KX_WELD}\"")
  endif()
  set(outputRoot ${CMAKE_CURRENT_BINARY_DIR})
  if(KX_OUTPUT_DIRECTORY)
    get_filename_component(outputRoot "${KX_OUTPUT_DIRECTORY}" ABSOLUTE
                           BASE_DIR ${CMAKE_CURRENT_BINARY_DIR})
  endif()
  get_property(script GLOBAL PROPERTY KORVEX_RUN_SCENE_SCRIPT)

  set(qsnFiles)
  foreach(scene IN LISTS KX_SCENES)
    get_filename_component(source "${scene}" ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    file(RELATIVE_PATH mirrored ${CMAKE_CURRENT_SOURCE_DIR} "${source}")
    if(mirrored MATCHES "^\\.\\./" OR IS_ABSOLUTE "${mirrored}")
      get_filename_component(mirrored "${source}" NAME)
    endif()
    get_filename_component(name "${mirrored}" NAME)
    if(NOT name MATCHES "\\.")
      message(FATAL_ERROR "korvex_convert_scenes(${KX_TARGET}): the file name of ${scene} holds "
                          "no \".\"; Korvex needs one to name its outputs")
    endif()
    set(copy ${outputRoot}/${mirrored})
    if(copy STREQUAL source)
      message(FATAL_ERROR "korvex_convert_scenes(${KX_TARGET}): ${scene} would be converted in "
                          "its own folder; choose another OUTPUT_DIRECTORY")
    endif()
    get_filename_component(folder "${copy}" DIRECTORY)
    korvex_scene_output_names("${name}" qsn podx)
    # Two scenes must not write one file ("a.pod" and "a.podx" share "a.PODx").
    foreach(output ${qsn} ${podx} ${name})
      get_property(claimed GLOBAL PROPERTY KORVEX_SCENE_OUTPUT_${folder}/${output})
      if(claimed)
        message(FATAL_ERROR "korvex_convert_scenes(${KX_TARGET}): ${scene} and ${claimed} would "
                            "both write ${folder}/${output}")
      endif()
      set_property(GLOBAL PROPERTY KORVEX_SCENE_OUTPUT_${folder}/${output} "${scene}")
    endforeach()

    add_custom_command(
      OUTPUT ${folder}/${qsn} ${folder}/${podx} ${copy}
      COMMAND ${CMAKE_COMMAND} -DKORVEX=$<TARGET_FILE:Korvex::Korvex> -DSCENE=${source}
              -DFOLDER=${folder} -DNAME=${name} -DQSN=${qsn} -DFLAG=${flag} -P ${script}
      DEPENDS ${source} $<TARGET_FILE:Korvex::Korvex> ${script}
      COMMENT "Korvex ${mirrored}"
      VERBATIM)
    list(APPEND qsnFiles ${folder}/${qsn})
  endforeach()

  add_custom_target(${KX_TARGET} ALL DEPENDS ${qsnFiles})
  set_property(TARGET ${KX_TARGET} PROPERTY KORVEX_SCENE_FILES ${qsnFiles})
endfunction()
