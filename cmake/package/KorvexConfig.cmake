# find_package(Korvex): the installed tools as imported executables (Korvex::Korvex,
# Korvex::qsndump, and Korvex::podimport and Korvex::qsnview when they were built) and
# korvex_convert_scenes().
include(${CMAKE_CURRENT_LIST_DIR}/KorvexTargets.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/KorvexConvertScenes.cmake)
