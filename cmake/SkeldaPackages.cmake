# The Debian packages, by CPack: scripts/package configures and calls it. Each of them is one
# component of what cmake --install installs, and the papers that Debian wants beside it.
set(SKELDA_PACKAGE_ARCHITECTURE "" CACHE STRING "Debian's name of the processor; empty for this machine's")
set(SKELDA_PACKAGE_DEPENDS "" CACHE STRING
  "What the library and the tools need, where that cannot be looked up: a foreign processor's")

set(debian ${PROJECT_SOURCE_DIR}/Library/debian)
file(STRINGS ${debian}/changelog changelog LIMIT_COUNT 1)
string(REGEX MATCH "\\((.*)-(.*)\\)" changelog "${changelog}")
if(NOT CMAKE_MATCH_1 VERSION_EQUAL PROJECT_VERSION)
  message(FATAL_ERROR "Library/debian/changelog begins with ${CMAKE_MATCH_1}, the project is ${PROJECT_VERSION}.")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME skelda-watch)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
set(CPACK_PACKAGE_CONTACT "Skelda_Watch maintainers <maintainers@skelda.dev>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
if(SKELDA_FLEET)
  # Alone: what the others need must not come to be more for it.
  set(CPACK_COMPONENTS_ALL fleet)
  set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/SkeldaPackagePapers.cmake)
if(SKELDA_PACKAGE_ARCHITECTURE)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${SKELDA_PACKAGE_ARCHITECTURE})
endif()

# skelda_package(COMPONENT PACKAGE SECTION "what it is" "the rest of its description")
macro(skelda_package component package section summary description)
  string(TOUPPER ${component} key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section})
  set(CPACK_COMPONENT_${key}_DESCRIPTION "${summary}\n${description}")
  install(FILES ${debian}/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
    COMPONENT ${component})
  install(FILES ${debian}/changelog DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
    COMPONENT ${component} RENAME changelog.Debian)
  install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component} RENAME changelog)
endmacro()

skelda_package(runtime libskelda-watch${PROJECT_VERSION_MAJOR} libs
  "analytics agent for the extensions of smart-watch applications"
  "An application logs events; the agent adds what it observes, keeps every record
on disk from the moment it is written, and uploads closed logs over HTTPS.
.
This package contains the shared library.")
skelda_package(development libskelda-watch-dev libdevel
  "analytics agent for smart-watch applications (development files)"
  "An application logs events; the agent keeps them on disk and uploads them.
.
This package contains the headers for C++17 and C, the static library, and the
files by which CMake and pkg-config find both libraries.")
skelda_package(tools skelda-tools devel
  "tools for developers whose applications carry the Skelda_Watch agent"
  "An ingestion endpoint for one's own machine, a stand-in for the paired phone,
a reader of frame logs, and what else helps to see that events arrive.")
if(SKELDA_FLEET)
  skelda_package(fleet skelda-fleet net
    "ingestion endpoint for many devices that carry the Skelda_Watch agent"
    "Collectors without a state of their own in front of a replicated stream,
a loader that writes what arrives into a database, and a program that plays
many devices.
.
Its collector takes the place of that of skelda-tools, and does the same.")
  set(CPACK_DEBIAN_FLEET_PACKAGE_REPLACES skelda-tools)
  set(CPACK_DEBIAN_FLEET_PACKAGE_RECOMMENDS "nats-server, postgresql, curl, jq")
endif()

set(runtime libskelda-watch${PROJECT_VERSION_MAJOR})
if(SKELDA_PACKAGE_DEPENDS)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ${SKELDA_PACKAGE_DEPENDS})
  set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ${SKELDA_PACKAGE_DEPENDS})
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_FLEET_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${debian}/triggers)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${runtime} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
# Who links the shared library needs none of these.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS
  "libcurl4-openssl-dev, libfmt-dev, libplist-dev, libssl-dev, pkg-config, uuid-dev")
include(CPack)
