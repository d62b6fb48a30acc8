# The web console of zelisp-cam ("zelisp-cam serve"): libmicrohttpd for HTTP
# (with GnuTLS for HTTPS), libturbojpeg for the previews, GStreamer's
# webrtcbin with libnice for the WebRTC view, and the page's static files
# compiled into the binary, so the board needs nothing but the tool.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(ZCAM_MHD QUIET IMPORTED_TARGET libmicrohttpd)
  pkg_check_modules(ZCAM_TURBOJPEG QUIET IMPORTED_TARGET libturbojpeg)
  pkg_check_modules(ZCAM_WEBRTC QUIET IMPORTED_TARGET
    gstreamer-1.0 gstreamer-app-1.0 gstreamer-sdp-1.0 gstreamer-webrtc-1.0 gstreamer-webrtc-nice-1.0 nice)
endif()
if(NOT ZCAM_MHD_FOUND OR NOT ZCAM_TURBOJPEG_FOUND OR NOT ZCAM_WEBRTC_FOUND)
  message(STATUS "zelisp-cam is built without \"serve\": it needs libmicrohttpd, libturbojpeg, GStreamer's WebRTC "
                 "library and libnice for the target (libmicrohttpd-dev libturbojpeg0-dev "
                 "libgstreamer-plugins-bad1.0-dev libnice-dev)")
  return()
endif()

find_package(Threads REQUIRED)
set(console_dir ${CMAKE_CURRENT_SOURCE_DIR}/console)

# The server's core, without cameras: also linked by its unit tests.
add_library(zelisp_console_core STATIC
  ${console_dir}/timers.cpp
  ${console_dir}/http_exchange.cpp
  ${console_dir}/http_server.cpp
  ${console_dir}/access_log.cpp
  ${console_dir}/access_rules.cpp
  ${console_dir}/console_token.cpp
  ${console_dir}/command_queue.cpp
  ${console_dir}/line_ring.cpp)
target_include_directories(zelisp_console_core PUBLIC ${console_dir})
target_link_libraries(zelisp_console_core PUBLIC PkgConfig::ZCAM_MHD Threads::Threads)

set(ZCAM_WEB_FILES index.html app.js common.js tiles.js tuning.js panels.js webrtc.js style.css favicon.svg)
set(ZCAM_WEB_SOURCES)
foreach(file IN LISTS ZCAM_WEB_FILES)
  list(APPEND ZCAM_WEB_SOURCES ${console_dir}/web/${file})
endforeach()
set(ZCAM_WEB_CPP ${CMAKE_CURRENT_BINARY_DIR}/web_files.cpp)
string(REPLACE ";" "," ZCAM_WEB_LIST "${ZCAM_WEB_FILES}")
add_custom_command(OUTPUT ${ZCAM_WEB_CPP}
  COMMAND ${CMAKE_COMMAND} -DOUT=${ZCAM_WEB_CPP} -DDIR=${console_dir}/web
          -DFILES=${ZCAM_WEB_LIST} -P ${console_dir}/embed_web.cmake
  DEPENDS ${ZCAM_WEB_SOURCES} ${console_dir}/embed_web.cmake
  COMMENT "Embedding the web console's page")

target_sources(zelisp-cam PRIVATE
  ${console_dir}/serve_command.cpp
  ${console_dir}/console.cpp
  ${console_dir}/console_routes.cpp
  ${console_dir}/api_routes.cpp
  ${console_dir}/picture_routes.cpp
  ${console_dir}/whep_routes.cpp
  ${console_dir}/control_ranges.cpp
  ${console_dir}/camera_hub.cpp
  ${console_dir}/camera_setup.cpp
  ${console_dir}/view_tap.cpp
  ${console_dir}/picture_workers.cpp
  ${console_dir}/picture_convert.cpp
  ${console_dir}/preview_feed.cpp
  ${console_dir}/snapshot_desk.cpp
  ${console_dir}/event_log.cpp
  ${console_dir}/webrtc_session.cpp
  ${console_dir}/webrtc_viewers.cpp
  ${console_dir}/video_feeder.cpp
  ${ZCAM_WEB_CPP})
target_compile_definitions(zelisp-cam PRIVATE ZELISP_CAM_SERVE=1)
target_include_directories(zelisp-cam PRIVATE ${CMAKE_CURRENT_SOURCE_DIR} ${console_dir})
target_link_libraries(zelisp-cam PRIVATE zelisp_console_core PkgConfig::ZCAM_TURBOJPEG PkgConfig::ZCAM_WEBRTC)
# The tests of the console are built where the console is.
set_property(GLOBAL PROPERTY ZELISP_CAM_HAS_SERVE ON)
