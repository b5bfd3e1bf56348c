# zephlore-import reads models for the program, which runs it: assimp weighs on nothing else. Without assimp it is
# not built, and `zephlore import` says so.
option(ZP_IMPORT "Build zephlore-import, which takes assimp" ON)
if(ZP_IMPORT)
  find_package(assimp QUIET)
  find_library(DRACO_LIBRARY draco)  # which Debian's assimp takes, too
  if(NOT assimp_FOUND OR NOT DRACO_LIBRARY)
    message(WARNING "assimp or draco was not found: models cannot be imported")
  endif()
endif()
if(ZP_IMPORT AND assimp_FOUND AND DRACO_LIBRARY)
  file(GLOB ZP_IMPORT_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/import/*.cpp)
  add_executable(zephlore-import ${ZP_IMPORT_SOURCES})
  target_link_libraries(zephlore-import PRIVATE zp_core assimp::assimp ${DRACO_LIBRARY} nlohmann_json::nlohmann_json)
  add_dependencies(zephlore zephlore-import)
endif()
