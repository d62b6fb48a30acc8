# Writes the Debian symbols file of the library: every symbol it exports,
# with its version node, and the first packaged version that has it, so
# that dpkg-shlibdeps gives a program the lowest libzelisp1 that has every
# symbol it uses. Run with cmake -P and LIBRARY, SONAME, NM, PACKAGE,
# PACKAGE_DEV, VERSION and OUTPUT defined.
#
# Every symbol was first packaged in 1.3.0, the first version with Debian
# packages. A symbol added later gets the version that adds it: give it a
# line in MINIMUM_VERSIONS ("name version").
set(MINIMUM_VERSIONS "")

execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY} OUTPUT_VARIABLE listing RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "${NM} cannot read ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${listing}")
set(symbols "")
foreach(line IN LISTS lines)
  # "0000000000006650 T isp_open_video@@ZELISP_1", "0000000000000000 A ZELISP_1"
  if(line MATCHES "^[0-9a-f]+ [A-Za-z] ([^ @]+)(@@?([A-Za-z0-9_.]+))?$")
    set(name ${CMAKE_MATCH_1})
    set(node ${CMAKE_MATCH_3})
    if(NOT node)
      set(node ${name}) # a version node's own symbol
    endif()
    set(version ${VERSION})
    foreach(entry IN LISTS MINIMUM_VERSIONS)
      if(entry MATCHES "^${name} (.+)$")
        set(version ${CMAKE_MATCH_1})
      endif()
    endforeach()
    list(APPEND symbols " ${name}@${node} ${version}")
  endif()
endforeach()
if(NOT symbols)
  message(FATAL_ERROR "${LIBRARY} exports nothing")
endif()
list(SORT symbols)
list(JOIN symbols "\n" body)
# Build-Depends-Package: the package whose version a program was built
# against, for dpkg-shlibdeps' check that the minimum is not too low.
file(WRITE ${OUTPUT} "${SONAME} ${PACKAGE} #MINVER#\n* Build-Depends-Package: ${PACKAGE_DEV}\n${body}\n")
