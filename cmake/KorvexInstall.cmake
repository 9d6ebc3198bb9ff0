# What `cmake --install` puts under the prefix, and the Debian package made of it (`make package`):
#
#   bin/                  Korvex, qsndump, and podimport and qsnview where they are built
#   lib/cmake/Korvex/     the CMake package: the tools as imported targets Korvex::<tool>, and
#                         korvex_convert_scenes() for projects that convert scenes in their build
#   share/doc/korvex/     the README
#
# Only the tools are installed: the layer libraries are internal to them.

include(CMakePackageConfigHelpers)

set(KORVEX_PACKAGE_DIR lib/cmake/Korvex)

install(TARGETS ${KORVEX_INSTALLED_TOOLS} EXPORT KorvexTargets RUNTIME DESTINATION bin)
install(EXPORT KorvexTargets NAMESPACE Korvex:: DESTINATION ${KORVEX_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/KorvexConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/package/KorvexConfig.cmake
              ${CMAKE_CURRENT_LIST_DIR}/package/KorvexConvertScenes.cmake
              ${CMAKE_CURRENT_LIST_DIR}/package/KorvexRunScene.cmake
              ${CMAKE_BINARY_DIR}/package/KorvexConfigVersion.cmake
        DESTINATION ${KORVEX_PACKAGE_DIR})
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION share/doc/korvex)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvex)
set(CPACK_PACKAGE_VENDOR "Korvex developers")
set(CPACK_PACKAGE_CONTACT "Korvex developers <korvex@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Converts POD scenes to the engine's .qsn scene-graph files, with qsndump, podimport, qsnview")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# korvex_<version>_<arch>.deb
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
# Depends: from the shared libraries the tools link (assimp, EGL, GL, libpng, the C++ runtime).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# qsnview links the dispatching EGL and GL libraries; drawing needs a driver behind them, which
# on a machine without a GPU is Mesa's software rasteriser.
if(KORVEX_VIEW)
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libegl-mesa0, libgl1-mesa-dri")
endif()
# The package needs no CMake to run; projects that call korvex_convert_scenes() have their own.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS cmake)
include(CPack)
