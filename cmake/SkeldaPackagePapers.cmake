# Called by CPack when the files of all packages lie in its folder: Debian's papers are compressed.
file(GLOB_RECURSE papers ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*.1
  ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog*)
foreach(paper IN LISTS papers)
  execute_process(COMMAND gzip -9nf ${paper} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
