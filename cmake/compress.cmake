# Run by CPack between installing into its folder and packing that: Debian wants manuals and changelogs gzipped,
# with neither name nor time in them.
set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*${CPACK_PACKAGING_INSTALL_PREFIX}/share)
file(GLOB files ${share}/man/man?/*.[1-9] ${share}/doc/*/changelog)
foreach(file ${files})
  execute_process(COMMAND gzip -9nf ${file} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
