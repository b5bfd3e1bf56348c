# Precompiled headers take a quarter off the time of a first build, which is of the program alone. Other builds do
# without: ccache finds nothing with them, and GCC 12 then forgets which headers are not ours to warn of.
if(NOT ZP_LEAN OR CMAKE_CXX_COMPILER_LAUNCHER OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  return()
endif()
target_compile_options(zp_options INTERFACE -Wno-error -Wno-array-bounds)
set(ZP_STANDARD_HEADERS <algorithm> <array> <atomic> <cmath> <cstdint> <cstdio> <cstring> <filesystem> <functional>
  <memory> <optional> <span> <string> <string_view> <utility> <vector>)
target_precompile_headers(zp_core PRIVATE ${ZP_STANDARD_HEADERS} <immintrin.h> <omp.h>)
# Of flags of its own a source takes no headers of others.
set_source_files_properties(src/lights/light_tree.cpp PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
target_precompile_headers(zp_job REUSE_FROM zp_core)
target_precompile_headers(zephlore PRIVATE ${ZP_STANDARD_HEADERS})
