# Installation, and a package that other projects find with find_package(Tolvane).
include(CMakePackageConfigHelpers)

get_property(rooms GLOBAL PROPERTY TOLVANE_ROOMS)
install(TARGETS ${rooms} EXPORT TolvaneTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT TolvaneTargets NAMESPACE Tolvane:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tolvane)

foreach(room qvc mpl platform halvix)
  install(DIRECTORY libs/${room}/src/${room} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tolvane
          FILES_MATCHING PATTERN "*.h" PATTERN "internal" EXCLUDE)
endforeach()
install(DIRECTORY TolvaneDownloader DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tolvane FILES_MATCHING PATTERN "*.h")

configure_package_config_file(cmake/TolvaneConfig.cmake.in "${CMAKE_CURRENT_BINARY_DIR}/TolvaneConfig.cmake"
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tolvane)
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/TolvaneConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/TolvaneConfig.cmake" "${CMAKE_CURRENT_BINARY_DIR}/TolvaneConfigVersion.cmake"
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tolvane)
