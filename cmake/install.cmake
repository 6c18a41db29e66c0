# Install layout and the Debian package.
#
#   cmake --install <build> [--prefix P]      (default P: /usr/local)
#   cpack -G DEB --config <build>/CPackConfig.cmake   (P is /usr)
#
#   P/lib/ostrel/Ostrel                       the daemon
#   P/lib/ostrel/ostrel-cgi                   its CGI entry for web servers
#   P/bin/ostrel-ctl                          the operator command
#   P/bin/ostrel-viewer                       the channel viewer (viewer/)
#   P/share/doc/ostrel/                       README and guides
#   ETC/lighttpd/conf-available/50-ostrel.conf  web server configuration
#   ETC/apache2/conf-available/ostrel.conf
#   VAR/lib/ostrel/{conf,log,mem,states}/     the channels' working directory
#
# ETC and VAR are /etc and /var for the prefix /usr, P/etc and P/var
# otherwise. The working directory is made mode 0750; a plain install as root
# hands it to www-data (ostrel-ctl init), the package does so in its postinst.
install(TARGETS Ostrel RUNTIME DESTINATION lib/ostrel)
install(PROGRAMS deploy/bin/ostrel-cgi DESTINATION lib/ostrel)
install(PROGRAMS deploy/bin/ostrel-ctl DESTINATION bin)
install(TARGETS ostrel-viewer RUNTIME DESTINATION bin)
install(FILES README.md docs/OPERATIONS.md docs/CONFIGURATION.md docs/PROTOCOLS.md
  DESTINATION share/doc/ostrel)
install(CODE "set(OSTREL_DEPLOY_DIR \"${PROJECT_SOURCE_DIR}/deploy\")")
install(SCRIPT cmake/install_site.cmake)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ostrel)
set(CPACK_PACKAGE_VERSION 0.2)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "single-channel camera relay daemon for a network video recorder")
set(CPACK_PACKAGE_CONTACT "Ostrel Relay developers <root@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
# The install script needs the real prefix (/usr) to put /etc and /var.
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1, python3")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "lighttpd | apache2")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()
file(WRITE ${PROJECT_BINARY_DIR}/deb/conffiles
  "/etc/lighttpd/conf-available/50-ostrel.conf\n/etc/apache2/conf-available/ostrel.conf\n")
configure_file(deploy/debian/postinst ${PROJECT_BINARY_DIR}/deb/postinst COPYONLY)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/deb/conffiles ${PROJECT_BINARY_DIR}/deb/postinst)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
