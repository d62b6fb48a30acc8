# zelisp_add_manpage(TARGET NAME COMPONENT): the program's manual page, made
# from its --help at build time with help2man, compressed as Debian wants it
# and installed with the component. Left out when the program cannot run on
# the build machine (cross builds) or help2man is missing.
find_program(ZELISP_HELP2MAN help2man)
function(zelisp_add_manpage target name component)
  if(NOT ZELISP_HELP2MAN OR CMAKE_CROSSCOMPILING)
    message(STATUS "No manual page for ${target}: help2man missing or cross build")
    return()
  endif()
  set(page ${CMAKE_CURRENT_BINARY_DIR}/${target}.1)
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${ZELISP_HELP2MAN} --no-info --no-discard-stderr --name=${name}
            --version-string=${PROJECT_VERSION} --output=${page} $<TARGET_FILE:${target}>
    COMMAND gzip -9nf ${page}
    DEPENDS ${target}
    COMMENT "Manual page of ${target}"
    VERBATIM)
  add_custom_target(${target}-manpage ALL DEPENDS ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
endfunction()
