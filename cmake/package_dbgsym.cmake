# Run by CPack after it packs (CPACK_POST_BUILD_SCRIPTS): mends the
# ostrel-dbgsym .ddeb that CPack makes as Debian's own debug packages are
# made. CPack writes its md5sums with the staging directory's absolute paths
# and gives it no documentation directory; the package gets md5sums of its
# own paths and /usr/share/doc/ostrel-dbgsym as a link to ostrel's (it
# depends on that exact version), as dh_strip does.
foreach(pkg IN LISTS CPACK_PACKAGE_FILES)
  if(NOT pkg MATCHES "-dbgsym_.*\\.ddeb$")
    continue()
  endif()
  set(tree ${CPACK_TOPLEVEL_DIRECTORY}/dbgsym-mended)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${pkg} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(MAKE_DIRECTORY ${tree}/usr/share/doc)
  file(CREATE_LINK ${CPACK_PACKAGE_NAME} ${tree}/usr/share/doc/${CPACK_PACKAGE_NAME}-dbgsym SYMBOLIC)
  file(GLOB_RECURSE files RELATIVE ${tree} ${tree}/usr/*)
  list(SORT files)
  set(sums "")
  foreach(f IN LISTS files)
    if(NOT IS_SYMLINK ${tree}/${f})
      file(MD5 ${tree}/${f} sum)
      string(APPEND sums "${sum}  ${f}\n")
    endif()
  endforeach()
  file(WRITE ${tree}/DEBIAN/md5sums "${sums}")
  execute_process(COMMAND dpkg-deb --root-owner-group -b ${tree} ${pkg}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
