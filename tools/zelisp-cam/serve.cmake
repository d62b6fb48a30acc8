# The web console of zelisp-cam ("zelisp-cam serve"): cpp-httplib for HTTP,
# libturbojpeg for the previews, and the page's static files compiled into
# the binary, so the board needs nothing but the tool.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(ZCAM_HTTPLIB QUIET IMPORTED_TARGET cpp-httplib)
  pkg_check_modules(ZCAM_TURBOJPEG QUIET IMPORTED_TARGET libturbojpeg)
endif()
if(NOT ZCAM_HTTPLIB_FOUND OR NOT ZCAM_TURBOJPEG_FOUND)
  message(STATUS "zelisp-cam is built without \"serve\": it needs cpp-httplib and libturbojpeg for the target "
                 "(libcpp-httplib-dev libturbojpeg0-dev)")
  return()
endif()

find_package(Threads REQUIRED)

set(ZCAM_WEB_FILES index.html app.js style.css)
set(ZCAM_WEB_SOURCES)
foreach(file IN LISTS ZCAM_WEB_FILES)
  list(APPEND ZCAM_WEB_SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/web/${file})
endforeach()
set(ZCAM_WEB_CPP ${CMAKE_CURRENT_BINARY_DIR}/serve_web_files.cpp)
string(REPLACE ";" "," ZCAM_WEB_LIST "${ZCAM_WEB_FILES}")
add_custom_command(OUTPUT ${ZCAM_WEB_CPP}
  COMMAND ${CMAKE_COMMAND} -DOUT=${ZCAM_WEB_CPP} -DDIR=${CMAKE_CURRENT_SOURCE_DIR}/web
          -DFILES=${ZCAM_WEB_LIST} -P ${CMAKE_CURRENT_SOURCE_DIR}/embed_web.cmake
  DEPENDS ${ZCAM_WEB_SOURCES} ${CMAKE_CURRENT_SOURCE_DIR}/embed_web.cmake
  COMMENT "Embedding the web console's page")

target_sources(zelisp-cam PRIVATE
  serve_command.cpp
  serve_hub.cpp
  serve_images.cpp
  serve_http.cpp
  ${ZCAM_WEB_CPP})
target_compile_definitions(zelisp-cam PRIVATE ZELISP_CAM_SERVE=1)
target_link_libraries(zelisp-cam PRIVATE PkgConfig::ZCAM_HTTPLIB PkgConfig::ZCAM_TURBOJPEG Threads::Threads)
target_include_directories(zelisp-cam PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
