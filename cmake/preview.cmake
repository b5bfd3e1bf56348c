# The preview window is a module of its own, which is loaded when a window is asked for. Without freeglut all else is
# as it is, and says then what is missing.
include(GNUInstallDirs)
set(ZP_MODULE_DIR ${CMAKE_INSTALL_LIBDIR}/zephlore)
file(RELATIVE_PATH ZP_PROGRAM_TO_MODULES /p/${CMAKE_INSTALL_BINDIR} /p/${ZP_MODULE_DIR})
set_source_files_properties(src/imaging/preview.cpp PROPERTIES COMPILE_DEFINITIONS
  "ZP_PROGRAM_TO_MODULES=\"${ZP_PROGRAM_TO_MODULES}\";ZP_MODULES=\"${CMAKE_INSTALL_FULL_LIBDIR}/zephlore\"")
target_link_libraries(zp_core PUBLIC ${CMAKE_DL_LIBS})

if(ZP_PREVIEW)
  find_package(GLUT QUIET)
  find_package(OpenGL QUIET)
  find_package(X11 QUIET)
endif()
if(ZP_PREVIEW AND GLUT_FOUND AND OPENGL_FOUND AND X11_FOUND)
  add_library(zp_preview MODULE src/window/preview_window.cpp)
  set_target_properties(zp_preview PROPERTIES PREFIX "" OUTPUT_NAME zephlore-preview)
  target_include_directories(zp_preview PRIVATE src)
  target_compile_definitions(zp_preview PRIVATE ZP_VERSION="${PROJECT_VERSION}")
  target_link_libraries(zp_preview PRIVATE zp_options GLUT::GLUT OpenGL::GL X11::X11)
  install(TARGETS zp_preview LIBRARY DESTINATION ${ZP_MODULE_DIR} COMPONENT preview)
endif()
