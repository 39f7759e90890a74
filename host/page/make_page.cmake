# SPDX-License-Identifier: Apache-2.0
# make_page.cmake: puts the page of --report together: its style and script, and the plotting library with its licence;
# then writes it as bytes of C++ (page.inc). Nothing of it is fetched when the page is opened.
# cmake -DFOLDER=. -DLIBRARY=dygraph.min.js -DSTYLE=dygraph.min.css -DLICENCE=copyright -DOUTPUT=page.inc -P make_page.cmake
file(READ ${FOLDER}/page.html page)
foreach(part library style licence)
  string(TOUPPER ${part} place)
  file(READ ${${place}} ${part})
  # A debugger would look for the sources that the library was made of.
  string(REGEX REPLACE "/[/*]# sourceMappingURL=[^\n]*" "" ${part} "${${part}}")
  if(${part} MATCHES "</(script|style)")
    message(FATAL_ERROR "${${place}} holds the end of the element that it stands in")
  endif()
endforeach()
file(READ ${FOLDER}/page.css page_style)
file(READ ${FOLDER}/page.js page_script)
foreach(part library style licence page_style page_script)
  string(TOUPPER ${part} place)
  string(REPLACE "@${place}@" "${${part}}" page "${page}")
endforeach()
file(WRITE ${OUTPUT}.html "${page}")
file(READ ${OUTPUT}.html bytes HEX)
string(REGEX REPLACE "(................................)" "\\1\n" bytes "${bytes}")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
file(WRITE ${OUTPUT} "${bytes}")
