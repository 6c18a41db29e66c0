# Stands in for the installed GoogleTest package when the tests are built
# for a target the installed libraries do not match (the 32-bit build):
# find_package(GTest) then compiles GoogleTest from its sources
# (OSTREL_GTEST_SOURCE_DIR, Debian's /usr/src/googletest by default) with the
# build's own compiler flags, and offers the usual GTest:: target names.
if(TARGET GTest::gtest)
  return()
endif()
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory(${OSTREL_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
# GoogleTest's own build names its targets GTest::gtest and GTest::gtest_main
# from release 1.11 on; older sources only have gtest and gtest_main.
if(NOT TARGET GTest::gtest)
  add_library(GTest::gtest ALIAS gtest)
  add_library(GTest::gtest_main ALIAS gtest_main)
endif()
set(GTest_FOUND TRUE)
