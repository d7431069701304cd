# cmake -DDIST=folder -DQRC=file -P web_qrc.cmake: a Qt resource file holding every file
# of the built web client under the prefix /web.
file(GLOB_RECURSE files RELATIVE ${DIST} ${DIST}/*)
list(SORT files)
set(content "<RCC>\n  <qresource prefix=\"/web\">\n")
foreach(file IN LISTS files)
  string(APPEND content "    <file alias=\"${file}\">${DIST}/${file}</file>\n")
endforeach()
string(APPEND content "  </qresource>\n</RCC>\n")
file(WRITE ${QRC} "${content}")
