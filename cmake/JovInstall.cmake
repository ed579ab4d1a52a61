# Install rules: the libraries and headers, the CMake package (find_package(jov CONFIG)), the
# pkg-config file, the emulator and the CLI, each in the component its Debian package is made of:
#   runtime  libjov.so.MAJOR                        -> libjovMAJOR
#   dev      headers, libjov.so, libjov.a, jov.pc, CMake package -> libjov-dev
#   emulator jov-emulator                           -> jov-emulator
#   cli      jov                                    -> jov
include(CMakePackageConfigHelpers)

set(JOV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/jov)
set(JOV_RUNTIME_PACKAGE libjov${PROJECT_VERSION_MAJOR})

install(TARGETS jov EXPORT jovTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(TARGETS jov_static EXPORT jovStaticTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/jov
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

# Two export sets: the static library's private dependencies are looked for only by the
# projects that use it (see jovConfig.cmake.in).
install(EXPORT jovTargets NAMESPACE jov:: DESTINATION ${JOV_CMAKE_DIR} COMPONENT dev)
install(EXPORT jovStaticTargets NAMESPACE jov:: DESTINATION ${JOV_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/jovConfig.cmake.in
  ${PROJECT_BINARY_DIR}/jovConfig.cmake INSTALL_DESTINATION ${JOV_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/jovConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/jovConfig.cmake ${PROJECT_BINARY_DIR}/jovConfigVersion.cmake
  DESTINATION ${JOV_CMAKE_DIR} COMPONENT dev)

# jov.pc finds its prefix from its own location, so the tree can be installed anywhere.
file(RELATIVE_PATH JOV_PC_PREFIX_FROM_PCFILEDIR
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" JOV_PC_PREFIX_FROM_PCFILEDIR "${JOV_PC_PREFIX_FROM_PCFILEDIR}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/jov.pc.in ${PROJECT_BINARY_DIR}/jov.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/jov.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# The programs find libjov next to them wherever the tree is installed.
file(RELATIVE_PATH JOV_BIN_TO_LIB
  /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
if(TARGET jov-cli)
  set_target_properties(jov-cli PROPERTIES INSTALL_RPATH "$ORIGIN/${JOV_BIN_TO_LIB}")
  install(TARGETS jov-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT cli)
endif()
if(TARGET jov-emulator)
  install(TARGETS jov-emulator RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT emulator)
endif()

# Debian wants the licence as /usr/share/doc/PACKAGE/copyright in every package.
foreach(pair IN ITEMS "runtime;${JOV_RUNTIME_PACKAGE}" "dev;libjov-dev"
                      "emulator;jov-emulator" "cli;jov")
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
    RENAME copyright COMPONENT ${component})
endforeach()
