# OpenImageIO, for this build and for the package's users, as Ferrim::OpenImageIO:
# a target in Ferrim's own namespace, so that a project finding OpenImageIO
# itself, before or after Ferrim, keeps OpenImageIO's own target names to itself.
# It forwards to OpenImageIO::OpenImageIO when the project already has that
# target; otherwise it comes from the pkg-config file, because Debian's CMake
# config also exports targets for the command-line programs, which ship in a
# separate package (with a GUI toolkit), and its generated check fails configure
# when they are absent.
if(NOT TARGET Ferrim::OpenImageIO)
  add_library(Ferrim::OpenImageIO INTERFACE IMPORTED)
  if(TARGET OpenImageIO::OpenImageIO)
    target_link_libraries(Ferrim::OpenImageIO INTERFACE OpenImageIO::OpenImageIO)
  else()
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(FERRIM_OIIO REQUIRED IMPORTED_TARGET OpenImageIO)
    find_package(Imath CONFIG REQUIRED)
    target_link_libraries(Ferrim::OpenImageIO INTERFACE PkgConfig::FERRIM_OIIO Imath::Imath)
  endif()
endif()
