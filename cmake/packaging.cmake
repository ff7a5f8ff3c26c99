# Debian packages, one per install component:
#   tool     orca-vtx-i2c-monitor   the tool and its man page
#   runtime  liborca-vtx<major>     the transmitter service's shared library
#   dev      liborca-vtx-dev        headers, the .so link and the OrcaVtx package config
# `cpack -G DEB` in a build tree packs for that tree's machine: amd64 natively, arm64 in the
# arm64 cross build. Library dependencies come from dpkg-shlibdeps, never by hand.

# Debian wants man pages compressed, without a time stamp in the gzip header.
set(ORCA_MAN_PAGE_SOURCE ${CMAKE_CURRENT_SOURCE_DIR}/docs/orca-vtx-i2c-monitor.1)
set(ORCA_MAN_PAGE ${CMAKE_CURRENT_BINARY_DIR}/docs/orca-vtx-i2c-monitor.1.gz)
add_custom_command(OUTPUT ${ORCA_MAN_PAGE}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/docs
    COMMAND gzip -9nc ${ORCA_MAN_PAGE_SOURCE} > ${ORCA_MAN_PAGE}
    DEPENDS ${ORCA_MAN_PAGE_SOURCE}
    COMMENT "Compressing the man page")
add_custom_target(orca_man_page ALL DEPENDS ${ORCA_MAN_PAGE})
install(FILES ${ORCA_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)

# A project that pulls this tree in with add_subdirectory() packs for itself.
if(NOT ORCA_TOP_LEVEL)
    return()
endif()

get_cmake_property(ORCA_INSTALL_COMPONENTS COMPONENTS)
set(ORCA_PACKAGED_COMPONENTS tool runtime dev)
foreach(component IN LISTS ORCA_INSTALL_COMPONENTS)
    if(NOT component IN_LIST ORCA_PACKAGED_COMPONENTS)
        message(WARNING "install() rules of component '${component}' belong to no Debian "
                        "package; use COMPONENT tool, runtime or dev")
    endif()
endforeach()
set(CPACK_COMPONENTS_ALL)
foreach(component IN LISTS ORCA_PACKAGED_COMPONENTS)
    if(component IN_LIST ORCA_INSTALL_COMPONENTS)
        list(APPEND CPACK_COMPONENTS_ALL ${component})
    endif()
endforeach()

# Debian's architecture names for the machine we build for.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(ORCA_DEB_ARCH arm64)
    set(ORCA_DEB_MULTIARCH aarch64-linux-gnu)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64|AMD64)$")
    set(ORCA_DEB_ARCH amd64)
    set(ORCA_DEB_MULTIARCH x86_64-linux-gnu)
else()
    message(STATUS "No Debian architecture known for ${CMAKE_SYSTEM_PROCESSOR}; not packaging")
    return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Orca VTX developers <vtx-dev@orca.invalid>")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ORCA_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# dpkg-shlibdeps looks for libraries of the package's architecture: tell it which one, so
# that a cross build resolves the arm64 libraries that multiarch installed.
set(ORCA_CPACK_SETTINGS ${CMAKE_CURRENT_BINARY_DIR}/CPackSettings.cmake)
file(WRITE ${ORCA_CPACK_SETTINGS}
     "set(ENV{DEB_HOST_ARCH} ${ORCA_DEB_ARCH})\n"
     "set(ENV{DEB_HOST_MULTIARCH} ${ORCA_DEB_MULTIARCH})\n")
set(CPACK_PROJECT_CONFIG_FILE ${ORCA_CPACK_SETTINGS})
# The tool links liborca-vtx, which is in none of the installed packages yet: dpkg-shlibdeps
# finds it in the build tree and the tool package depends on the runtime package.
if(TARGET orca_vtx AND "runtime" IN_LIST CPACK_COMPONENTS_ALL)
    get_target_property(ORCA_VTX_BUILD_DIR orca_vtx BINARY_DIR)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${ORCA_VTX_BUILD_DIR})
    set(CPACK_COMPONENT_TOOL_DEPENDS runtime)
endif()

# Each description's first line is the package's summary.
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME orca-vtx-i2c-monitor)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
# The tool finds the detector through i2cdetect, a program it runs, not a library it links.
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "i2c-tools")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "RF power monitor and calibration tool of the video-transmitter board
Reads the board's RF detector, converts its voltages to dBm per band, steers
the radio's power index to a wanted output and calibrates power index against
measured output.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liborca-vtx${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Shared library of the orca-vtx transmitter service
Calibration tables, power index selection, channel plan, RTP packetization,
FEC budget and pipe record validators.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME liborca-vtx-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_DESCRIPTION "Development files of liborca-vtx
Headers and CMake package config: find_package(OrcaVtx), target orca::vtx.")

include(CPack)
