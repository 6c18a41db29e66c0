# Install layout and the Debian package.
#
#   cmake --install <build> [--prefix P]      (default P: /usr/local)
#   cpack -G DEB --config <build>/CPackConfig.cmake   (P is /usr)
#
#   P/lib/ostrel/Ostrel                       the daemon
#   P/lib/ostrel/ostrel-cgi                   its CGI entry for web servers
#   P/lib/ostrel/ostrel-schedule-cgi          a stand-in schedule server
#   P/bin/ostrel-ctl                          the operator command
#   P/bin/ostrel-viewer                       the channel viewer (viewer/)
#   P/share/doc/ostrel/                       README, guides, copyright, changelog
#   P/share/man/man{1,8}/                     ostrel-viewer.1, Ostrel.8,
#                                             ostrel-ctl.8, ostrel-cgi.8
#   ETC/lighttpd/conf-available/50-ostrel.conf  web server configuration
#   ETC/lighttpd/conf-available/50-ostrel-schedule.conf  (the stand-in)
#   ETC/apache2/conf-available/ostrel.conf
#   ETC/apache2/conf-available/ostrel-schedule.conf
#   VAR/lib/ostrel/{conf,log,mem,states}/     the channels' working directory
#
# ETC and VAR are /etc and /var for the prefix /usr, P/etc and P/var
# otherwise. The working directory is made mode 0750; a plain install as root
# hands it to www-data (ostrel-ctl init). The package leaves it to its
# postinst, and its postrm removes it on purge (deploy/debian/).
install(TARGETS Ostrel RUNTIME DESTINATION lib/ostrel)
install(PROGRAMS deploy/bin/ostrel-cgi deploy/bin/ostrel-schedule-cgi DESTINATION lib/ostrel)
install(PROGRAMS deploy/bin/ostrel-ctl DESTINATION bin)
install(TARGETS ostrel-viewer RUNTIME DESTINATION bin)
install(FILES README.md docs/OPERATIONS.md docs/CONFIGURATION.md docs/PROTOCOLS.md
  deploy/debian/copyright
  DESTINATION share/doc/ostrel)

# Manual pages, made from sections of docs/OPERATIONS.md (one text for the
# guide and the page), and the changelog, compressed as Debian wants them.
find_package(Python3 COMPONENTS Interpreter REQUIRED)
set(man_outputs "")
# ostrel_man_page(<page> <section> <what> SYNOPSIS <lines...> FROM <headings...>)
function(ostrel_man_page page section what)
  cmake_parse_arguments(ARG "" "" "SYNOPSIS;FROM" ${ARGN})
  set(out ${PROJECT_BINARY_DIR}/man/${page}.${section}.gz)
  set(synopsis "")
  foreach(line IN LISTS ARG_SYNOPSIS)
    list(APPEND synopsis --synopsis "${line}")
  endforeach()
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/cmake/md2man.py -o ${out}
      --name ${page} --section ${section} --what ${what} ${synopsis}
      ${PROJECT_SOURCE_DIR}/docs/OPERATIONS.md ${ARG_FROM}
    DEPENDS ${PROJECT_SOURCE_DIR}/cmake/md2man.py ${PROJECT_SOURCE_DIR}/docs/OPERATIONS.md
    COMMENT "Manual page ${page}(${section})" VERBATIM)
  install(FILES ${out} DESTINATION share/man/man${section})
  set(man_outputs ${man_outputs} ${out} PARENT_SCOPE)
endfunction()
ostrel_man_page(Ostrel 8 "single-channel camera relay daemon"
  SYNOPSIS "Ostrel -StartUp NN" "Ostrel -StartUp_NonDeamon NN" "Ostrel -GetConfigTemplate NN"
  FROM Starting Files Stopping "The log" Network Security)
ostrel_man_page(ostrel-ctl 8 "look after the Ostrel Relay channels of a working directory"
  SYNOPSIS "ostrel-ctl [-C WORKDIR]... [--states DIR] status"
    "ostrel-ctl [-C WORKDIR]... [--states DIR] stop (NAME... | --all) [--timeout SECONDS]"
    "ostrel-ctl [-C WORKDIR]... [--states DIR] clean [NAME...]"
    "ostrel-ctl init [--user USER] [--group GROUP] [--states-dir PATH] WORKDIR"
  FROM "Controlling channels" Installing)
ostrel_man_page(ostrel-cgi 8 "the CGI program a web server runs to start Ostrel Relay channels"
  SYNOPSIS "REQUEST_METHOD=GET QUERY_STRING=Command=StartUp&Name=NN ostrel-cgi"
  FROM "Running under a web server" "The schedule server")
ostrel_man_page(ostrel-viewer 1 "show an Ostrel Relay channel in a browser"
  SYNOPSIS "ostrel-viewer --control ADDR:PORT --bind ADDR:PORT --serve ADDR:PORT [--states FILE]"
  FROM "Watching the channel")
set(changelog ${PROJECT_BINARY_DIR}/deb/changelog.gz)
add_custom_command(OUTPUT ${changelog}
  COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/deploy/debian/changelog > ${changelog}
  DEPENDS ${PROJECT_SOURCE_DIR}/deploy/debian/changelog VERBATIM)
add_custom_target(ostrel_docs ALL DEPENDS ${man_outputs} ${changelog})
install(FILES ${changelog} DESTINATION share/doc/ostrel)
install(CODE "set(OSTREL_DEPLOY_DIR \"${PROJECT_SOURCE_DIR}/deploy\")")
install(SCRIPT cmake/install_site.cmake)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ostrel)
set(CPACK_PACKAGE_VERSION 0.2)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "single-channel camera relay daemon for a network video recorder")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Ostrel Relay serves one camera channel of a network video recording
system: it pulls an Axis camera's MJPEG stream while a viewer is logged
in, hands the pictures to that viewer over its own HTTP control port, and
asks the local schedule server to stop urgent recording when the
post-alarm term runs out. A web server starts channels through the CGI
entry; ostrel-ctl shows, stops and cleans them up.")
set(CPACK_PACKAGE_CONTACT "Ostrel Relay maintainers <maintainers@users.noreply.c-seed-5ce50b63.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
# The install script needs the real prefix (/usr) to put /etc and /var.
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# The libraries' versions come from dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3")
# Stripped programs, their symbols in the package ostrel-dbgsym (a .ddeb):
# the release type with symbols (RelWithDebInfo) is the one to package.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_OSTREL_BUILD_TYPE "${CMAKE_BUILD_TYPE}")
set(CPACK_OSTREL_SANITIZE "${OSTREL_SANITIZE}")
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package_check.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package_dbgsym.cmake)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "lighttpd | apache2")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()
file(WRITE ${PROJECT_BINARY_DIR}/deb/conffiles
  "/etc/lighttpd/conf-available/50-ostrel.conf
/etc/lighttpd/conf-available/50-ostrel-schedule.conf
/etc/apache2/conf-available/ostrel.conf
/etc/apache2/conf-available/ostrel-schedule.conf
")
set(control_extra ${PROJECT_BINARY_DIR}/deb/conffiles)
foreach(script postinst prerm postrm)
  configure_file(deploy/debian/${script} ${PROJECT_BINARY_DIR}/deb/${script} COPYONLY)
  list(APPEND control_extra ${PROJECT_BINARY_DIR}/deb/${script})
endforeach()
install(FILES deploy/debian/lintian-overrides DESTINATION share/lintian/overrides RENAME ostrel)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${control_extra})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
