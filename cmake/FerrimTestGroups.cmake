# Registers a GoogleTest binary with CTest as one test per source folder
# (tests/QuelinLib, tests/Ferrim/maps, ...). One process per test would spend
# most of the run loading the image library's hundreds of shared libraries;
# one per folder keeps CTest close to a single run while a failure still points
# at the module, and the failing test's own name is in the output.
set(FERRIM_TEST_GROUPS_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/FerrimTestGroupsDiscover.cmake)

function(ferrim_add_test_groups target)
  set(groups_file "${CMAKE_CURRENT_BINARY_DIR}/${target}_groups.cmake")
  set(include_file "${CMAKE_CURRENT_BINARY_DIR}/${target}_include.cmake")
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -D EXE=$<TARGET_FILE:${target}> -D OUT=${groups_file}
            -D SOURCE_ROOT=${CMAKE_CURRENT_SOURCE_DIR} -D BUILD_ROOT=${CMAKE_BINARY_DIR} -D PREFIX=${target}
            -P ${FERRIM_TEST_GROUPS_SCRIPT}
    BYPRODUCTS ${groups_file}
    VERBATIM)
  file(WRITE ${include_file}
    "if(EXISTS \"${groups_file}\")\n"
    "  include(\"${groups_file}\")\n"
    "else()\n"
    "  add_test(${target}_NOT_BUILT ${target}_NOT_BUILT)\n"
    "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${include_file})
endfunction()
