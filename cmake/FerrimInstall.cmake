# `cmake --install` rules: headers, the libraries, the `ferrim` program and the
# package files through which another CMake project finds them with
# find_package(Ferrim) and links Ferrim::Ferrim.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(FERRIM_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Ferrim CACHE STRING "Where the package's CMake files go, under the prefix")

# The library builds as C++23; its headers need C++20, the minimum a user's
# target is raised to when it links these.
foreach(_target QuelinLib QuelinLibImage Ferrim)
  target_compile_features(${_target} INTERFACE cxx_std_20)
endforeach()

# The static base libraries are part of Ferrim's link interface, so they are
# exported beside it.
install(TARGETS QuelinLib QuelinLibImage Ferrim ferrim EXPORT FerrimTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY QuelinLib QuelinLibImage Ferrim DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

# The installed program finds the installed library wherever the prefix is moved.
file(RELATIVE_PATH _ferrim_bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(ferrim PROPERTIES INSTALL_RPATH "$ORIGIN/${_ferrim_bin_to_lib}")

install(EXPORT FerrimTargets NAMESPACE Ferrim:: DESTINATION ${FERRIM_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/FerrimConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/FerrimConfig.cmake
                              INSTALL_DESTINATION ${FERRIM_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/FerrimConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
# OpenImageIO is found the same way for users as for this build (Ferrim::OpenImageIO).
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/FerrimConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/FerrimConfigVersion.cmake
              ${CMAKE_CURRENT_LIST_DIR}/FerrimOpenImageIO.cmake
        DESTINATION ${FERRIM_INSTALL_CMAKEDIR})

# The installed package as another project uses it: install into a scratch
# prefix, build tests/consumer/project against it and run it. Not with
# sanitizers: the outside project would link a sanitized library without them.
if(FERRIM_BUILD_TESTS AND NOT FERRIM_SANITIZE)
  add_test(NAME package/consumer
    COMMAND ${CMAKE_COMMAND} -D BUILD_DIR=${PROJECT_BINARY_DIR} -D WORK_DIR=${PROJECT_BINARY_DIR}/consumer-test
            -D GENERATOR=${CMAKE_GENERATOR} -D CXX_COMPILER=${CMAKE_CXX_COMPILER}
            "-D LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER}" "-D PYTHON=${FERRIM_PYTHON_EXECUTABLE}"
            -P ${PROJECT_SOURCE_DIR}/tests/consumer/RunConsumerTest.cmake)
endif()
