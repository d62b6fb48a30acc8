# Debian packages with CPack: `cpack -G DEB` in the build folder makes
#
#   libzelisp1      the shared library (component runtime)
#   libzelisp-dev   header, link name, CMake package, pkg-config file,
#                   examples and the API guides (component development)
#   zelisp-tools    zelisp-cam and its manual (component tools)
#   zelisp-sim      the simulated ISP driver, zelisp-sim-run, their manuals
#                   (component sim)
#
# Every install() rule names its component. A part that joins later gives
# its rules a component of its own and adds one line to
# ZELISP_PACKAGE_COMPONENTS below (name, package, section, depends, summary);
# gstreamer and python are wired already and become gstreamer1.0-zelisp and
# python3-zelisp as soon as a rule installs something with that component.
# Files installed without a component ("Unspecified") are not packaged.
set(ZELISP_DEB_MAINTAINER "libzelisp maintainers <maintainers@users.noreply.c-seed-733d1adf.example>"
  CACHE STRING "Maintainer field of the Debian packages")

set(CPACK_PACKAGE_NAME zelisp)
set(CPACK_PACKAGE_VENDOR "libzelisp")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${ZELISP_DEB_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${ZELISP_DEB_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://github.com/libzelisp/libzelisp")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# dpkg-shlibdeps must find libzelisp.so.1 of this build for the packages
# that link it (zelisp-tools) before it is installed anywhere.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)

# name | package | section | components it depends on | summary | description
set(ZELISP_PACKAGE_COMPONENTS
  "runtime|libzelisp${PROJECT_VERSION_MAJOR}|libs||user-space camera library for ISP camera boards|The shared library libzelisp.so.1. Applications drive up to 12 cameras
of an image signal processor through flat isp_* functions: views, DMA-buf
exported buffers, zero-copy streaming, picture and 3A controls, waiting on
several cameras, trigger modes and synchronized groups."
  "development|libzelisp-dev|libdevel|runtime|development files of libzelisp|The public header zelisp.h, the link name, the CMake package
(find_package(zelisp)), the pkg-config file, the example programs and the
guides."
  "tools|zelisp-tools|video|runtime|command-line tool for ISP cameras (zelisp-cam)|zelisp-cam lists the platform's cameras, shows their views and controls,
gets and sets controls, and captures from one camera, several cameras or
a synchronized group into PNG or raw files with a JSON summary."
  "sim|zelisp-sim|devel||simulated ISP camera driver for developing without a board|libzelisp-sim.so plays the board's kernel drivers in user space
(/dev/video0..23, /dev/isp_misc) for an unmodified program started with
zelisp-sim-run."
  "gstreamer|gstreamer1.0-zelisp|video|runtime|GStreamer elements for ISP cameras through libzelisp|GStreamer source elements built on libzelisp, the RTSP server zelisp-rtsp
(one mount per camera or camera group, on a PTP or NTP clock it names in
the SDP), and zelisp-rig, which records the streams of several boards on
one clock and lines their frames up into frame sets."
  "python|python3-zelisp|python|runtime|Python bindings of libzelisp|The zelisp Python package: cameras and frames as Python objects, frames
as numpy arrays."
)

# Compressed as Debian wants it, without a time stamp so that it is the same
# on every build.
set(zelisp_debian_changelog ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packaging)
execute_process(COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/packaging/debian/changelog
  OUTPUT_FILE ${zelisp_debian_changelog} RESULT_VARIABLE zelisp_gzip_result)
if(NOT zelisp_gzip_result EQUAL 0)
  message(FATAL_ERROR "gzip of packaging/debian/changelog failed")
endif()

get_cmake_property(zelisp_installed_components COMPONENTS)
set(CPACK_COMPONENTS_ALL "")
foreach(entry IN LISTS ZELISP_PACKAGE_COMPONENTS)
  string(REPLACE "|" ";" fields "${entry}")
  list(GET fields 0 component)
  list(GET fields 1 package)
  list(GET fields 2 section)
  list(GET fields 3 depends)
  list(GET fields 4 summary)
  list(GET fields 5 description)
  if(NOT component IN_LIST zelisp_installed_components)
    continue()
  endif()
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${summary}\n${description}")
  if(depends)
    set(CPACK_COMPONENT_${upper}_DEPENDS ${depends})
  endif()
  # Every Debian package carries its copyright and changelog in its own
  # documentation folder.
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/copyright ${zelisp_debian_changelog}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()

# The runtime package tells dpkg which package provides the library
# (shlibs) and runs ldconfig through dpkg's trigger, as Debian's own
# library packages do.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The header, CMake package and examples are useless without a compiler.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libc6-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS "g++ | c++-compiler, cmake, pkgconf")
# zelisp-cam labels its contact sheet with DejaVu Sans Mono; the libraries
# (libfreetype6 among them) come from dpkg-shlibdeps. The web console's
# WebRTC view loads GStreamer elements at run time, which no library link
# names: webrtcbin, its ICE, DTLS and SRTP (bad, nice), RTP and the V4L2
# encoder (good), videoconvert and appsrc (base); x264enc is recommended
# where the board has no H.264 encoder of its own.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "fonts-dejavu-core, gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, \
gstreamer1.0-plugins-bad, gstreamer1.0-nice")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "gstreamer1.0-plugins-ugly")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "zelisp-sim")
set(CPACK_DEBIAN_SIM_PACKAGE_SUGGESTS "zelisp-tools")
# zelisp-rtsp and zelisp-rig build their pipelines from stock elements
# (payloaders, rtspsrc, parsers, matroskamux, splitmuxsink, jpegenc); the
# x264 encoder and a PTP grandmaster are for the rigs that want them.
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_DEPENDS "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad")
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_RECOMMENDS "gstreamer1.0-plugins-ugly")
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SUGGESTS "linuxptp")
# The extension is built for one interpreter version and against numpy 1.x's
# C interface, whose binary version (9) numpy's package provides.
if(ZELISP_PYTHON_VERSION)
  string(REPLACE "." ";" python_version_parts ${ZELISP_PYTHON_VERSION})
  list(GET python_version_parts 0 python_major)
  list(GET python_version_parts 1 python_minor)
  math(EXPR python_next_minor "${python_minor} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "python3 (>= ${ZELISP_PYTHON_VERSION}), python3 (<< ${python_major}.${python_next_minor}), python3-numpy, python3-numpy-abi9")
endif()

include(CPack)
