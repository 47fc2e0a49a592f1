# OpenImageIO through its pkg-config file. Debian's CMake config also exports
# targets for its command-line programs, which ship in a separate package
# (with a GUI toolkit); its generated check fails configure when they are
# absent, so only the library is taken here. Defines OpenImageIO::OpenImageIO.
if(NOT TARGET OpenImageIO::OpenImageIO)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(FERRIM_OIIO REQUIRED IMPORTED_TARGET GLOBAL OpenImageIO)
  find_package(Imath CONFIG REQUIRED)
  add_library(OpenImageIO::OpenImageIO INTERFACE IMPORTED GLOBAL)
  target_link_libraries(OpenImageIO::OpenImageIO INTERFACE PkgConfig::FERRIM_OIIO Imath::Imath)
  set(OpenImageIO_VERSION ${FERRIM_OIIO_VERSION})
endif()
