# korvex_convert_scenes() names a rule's outputs before Korvex runs: those names must be the ones
# Korvex writes, also for unusual extensions. Converts one scene under each name and checks.
#
#   cmake -DKORVEX=<Korvex> -DSCENE=<scene.pod> -DWORK=<empty folder> -P ConvertScenesNames.cmake

include(${CMAKE_CURRENT_LIST_DIR}/../cmake/package/KorvexConvertScenes.cmake)

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
set(failures "")
foreach(name scene.pod scene.podx scene.p scene.podfile two.dots.pod ends.)
  configure_file(${SCENE} ${WORK}/${name} COPYONLY)
  execute_process(COMMAND ${KORVEX} ./${name} WORKING_DIRECTORY ${WORK}
                  RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
  korvex_scene_output_names(${name} qsn podx)
  if(NOT status STREQUAL "0" OR NOT EXISTS ${WORK}/${qsn} OR NOT EXISTS ${WORK}/${podx})
    file(GLOB written RELATIVE ${WORK} ${WORK}/*)
    string(APPEND failures "  ${name}: expected ${qsn} and ${podx} (status ${status}); "
                           "the folder holds: ${written}\n")
  endif()
  file(REMOVE ${WORK}/${name} ${WORK}/${qsn} ${WORK}/${podx})
endforeach()
if(failures)
  message(FATAL_ERROR "output names that are not Korvex's:\n${failures}")
endif()
