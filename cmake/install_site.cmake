# Install-time part of cmake/install.cmake: the web server snippets and the
# working directory, which live outside the prefix for the prefix /usr.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(etc /etc)
  set(var /var)
else()
  set(etc ${CMAKE_INSTALL_PREFIX}/etc)
  set(var ${CMAKE_INSTALL_PREFIX}/var)
endif()
set(libdir ${CMAKE_INSTALL_PREFIX}/lib/ostrel)
set(workdir ${var}/lib/ostrel)
set(dest "$ENV{DESTDIR}")

foreach(pair "lighttpd/50-ostrel.conf" "lighttpd/50-ostrel-schedule.conf"
    "apache2/ostrel.conf" "apache2/ostrel-schedule.conf")
  get_filename_component(server ${pair} DIRECTORY)
  file(READ ${OSTREL_DEPLOY_DIR}/${pair}.in text)
  string(REPLACE "@OSTREL_LIBDIR@" "${libdir}" text "${text}")
  string(REPLACE "@OSTREL_WORKDIR@" "${workdir}" text "${text}")
  set(out ${dest}${etc}/${server}/conf-available)
  get_filename_component(name ${pair} NAME)
  message(STATUS "Installing: ${out}/${name}")
  file(WRITE ${out}/${name} "${text}")
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
