# The documentation, as HTML in build/docs/html: the manual (docs/manual) where Sphinx, its theme and its reader of
# Markdown are installed, and below it the functions of zp.h where Doxygen is. A function without an explanation and a
# link that leads nowhere end it with an error.
find_package(Doxygen QUIET)
set(ZP_DOCS_FOLDER ${PROJECT_SOURCE_DIR}/build/docs)
set(ZP_DOCS_PYTHON /usr/bin/python3)  # Debian's, which has what Debian's packages bring
add_custom_target(docs
  COMMAND ${CMAKE_COMMAND} -E make_directory ${ZP_DOCS_FOLDER}
  COMMAND ${ZP_DOCS_PYTHON} ${PROJECT_SOURCE_DIR}/docs/manual/build.py ${ZP_DOCS_FOLDER}/html ${PROJECT_VERSION}
  VERBATIM)
execute_process(COMMAND ${ZP_DOCS_PYTHON} -c "import furo, myst_parser, sphinx"
  RESULT_VARIABLE ZP_DOCS_FAILED OUTPUT_QUIET ERROR_QUIET)
if(ZP_TESTS AND ZP_DOCS_FAILED EQUAL 0)
  add_test(NAME manual
    COMMAND ${ZP_DOCS_PYTHON} ${PROJECT_SOURCE_DIR}/docs/manual/build.py ${PROJECT_BINARY_DIR}/manual ${PROJECT_VERSION})
endif()
if(DOXYGEN_FOUND)
  configure_file(docs/doxygen/Doxyfile.in docs/Doxyfile @ONLY)
  add_custom_command(TARGET docs POST_BUILD COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/docs/Doxyfile VERBATIM)
endif()
