# Installation: the public headers, both shared libraries, the clubtrack tool,
# a CMake package (find_package(clubtracker CONFIG) -> clubtracker::clubtracker)
# and clubtracker.pc for pkg-config. Everything installed is relocatable: the
# libraries find each other next to themselves, the tool finds them in
# ../lib, and the .pc file locates its prefix from its own folder.
include(CMakePackageConfigHelpers)

set(CLUBTRACKER_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/clubtracker)

set_target_properties(clubtracker imageprocess PROPERTIES INSTALL_RPATH "$ORIGIN")
file(RELATIVE_PATH CLUBTRACKER_BIN_TO_LIB
  "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
set_target_properties(clubtrack PROPERTIES INSTALL_RPATH "$ORIGIN/${CLUBTRACKER_BIN_TO_LIB}")

install(TARGETS clubtracker imageprocess EXPORT clubtrackerTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS clubtrack RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/clubtracker
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/imageprocess/include/imageprocess
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

install(EXPORT clubtrackerTargets NAMESPACE clubtracker::
  FILE clubtrackerTargets.cmake DESTINATION ${CLUBTRACKER_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/clubtrackerConfig.cmake.in
  ${PROJECT_BINARY_DIR}/clubtrackerConfig.cmake INSTALL_DESTINATION ${CLUBTRACKER_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/clubtrackerConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/clubtrackerConfig.cmake
  ${PROJECT_BINARY_DIR}/clubtrackerConfigVersion.cmake DESTINATION ${CLUBTRACKER_CMAKE_DIR})

file(RELATIVE_PATH CLUBTRACKER_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" CLUBTRACKER_PC_TO_PREFIX "${CLUBTRACKER_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/clubtracker.pc.in ${PROJECT_BINARY_DIR}/clubtracker.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/clubtracker.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
