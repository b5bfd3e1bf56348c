# The module `zp` for Python: python/zp in the build tree, `ZP_PYTHON_DIR`/zp below the prefix.
include(GNUInstallDirs)
set(ZP_PYTHON_DIR "lib/python3/dist-packages" CACHE STRING "Where the Python package is installed, relative to the prefix")

# Several interpreters may be about; the first one that has NumPy serves. -DPython3_EXECUTABLE overrides.
if(ZP_PYTHON AND NOT Python3_EXECUTABLE)
  find_program(ZP_PYTHON_ON_PATH python3)
  mark_as_advanced(ZP_PYTHON_ON_PATH)
  foreach(candidate /usr/bin/python3 /usr/local/bin/python3 ${ZP_PYTHON_ON_PATH})
    execute_process(COMMAND ${candidate} -c "import numpy" RESULT_VARIABLE failed OUTPUT_QUIET ERROR_QUIET)
    if(failed EQUAL 0)
      set(Python3_EXECUTABLE ${candidate})
      break()
    endif()
  endforeach()
endif()

set(reason "")
if(NOT ZP_PYTHON)
  set(reason "ZP_PYTHON is off")
elseif(CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  set(reason "an interpreter without the sanitizer's run-time cannot load it")
else()
  find_package(Python3 3.8 QUIET COMPONENTS Interpreter Development.Module NumPy)
  if(Python3_FOUND)  # else pybind11 looks for an interpreter of its own
    find_package(pybind11 2.10 QUIET CONFIG)
  endif()
  if(NOT Python3_FOUND)
    set(reason "it needs Python with its headers and NumPy (python3-dev, python3-numpy)")
  elseif(NOT pybind11_FOUND)
    set(reason "it needs pybind11 (pybind11-dev)")
  endif()
endif()
if(reason)
  message(STATUS "No Python module: ${reason}")
  return()
endif()
message(STATUS "Python module for ${Python3_EXECUTABLE} (${Python3_VERSION})")

file(GLOB ZP_PYTHON_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/python/*.cpp)
Python3_add_library(zp_python MODULE WITH_SOABI ${ZP_PYTHON_SOURCES})
# The renderer is inside, since layers, seeds and pictures in memory are none of the library's functions. Nothing of
# it is seen from outside, so that a libzp.so in the same process is another renderer.
target_sources(zp_python PRIVATE $<TARGET_OBJECTS:zp_exported>)
target_link_libraries(zp_python PRIVATE zp_core zp_post pybind11::headers)
target_include_directories(zp_python PRIVATE ${PROJECT_SOURCE_DIR}/src/frame)  # zp.h
set(ZP_PYTHON_MAP ${PROJECT_SOURCE_DIR}/python/zp_module.map)
target_link_options(zp_python PRIVATE -Wl,--exclude-libs,ALL -Wl,--version-script=${ZP_PYTHON_MAP})
set_target_properties(zp_python PROPERTIES
  OUTPUT_NAME _zp
  LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/python/zp
  LINK_DEPENDS ${ZP_PYTHON_MAP})

# Not in a folder "zp", which the test beside it would import in place of the built one.
set(ZP_PYTHON_FILES __init__.py arrays.py cameras.py checks.py lights.py objects.py picture.py scene.py
  shaders.py _zp.pyi py.typed)
foreach(file ${ZP_PYTHON_FILES})
  configure_file(${PROJECT_SOURCE_DIR}/python/package/${file} ${PROJECT_BINARY_DIR}/python/zp/${file} COPYONLY)
endforeach()
list(TRANSFORM ZP_PYTHON_FILES PREPEND ${PROJECT_SOURCE_DIR}/python/package/)
install(TARGETS zp_python LIBRARY DESTINATION ${ZP_PYTHON_DIR}/zp COMPONENT python)
install(FILES ${ZP_PYTHON_FILES} DESTINATION ${ZP_PYTHON_DIR}/zp COMPONENT python)

if(ZP_TESTS)
  set(ZP_PYTHON_ENVIRONMENT
    "PYTHONPATH=${PROJECT_BINARY_DIR}/python;ZP_PROGRAM=$<TARGET_FILE:zephlore>;PYTHONDONTWRITEBYTECODE=1;OMP_WAIT_POLICY=passive")
  add_test(NAME python COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/python/test_zp.py)
  add_test(NAME tutorials COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/docs/tutorials/run.py $<TARGET_FILE:zephlore>)
  set_tests_properties(python tutorials PROPERTIES ENVIRONMENT "${ZP_PYTHON_ENVIRONMENT}")
endif()
