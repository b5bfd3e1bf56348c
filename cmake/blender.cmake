# The add-on for Blender, tried where Blender is installed.
find_program(ZP_BLENDER blender)
if(ZP_BLENDER)
  add_test(NAME blender/addon COMMAND ${ZP_BLENDER} -b --factory-startup --python-exit-code 1
    -P ${PROJECT_SOURCE_DIR}/tests/blender_addon.py)
  set_tests_properties(blender/addon PROPERTIES TIMEOUT 300 ENVIRONMENT "ZEPHLORE_PROGRAM=$<TARGET_FILE:zephlore>")
endif()
