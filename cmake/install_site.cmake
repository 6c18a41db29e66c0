# Install-time part of cmake/install.cmake: the web server snippets, the
# systemd units and the working directory, which live outside the prefix for
# the prefix /usr.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(etc /etc)
  set(var /var)
  # Debian 12 keeps the packages' units in /lib (lintian's rule as well).
  set(units /lib/systemd/system)
else()
  set(etc ${CMAKE_INSTALL_PREFIX}/etc)
  set(var ${CMAKE_INSTALL_PREFIX}/var)
  set(units ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)
endif()
set(libdir ${CMAKE_INSTALL_PREFIX}/lib/ostrel)
set(bindir ${CMAKE_INSTALL_PREFIX}/bin)
set(docdir ${CMAKE_INSTALL_PREFIX}/share/doc/ostrel)
set(workdir ${var}/lib/ostrel)
set(dest "$ENV{DESTDIR}")

# ostrel_configure(TEMPLATE OUTPUT): a deploy template with the layout's
# paths filled in.
function(ostrel_configure template output)
  file(READ ${OSTREL_DEPLOY_DIR}/${template} text)
  foreach(var libdir bindir docdir workdir)
    string(TOUPPER ${var} name)
    string(REPLACE "@OSTREL_${name}@" "${${var}}" text "${text}")
  endforeach()
  message(STATUS "Installing: ${output}")
  file(WRITE ${output} "${text}")
endfunction()

# The systemd units, not enabled: the operator enables what the site uses.
foreach(unit "ostrel@.service" "ostrel-fleet.service")
  ostrel_configure(systemd/${unit}.in ${dest}${units}/${unit})
endforeach()

foreach(pair "lighttpd/50-ostrel.conf" "lighttpd/50-ostrel-schedule.conf"
    "apache2/ostrel.conf" "apache2/ostrel-schedule.conf")
  get_filename_component(server ${pair} DIRECTORY)
  get_filename_component(name ${pair} NAME)
  ostrel_configure(${pair}.in ${dest}${etc}/${server}/conf-available/${name})
endforeach()

if(dest STREQUAL "")
  # A real install: the working directory gets its owner now.
  set(args init ${workdir})
  # As root of the machine (not the mapped root of a user namespace), and
  # where the web server's user exists, the tree goes to that user.
  file(READ /proc/self/uid_map uid_map)
  execute_process(COMMAND id -u www-data RESULT_VARIABLE no_user OUTPUT_QUIET ERROR_QUIET)
  if(uid_map MATCHES "^ *0 +0 +4294967295" AND NOT no_user)
    list(APPEND args --user www-data)
  endif()
  execute_process(COMMAND ${CMAKE_INSTALL_PREFIX}/bin/ostrel-ctl ${args} RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "ostrel-ctl ${args} failed")
  endif()
endif()
# Staged (a package): nothing more; the package's postinst makes the working
# directory with its owner, and its postrm removes it on purge.
