# Tests that use the library as a host does: installed into a folder of its own, from another project, with the
# compiler and the flags of this build, so that sanitizers reach both sides.
set(ZP_HOST_FOLDER ${PROJECT_BINARY_DIR}/host)
set(ZP_HOST_PREFIX ${ZP_HOST_FOLDER}/installed)
string(TOUPPER "${CMAKE_BUILD_TYPE}" ZP_HOST_TYPE)
set(ZP_HOST_FLAGS "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${ZP_HOST_TYPE}}")

# Under clang's thread sanitizer the OpenMP library must find the tool beside it that tells of its barriers, or
# every fork and join counts as a race. The tests of this build find it by their run path.
if(ZP_HOST_FLAGS MATCHES "-fsanitize=thread" AND OpenMP_omp_LIBRARY)
  cmake_path(GET OpenMP_omp_LIBRARY PARENT_PATH ZP_OPENMP_FOLDER)
  set(ZP_HOST_ENVIRONMENT ENVIRONMENT "OMP_TOOL_LIBRARIES=${ZP_OPENMP_FOLDER}/libarcher.so")
endif()

# Adds a test that runs a line of shell, which stops at its first failure.
function(zp_add_host_test name command)
  add_test(NAME examples/${name} COMMAND sh -e -c "${command}")
  set_tests_properties(examples/${name} PROPERTIES TIMEOUT 120 ${ZP_HOST_ENVIRONMENT} ${ARGN})
endfunction()

zp_add_host_test(install
  "unset DESTDIR; rm -rf '${ZP_HOST_FOLDER}' && '${CMAKE_COMMAND}' --install '${PROJECT_BINARY_DIR}' --prefix '${ZP_HOST_PREFIX}'"
  FIXTURES_SETUP zp_installed)

zp_add_host_test(build
  "'${CMAKE_COMMAND}' -S '${PROJECT_SOURCE_DIR}/examples' -B '${ZP_HOST_FOLDER}/build' -G Ninja \
   -DCMAKE_PREFIX_PATH='${ZP_HOST_PREFIX}' -DCMAKE_CXX_COMPILER='${CMAKE_CXX_COMPILER}' \
   -DCMAKE_BUILD_TYPE='${CMAKE_BUILD_TYPE}' -DCMAKE_CXX_FLAGS='${ZP_HOST_FLAGS} -Werror' && \
   '${CMAKE_COMMAND}' --build '${ZP_HOST_FOLDER}/build'"
  FIXTURES_REQUIRED zp_installed FIXTURES_SETUP zp_examples_built)

# They look at what they wrote, and say so with their status.
zp_add_host_test(build_scene "'${ZP_HOST_FOLDER}/build/build_scene' '${ZP_HOST_FOLDER}/images' 64 2"
  FIXTURES_REQUIRED zp_examples_built)
zp_add_host_test(progressive
  "cd '${ZP_HOST_FOLDER}/build' && ./progressive '${ZP_HOST_FOLDER}/progressive.pfm' 64 8 0.2 && \
   test -s '${ZP_HOST_FOLDER}/progressive.pfm' && test -z \"$(ls beauty-* 2>/dev/null)\""
  FIXTURES_REQUIRED zp_examples_built)

find_program(ZP_PKG_CONFIG pkg-config)
if(ZP_PKG_CONFIG)
  zp_add_host_test(pkg_config
    "export PKG_CONFIG_PATH='${ZP_HOST_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig' \
     LD_LIBRARY_PATH='${ZP_HOST_PREFIX}/${CMAKE_INSTALL_LIBDIR}' && cd '${ZP_HOST_FOLDER}' && \
     '${CMAKE_CXX_COMPILER}' ${ZP_HOST_FLAGS} -std=c++17 '${PROJECT_SOURCE_DIR}/examples/progressive.cpp' \
     -o linked_by_pkg_config $('${ZP_PKG_CONFIG}' --cflags --libs zp) && \
     ./linked_by_pkg_config linked_by_pkg_config.pfm 32 1"
    FIXTURES_REQUIRED zp_installed)
endif()
