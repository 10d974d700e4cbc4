# Turns the files of which pages are made into a C++ source: host/reports/page/parts.h.
# cmake -DFOLDER=host/reports/page -DTHREE=three.min.js (or nothing) -DOUT=parts.cpp -P embed_page.cmake
# Raw strings hold every byte but their own end.
set(text "// Made by cmake/embed_page.cmake.\n#include \"host/reports/page/parts.h\"\n\nnamespace vexo {\n\nusing namespace std::literals;\n")

function(add_part name part)
  string(TOLOWER "${part}" lower)
  string(FIND "${lower}" "</s" ends)
  string(FIND "${part}" "<!--" comments)
  if(NOT ends EQUAL -1 OR NOT comments EQUAL -1)
    message(FATAL_ERROR "${name}: would end the element that it stands in")
  endif()
  set(text "${text}\nconst std::string_view ${name} = R\"vexo(${part})vexo\"sv;\n" PARENT_SCOPE)
endfunction()

file(READ ${FOLDER}/page.css style)
add_part(page_style "${style}")
file(READ ${FOLDER}/view.js view)
add_part(view_script "${view}")
set(three "")
if(THREE)
  file(READ ${FOLDER}/three_licence.txt licence)
  file(READ ${THREE} three)
  set(three "/*\n${licence}*/\n${three}")
endif()
add_part(three_script "${three}")
file(WRITE ${OUT} "${text}\n} // namespace vexo\n")
