# API documentation with Doxygen: `./dev.sh docs`, or the `docs` target.
# The stable API must document every public member (a warning fails the run); the
# toolkit API is generated beside it without that promise.
find_program(MURMORA_DOXYGEN doxygen)

list(TRANSFORM MURMORA_STABLE_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/src/ OUTPUT_VARIABLE _murmora_stable)
set(_murmora_toolkit)
foreach(dir base data models kit annotation screens core)
  file(GLOB _headers ${PROJECT_SOURCE_DIR}/src/${dir}/*.h)
  foreach(header ${_headers})
    if(NOT header MATCHES "_p\\.h$" AND NOT header IN_LIST _murmora_stable)
      list(APPEND _murmora_toolkit ${header})
    endif()
  endforeach()
endforeach()

function(murmora_doxyfile name mainpage strict)
  set(MURMORA_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs/${name})
  list(JOIN ARGN " " MURMORA_DOCS_INPUT)
  set(MURMORA_DOCS_INPUT "${mainpage} ${MURMORA_DOCS_INPUT}")
  set(MURMORA_DOCS_MAINPAGE ${mainpage})
  if(strict)
    set(MURMORA_DOCS_STRICT YES)
    set(MURMORA_DOCS_FAIL FAIL_ON_WARNINGS)
  else()
    set(MURMORA_DOCS_STRICT NO)
    set(MURMORA_DOCS_FAIL NO)
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/docs/Doxyfile-${name} @ONLY)
endfunction()

murmora_doxyfile(api ${PROJECT_SOURCE_DIR}/docs/API.md YES ${_murmora_stable})
murmora_doxyfile(toolkit ${PROJECT_SOURCE_DIR}/docs/TOOLKIT.md NO ${_murmora_toolkit})

if(MURMORA_DOXYGEN)
  add_custom_target(docs
    COMMAND ${MURMORA_DOXYGEN} ${PROJECT_BINARY_DIR}/docs/Doxyfile-api
    COMMAND ${MURMORA_DOXYGEN} ${PROJECT_BINARY_DIR}/docs/Doxyfile-toolkit
    COMMAND ${CMAKE_COMMAND} -E echo "API documentation: ${PROJECT_BINARY_DIR}/docs/api/html/index.html"
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    VERBATIM)
endif()
