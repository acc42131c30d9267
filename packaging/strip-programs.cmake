# Run by CPack on the staged package, before it is packed: the programs lose the compiler's
# .comment and the .note section, as Debian's own packages are stripped (dh_strip); the build ids
# (.note.gnu.build-id) stay.
file(GLOB programs LIST_DIRECTORIES FALSE
  "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/bin/*"
  "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/libexec/zandor/*")
foreach(program IN LISTS programs)
  if(NOT IS_SYMLINK "${program}")
    execute_process(
      COMMAND "${CPACK_ZANDOR_STRIP}" --remove-section=.comment --remove-section=.note --strip-unneeded "${program}"
      COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
