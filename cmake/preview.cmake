# The preview window. Without freeglut the library renders all the same, and says so when a window is asked for.
if(ZP_PREVIEW)
  find_package(GLUT QUIET)
  find_package(OpenGL QUIET)
  find_package(X11 QUIET)
endif()
if(ZP_PREVIEW AND GLUT_FOUND AND OPENGL_FOUND AND X11_FOUND)
  target_link_libraries(zp_core PRIVATE GLUT::GLUT OpenGL::GL X11::X11)
  # Nothing else differs between the two kinds of build.
  set_source_files_properties(src/imaging/preview.cpp tests/preview_test.cpp
    PROPERTIES COMPILE_DEFINITIONS ZP_HAS_PREVIEW)
endif()
