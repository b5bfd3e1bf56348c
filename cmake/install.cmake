# What `cmake --install` leaves behind.
include(GNUInstallDirs)
install(TARGETS zephlore RUNTIME)
install(TARGETS zp EXPORT zpTargets LIBRARY)
install(FILES src/frame/zp.h TYPE INCLUDE)
