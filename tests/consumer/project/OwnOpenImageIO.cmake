# The consumer's own OpenImageIO targets, under the names OpenImageIO's CMake
# config gives them (that config itself is unusable on Debian without the
# separately packaged command-line programs).
find_package(PkgConfig REQUIRED)
pkg_check_modules(OWN_OIIO REQUIRED IMPORTED_TARGET OpenImageIO)
find_package(Imath CONFIG REQUIRED)
add_library(OpenImageIO::OpenImageIO_Util INTERFACE IMPORTED)
add_library(OpenImageIO::OpenImageIO INTERFACE IMPORTED)
target_link_libraries(OpenImageIO::OpenImageIO INTERFACE PkgConfig::OWN_OIIO Imath::Imath OpenImageIO::OpenImageIO_Util)
