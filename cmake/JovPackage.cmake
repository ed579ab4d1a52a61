# Debian packages, one per install component (see JovInstall.cmake): `make package`, or
# `cpack -G DEB` in a configured build tree.
set(CPACK_PACKAGE_NAME jov)
set(CPACK_PACKAGE_VENDOR "libjov developers")
set(CPACK_PACKAGE_CONTACT "libjov developers <libjov-dev@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Client library, emulator and CLI for the Jov backend service")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev emulator cli)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# libjov.so.MAJOR is not installed while the packages are made: the CLI's dependency on it
# comes from the component dependency below, not from dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libjov${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libjov-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The headers include nlohmann-json; libjov.a and jov.pc's Requires.private need the rest.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "nlohmann-json3-dev, libcurl4-openssl-dev, libssl-dev, libsqlite3-dev, libsecret-1-dev, libmosquitto-dev")
set(CPACK_DEBIAN_EMULATOR_PACKAGE_NAME jov-emulator)
set(CPACK_DEBIAN_EMULATOR_PACKAGE_SECTION devel)
# `jov-emulator --mqtt auto` starts a mosquitto broker with its dynamic security plugin.
set(CPACK_DEBIAN_EMULATOR_PACKAGE_RECOMMENDS "mosquitto")
set(CPACK_DEBIAN_CLI_PACKAGE_NAME jov)
set(CPACK_DEBIAN_CLI_PACKAGE_SECTION net)

# First line: the package's own summary; then the long description.
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "C++20 client library for the Jov backend service
Users, groups, buckets of JSON objects and the rest of the service's REST interface, with
blocking, block, delegate and future forms of every operation. This package holds the shared
library.")
set(CPACK_DEBIAN_DEV_DESCRIPTION "Development files of libjov
Headers, the static library, the CMake package (find_package(jov CONFIG)) and the pkg-config
file (jov.pc) of libjov.")
set(CPACK_DEBIAN_EMULATOR_DESCRIPTION "Local emulator of the Jov service
The service's REST interface on loopback, backed by SQLite, for tests and development without
an account or a network.")
set(CPACK_DEBIAN_CLI_DESCRIPTION "Command-line client of the Jov service
Log in once, then work with users and groups from the shell; built on libjov.")

include(CPack)
cpack_add_component(runtime DISPLAY_NAME "libjov"
  DESCRIPTION "C++20 client library for the Jov backend service (shared library)")
cpack_add_component(dev DISPLAY_NAME "libjov development files" DEPENDS runtime
  DESCRIPTION "Headers, static library, CMake package and pkg-config file of libjov")
cpack_add_component(emulator DISPLAY_NAME "jov-emulator"
  DESCRIPTION "Local emulator of the Jov service's REST interface, backed by SQLite")
cpack_add_component(cli DISPLAY_NAME "jov" DEPENDS runtime
  DESCRIPTION "Command-line client of the Jov service, built on libjov")
