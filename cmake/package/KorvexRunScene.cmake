# One scene of korvex_convert_scenes(), run as a build rule:
#
#   cmake -DKORVEX=<Korvex> -DSCENE=<scene> -DFOLDER=<output folder> -DNAME=<file name>
#         -DQSN=<.qsn file name> [-DFLAG=-r0|-r1] -P KorvexRunScene.cmake
#
# Copies SCENE to FOLDER/NAME and runs `KORVEX [FLAG] ./NAME` in FOLDER, passing on everything it
# says. Fails when Korvex ends with a non-zero status or abnormally, and also when it ends with
# status 0 but wrote no .qsn (a scene it read but could not save or read back).

cmake_minimum_required(VERSION 3.20)

foreach(required KORVEX SCENE FOLDER NAME QSN)
  if(NOT DEFINED ${required})
    message(FATAL_ERROR "KorvexRunScene.cmake: -D${required}=... is needed")
  endif()
endforeach()

# An older .qsn must not pass for this run's.
file(REMOVE ${FOLDER}/${QSN})
file(MAKE_DIRECTORY ${FOLDER})
# A fresh copy, so that its time is the time of this run and the rule is up to date after it.
file(REMOVE ${FOLDER}/${NAME})
configure_file(${SCENE} ${FOLDER}/${NAME} COPYONLY)

set(arguments ./${NAME})
if(FLAG)
  set(arguments ${FLAG} ./${NAME})
endif()
execute_process(COMMAND ${KORVEX} ${arguments}
                WORKING_DIRECTORY ${FOLDER}
                RESULT_VARIABLE status
                OUTPUT_VARIABLE said
                ERROR_VARIABLE said)
string(STRIP "${said}" said)
if(said)
  message("${said}")
endif()
if(NOT status STREQUAL "0")
  if(status MATCHES "^[0-9]+$")
    set(status "exit status ${status}")
  endif()
  message(FATAL_ERROR "Korvex failed on ${SCENE}: ${status}")
endif()
if(NOT EXISTS ${FOLDER}/${QSN})
  message(FATAL_ERROR "Korvex wrote no ${QSN} for ${SCENE}")
endif()
