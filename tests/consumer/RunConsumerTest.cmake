# Installs the build into a fresh prefix, builds the outside project in
# project/ against it (alone, and with its own OpenImageIO found before and
# after) and runs it; also runs the installed program and, when
# the build has the Python module, imports the installed module.
# Inputs: BUILD_DIR, WORK_DIR, GENERATOR, CXX_COMPILER, LAUNCHER (may be empty), PYTHON (may be empty).
cmake_minimum_required(VERSION 3.25)

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run("Installing" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# The README's C++ snippet as a reader copies it: its includes, then its lines
# in main(), with the one name it leaves to the reader (the renderer's shade
# context) standing for a context that knows nothing.
file(READ ${CMAKE_CURRENT_LIST_DIR}/../../README.md readme)
string(FIND "${readme}" "```cpp\n" start)
if(start LESS 0)
  message(FATAL_ERROR "The README has no C++ snippet")
endif()
math(EXPR start "${start} + 7")
string(SUBSTRING "${readme}" ${start} -1 snippet)
string(FIND "${snippet}" "```" end)
string(SUBSTRING "${snippet}" 0 ${end} snippet)
string(REGEX MATCHALL "#include[^\n]*\n" includes "${snippet}")
string(REGEX REPLACE "#include[^\n]*\n" "" body "${snippet}")
string(REPLACE ";" "" includes "${includes}")
file(WRITE ${WORK_DIR}/snippet/readme_snippet.cpp
     "${includes}\nusing MyShadeContext = Quelin::NullShadeContext;\n\nint main() {\n${body}    return 0;\n}\n")

# As the README's snippet alone, then beside the project's own OpenImageIO
# targets made before and after finding Ferrim.
foreach(variant plain before after)
  set(build ${WORK_DIR}/build-${variant})
  set(configure ${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/project -B ${build} -G ${GENERATOR}
      -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER})
  if(NOT variant STREQUAL "plain")
    list(APPEND configure -DCONSUMER_OPENIMAGEIO=${variant})
  else()
    list(APPEND configure -DREADME_SNIPPET=${WORK_DIR}/snippet/readme_snippet.cpp)
  endif()
  if(LAUNCHER)
    list(APPEND configure -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
  endif()
  run("Configuring the consumer (${variant})" ${configure})
  run("Building the consumer (${variant})" ${CMAKE_COMMAND} --build ${build})
  run("Running the consumer (${variant})" ${build}/consumer)
  if(variant STREQUAL "plain")
    run("Running the README's C++ snippet" ${build}/readme_snippet)
  endif()
  message(STATUS "${variant}: ${last_output}")
endforeach()

run("Running the installed program" ${prefix}/bin/ferrim --version)
if(NOT last_output MATCHES "^ferrim [0-9]+\\.[0-9]+\\.[0-9]+")
  message(FATAL_ERROR "The installed program did not print its version:\n${last_output}")
endif()
run("Running the installed program" ${prefix}/bin/ferrim types Zatho.NoiseMap)
if(NOT last_output MATCHES "Zatho.NoiseMap")
  message(FATAL_ERROR "The installed program did not list the noise map type:\n${last_output}")
endif()

if(PYTHON)
  file(GLOB_RECURSE module_init ${prefix}/__init__.py)
  list(FILTER module_init INCLUDE REGEX "/ferrim/__init__.py$")
  if(NOT module_init)
    message(FATAL_ERROR "The Python module was not installed under ${prefix}")
  endif()
  list(GET module_init 0 module_init)
  get_filename_component(package_dir ${module_init} DIRECTORY)
  get_filename_component(site_dir ${package_dir} DIRECTORY)
  run("Importing the installed Python module" ${CMAKE_COMMAND} -E env PYTHONPATH=${site_dir}
      ${PYTHON} -c "import ferrim; print(ferrim.__version__, len(ferrim.types()))")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
