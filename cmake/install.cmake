# What `cmake --install` leaves behind, in components: the program, the library, what building against it takes, scenes,
# the module for Python, the window and the importer, whose own rules stand in files of their own.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS zephlore RUNTIME COMPONENT program)
if(TARGET zephlore-import)
  install(TARGETS zephlore-import RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/zephlore COMPONENT import)
endif()
install(FILES docs/zephlore.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
install(FILES app/completion.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME zephlore
  COMPONENT program)

# A page for each command, of what the manual says of it.
set(ZP_MANUAL ${PROJECT_SOURCE_DIR}/docs/zephlore.1)
set(ZP_VERB_PAGE ${PROJECT_SOURCE_DIR}/cmake/verb_page.awk)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ZP_MANUAL} ${ZP_VERB_PAGE})
execute_process(COMMAND awk -f ${ZP_VERB_PAGE} ${ZP_MANUAL} OUTPUT_VARIABLE verbs COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[a-z]+" verbs "${verbs}")
foreach(verb ${verbs})
  set(page ${PROJECT_BINARY_DIR}/man/zephlore-${verb}.1)
  execute_process(COMMAND awk -v verb=${verb} -f ${ZP_VERB_PAGE} ${ZP_MANUAL} OUTPUT_VARIABLE text
    COMMAND_ERROR_IS_FATAL ANY)
  file(WRITE ${page} "${text}")
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
endforeach()

foreach(scene courtyard still_life gallery cistern beads pompoms relief flight)  # those of README.md, ten megabytes
  install(DIRECTORY scenes/${scene} DESTINATION ${CMAKE_INSTALL_DATADIR}/zephlore/scenes COMPONENT scenes
    PATTERN generate.py EXCLUDE PATTERN __pycache__ EXCLUDE)
endforeach()
install(FILES docs/scene-format.md docs/check.md docs/import.md docs/aov-guide.md docs/console.md docs/watching.md docs/keeping.md docs/farm.md docs/final-gathering.md docs/pictures.md
  docs/format-2.md docs/host-guide.md docs/python.md docs/cistern.png docs/gather-modes.png
  docs/gather-radius.png docs/error-over-time.svg DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT program)

# The licence of all, and that of the data inside.
file(READ LICENSE ZP_LICENSE)
file(READ docs/third-party-notices.md ZP_NOTICES)
file(WRITE ${PROJECT_BINARY_DIR}/copyright "${ZP_LICENSE}\n${ZP_NOTICES}")
install(FILES ${PROJECT_BINARY_DIR}/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT program)

install(TARGETS zp EXPORT zpTargets
  LIBRARY COMPONENT library NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES src/frame/zp.h TYPE INCLUDE COMPONENT development)

# find_package(zp)
set(ZP_CMAKE_FOLDER ${CMAKE_INSTALL_LIBDIR}/cmake/zp)
install(EXPORT zpTargets NAMESPACE zp:: DESTINATION ${ZP_CMAKE_FOLDER} COMPONENT development)
configure_package_config_file(cmake/zpConfig.cmake.in zpConfig.cmake INSTALL_DESTINATION ${ZP_CMAKE_FOLDER})
write_basic_package_version_file(zpConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zpConfig.cmake ${PROJECT_BINARY_DIR}/zpConfigVersion.cmake
  DESTINATION ${ZP_CMAKE_FOLDER} COMPONENT development)

# pkg-config. Its prefix counts from the file itself, so that `cmake --install --prefix` and moved folders work.
set(ZP_PKGCONFIG_FOLDER ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${ZP_PKGCONFIG_FOLDER}")
  set(ZP_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH ZP_PC_PREFIX /p/${ZP_PKGCONFIG_FOLDER} /p)
  string(REGEX REPLACE "/$" "" ZP_PC_PREFIX "\${pcfiledir}/${ZP_PC_PREFIX}")
endif()
cmake_path(APPEND ZP_PC_LIBDIR "\${prefix}" "${CMAKE_INSTALL_LIBDIR}")  # an absolute folder replaces the prefix
cmake_path(APPEND ZP_PC_INCLUDEDIR "\${prefix}" "${CMAKE_INSTALL_INCLUDEDIR}")
configure_file(cmake/zp.pc.in zp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zp.pc DESTINATION ${ZP_PKGCONFIG_FOLDER} COMPONENT development)
