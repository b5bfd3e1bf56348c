# The Debian packages that `make package` leaves in build/package: one for each component, python3-zp only where
# the module for Python has been built.

set(ZP_MAINTAINER "The zephlore developers <zephlore@localhost.invalid>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zephlore)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each component has its own
set(CPACK_PACKAGE_CONTACT ${ZP_MAINTAINER})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_SOURCE_DIR}/build/package)
set(CPACK_OUTPUT_FILE_PREFIX ${CPACK_PACKAGE_DIRECTORY})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/compress.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE zephlore)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})  # the module's libzp.so is no package yet

set(CPACK_COMPONENTS_ALL program library development)
get_cmake_property(components COMPONENTS)
if("python" IN_LIST components)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()

set(CPACK_COMPONENT_PROGRAM_DESCRIPTION "Physically based offline renderer
It reads a folder of plain text and Wavefront OBJ files, traces light through
it pass by pass, and writes the picture, linear and unclipped, to an image
file. Scenes to begin with come along.

A processor with AVX2 is needed.")
set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME zephlore)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SHLIBDEPS ON)

set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "Physically based offline renderer - library
It builds scenes from a program's own data, renders them pass by pass, and
hands out the pictures.

A processor with AVX2 is needed.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libzp${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
# CPack adds scripts that call ldconfig; the trigger makes one call of it for all packages of a transaction.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/debian/shlibs ${PROJECT_BINARY_DIR}/debian/triggers)

set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Physically based offline renderer - header
What building programs against the library takes: the header, the link, and
the files for CMake and pkg-config.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzp-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} (= ${PROJECT_VERSION})")

set(CPACK_COMPONENT_PYTHON_DESCRIPTION "Physically based offline renderer - module for Python
Scenes as objects and pictures as NumPy arrays, in notebooks too, and the
library's functions, for Python 3.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-zp)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS ON)
if("python" IN_LIST components)  # the module fits one version of the interpreter
  math(EXPR next "${Python3_VERSION_MINOR} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "python3 (>= 3.${Python3_VERSION_MINOR}~), python3 (<< 3.${next}), python3-numpy")
endif()
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/debian/postinst ${PROJECT_BINARY_DIR}/debian/prerm)

# What Debian wants beside the files of a plain installation, which EXCLUDE_FROM_ALL leaves alone.
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
file(WRITE ${PROJECT_BINARY_DIR}/debian/shlibs
  "libzp ${PROJECT_VERSION_MAJOR} libzp${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})\n")
# Byte code of the module comes and goes with it.
file(WRITE ${PROJECT_BINARY_DIR}/debian/postinst
  "#!/bin/sh\nset -e\nif command -v py3compile > /dev/null; then py3compile -p python3-zp; fi\n")
file(WRITE ${PROJECT_BINARY_DIR}/debian/prerm
  "#!/bin/sh\nset -e\nif command -v py3clean > /dev/null; then py3clean -p python3-zp; fi\n")
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ZP_DEB_DATE "--date=@$ENV{SOURCE_DATE_EPOCH}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C date -R ${ZP_DEB_DATE}
  OUTPUT_VARIABLE ZP_DEB_DATE OUTPUT_STRIP_TRAILING_WHITESPACE)
file(WRITE ${PROJECT_BINARY_DIR}/debian/changelog
  "zephlore (${PROJECT_VERSION}) unstable; urgency=medium\n\n  * Built from the sources of ${PROJECT_VERSION}.\n\n"
  " -- ${ZP_MAINTAINER}  ${ZP_DEB_DATE}\n")

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  set(folder ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  install(FILES ${PROJECT_BINARY_DIR}/debian/changelog ${PROJECT_BINARY_DIR}/copyright
    DESTINATION ${folder} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
