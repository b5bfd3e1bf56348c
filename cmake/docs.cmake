# The documentation, as HTML in build/docs/html, where Doxygen is installed. A function without an explanation
# and a link that leads nowhere end it with an error.
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(ZP_DOCS_FOLDER ${PROJECT_SOURCE_DIR}/build/docs)
  file(GLOB ZP_DOCS_PAGES CONFIGURE_DEPENDS docs/*.md)
  list(TRANSFORM ZP_DOCS_PAGES REPLACE "(.+)" "\"\\1\"" OUTPUT_VARIABLE ZP_DOCS_INPUT)
  list(JOIN ZP_DOCS_INPUT " " ZP_DOCS_INPUT)
  string(PREPEND ZP_DOCS_INPUT "\"${PROJECT_SOURCE_DIR}/src/frame/zp.h\" ")
  configure_file(docs/doxygen/Doxyfile.in docs/Doxyfile @ONLY)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E make_directory ${ZP_DOCS_FOLDER}
    COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/docs/Doxyfile
    VERBATIM)
endif()
