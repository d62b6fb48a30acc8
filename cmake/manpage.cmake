# zelisp_add_manpage(TARGET NAME COMPONENT [WRITER OPTION] [INCLUDE FILE])
#
# The program's manual page, compressed as Debian wants it and installed
# with the component. With WRITER the program writes its page itself when
# run with OPTION (zelisp-cam --manual, which covers every command);
# otherwise help2man makes it from --help, with the sections of INCLUDE (a
# help2man include file, configured first: @ZELISP_DOC_DIR@ is the guides'
# folder). Left out when the program cannot run on the build machine (cross
# builds) or, without WRITER, when help2man is missing.
#
# A page names the guides in the configured prefix. Installed into another
# prefix (cmake --install --prefix P), the page is rewritten to name P's
# copies, so that it always points at files that are there.
find_program(ZELISP_HELP2MAN help2man)
set(ZELISP_DOC_DIR ${CMAKE_INSTALL_FULL_DATADIR}/doc/zelisp)

function(zelisp_add_manpage target name component)
  cmake_parse_arguments(PARSE_ARGV 3 page "" "WRITER;INCLUDE" "")
  if(CMAKE_CROSSCOMPILING OR (NOT page_WRITER AND NOT ZELISP_HELP2MAN))
    message(STATUS "No manual page for ${target}: help2man missing or cross build")
    return()
  endif()
  set(page ${CMAKE_CURRENT_BINARY_DIR}/${target}.1)
  if(page_WRITER)
    set(make_page COMMAND $<TARGET_FILE:${target}> ${page_WRITER} > ${page})
  else()
    set(include_options "")
    if(page_INCLUDE)
      get_filename_component(include_name ${page_INCLUDE} NAME_WLE)
      configure_file(${page_INCLUDE} ${CMAKE_CURRENT_BINARY_DIR}/${include_name} @ONLY)
      set(include_options --include=${CMAKE_CURRENT_BINARY_DIR}/${include_name})
    endif()
    set(make_page COMMAND ${ZELISP_HELP2MAN} --no-info --no-discard-stderr --name=${name}
                          --version-string=${PROJECT_VERSION} ${include_options} --output=${page}
                          $<TARGET_FILE:${target}>)
  endif()
  add_custom_command(OUTPUT ${page}.gz
    ${make_page}
    COMMAND gzip -9nf ${page}
    DEPENDS ${target} ${page_INCLUDE}
    COMMENT "Manual page of ${target}"
    VERBATIM)
  add_custom_target(${target}-manpage ALL DEPENDS ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
  install(CODE "zelisp_manpage_for_prefix(\"${CMAKE_INSTALL_MANDIR}/man1/${target}.1.gz\" \"${ZELISP_DOC_DIR}\"
                \"${CMAKE_INSTALL_DATADIR}/doc/zelisp\")" COMPONENT ${component})
endfunction()

# The install-time half, defined once at the top of the install script for
# every component. CPack stages a package by installing into
# <staging>/<configured prefix>: that is the configured prefix, and the page
# stays as it is.
function(zelisp_define_manpage_rewriter)
  install(CODE [[
function(zelisp_manpage_for_prefix page configured_doc_dir doc_dir)
  set(installed_doc_dir "${CMAKE_INSTALL_PREFIX}/${doc_dir}")
  string(LENGTH "${installed_doc_dir}" installed_length)
  string(LENGTH "${configured_doc_dir}" configured_length)
  math(EXPR staging_length "${installed_length} - ${configured_length}")
  if(staging_length GREATER_EQUAL 0)
    string(SUBSTRING "${installed_doc_dir}" ${staging_length} -1 installed_tail)
    if(installed_tail STREQUAL configured_doc_dir)
      return()
    endif()
  endif()
  set(file "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/${page}")
  execute_process(COMMAND gzip -dc "${file}" OUTPUT_VARIABLE text RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "cannot read ${file}")
  endif()
  # Plain, and as roff writes a path with hyphens in it (\-).
  string(REPLACE "${configured_doc_dir}" "${installed_doc_dir}" text "${text}")
  string(REPLACE "-" "\\-" configured_roff "${configured_doc_dir}")
  string(REPLACE "-" "\\-" installed_roff "${installed_doc_dir}")
  string(REPLACE "${configured_roff}" "${installed_roff}" text "${text}")
  string(REGEX REPLACE "\\.gz$" "" plain "${file}")
  file(WRITE "${plain}" "${text}")
  execute_process(COMMAND gzip -9nf "${plain}" RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "cannot compress ${plain}")
  endif()
endfunction()
]] ALL_COMPONENTS)
endfunction()
zelisp_define_manpage_rewriter()
