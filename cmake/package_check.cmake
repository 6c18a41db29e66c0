# Run by CPack before it packs (CPACK_PRE_BUILD_SCRIPTS): the package is
# made from the release build with symbols (RelWithDebInfo), whose symbols
# go to ostrel-dbgsym, and never from a sanitizer build, whose programs need
# the sanitizers' runtime libraries.
if(NOT CPACK_OSTREL_BUILD_TYPE STREQUAL "RelWithDebInfo" OR NOT CPACK_OSTREL_SANITIZE STREQUAL "")
  message(FATAL_ERROR "the package is made from a RelWithDebInfo build without sanitizers, "
    "not from this one (CMAKE_BUILD_TYPE '${CPACK_OSTREL_BUILD_TYPE}', "
    "OSTREL_SANITIZE '${CPACK_OSTREL_SANITIZE}')")
endif()
