# cmake -DMURMORA_BUILD_DIR=... -DWORK_DIR=... -DCONSUMER_SOURCE_DIR=... -P run.cmake
cmake_minimum_required(VERSION 3.25)
foreach(var MURMORA_BUILD_DIR WORK_DIR CONSUMER_SOURCE_DIR)
  if(NOT ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()
if(NOT GENERATOR)
  set(GENERATOR Ninja)
endif()
if(NOT LIBDIR)
  set(LIBDIR lib)
endif()
if(NOT BINDIR)
  set(BINDIR bin)
endif()
if(NOT PKG_CONFIG)
  find_program(PKG_CONFIG NAMES pkg-config pkgconf REQUIRED)
endif()

set(prefix ${WORK_DIR}/prefix)
set(consumer_build ${WORK_DIR}/consumer-build)
set(documents ${WORK_DIR}/documents)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(run step)
  execute_process(COMMAND ${ARGN}
    RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${step} failed (${result}):\n${ARGN}\n${out}\n${err}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

function(expect_match step text regex)
  if(NOT text MATCHES "${regex}")
    message(FATAL_ERROR "${step}: expected to match \"${regex}\", got:\n${text}")
  endif()
endfunction()

# 0. A static build of the libraries alone, when asked for.
if(STATIC_SOURCE_DIR)
  set(static_args -DBUILD_SHARED_LIBS=OFF -DMURMORA_BUILD_TESTS=OFF -DMURMORA_BUILD_TOOLS=OFF
    -DMURMORA_BUILD_EXAMPLES=OFF -DMURMORA_BUILD_SERVER=OFF -DCMAKE_BUILD_TYPE=Release)
  if(CXX_COMPILER)
    list(APPEND static_args -DCMAKE_CXX_COMPILER=${CXX_COMPILER})
  endif()
  if(SANITIZE)
    list(APPEND static_args -DMURMORA_SANITIZE=${SANITIZE})
  endif()
  run("static configure" ${CMAKE_COMMAND} -S ${STATIC_SOURCE_DIR} -B ${MURMORA_BUILD_DIR} -G ${GENERATOR} ${static_args})
  run("static build" ${CMAKE_COMMAND} --build ${MURMORA_BUILD_DIR})
  foreach(lib libMurmora.a libMurmoraData.a)
    if(NOT EXISTS ${MURMORA_BUILD_DIR}/src/${lib})
      message(FATAL_ERROR "the static build made no ${lib}")
    endif()
  endforeach()
endif()

# 1. Install.
set(config_args)
if(MURMORA_CONFIG)
  set(config_args --config ${MURMORA_CONFIG})
endif()
run("install" ${CMAKE_COMMAND} --install ${MURMORA_BUILD_DIR} --prefix ${prefix} ${config_args})

foreach(file
    ${LIBDIR}/cmake/Murmora/MurmoraConfig.cmake
    ${LIBDIR}/cmake/Murmora/MurmoraConfigVersion.cmake
    ${LIBDIR}/cmake/Murmora/MurmoraTargets.cmake
    ${LIBDIR}/pkgconfig/murmora.pc
    include/Murmora/core/QKFeedback.h
    include/Murmora/data/QKLocalFeedbackSource.h
    include/Murmora/QKFeedback
    include/Murmora/QKFeedbackDataSource
    include/Murmora/base/murmora_data_export.h
    include/Murmora/kit/murmora_export.h)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
if(EXPECT_TOOLS)
  foreach(tool murmora-archive murmora-feedback)
    if(NOT EXISTS ${prefix}/${BINDIR}/${tool})
      message(FATAL_ERROR "not installed: ${BINDIR}/${tool}")
    endif()
  endforeach()
endif()
file(GLOB private_headers ${prefix}/include/Murmora/*/*_p.h)
if(private_headers)
  message(FATAL_ERROR "private headers installed: ${private_headers}")
endif()

# Only public dependencies reach the exported link interfaces, and the config file
# finds each of them; a static build also names its private ones, for linking only.
set(public_deps Qt6::Core Qt6::Gui Qt6::Network Qt6::Widgets Murmora::Data)
if(STATIC_SOURCE_DIR)
  list(APPEND public_deps \$<LINK_ONLY:PkgConfig::DEFLATE> \$<LINK_ONLY:PkgConfig::ISAL>
    \$<LINK_ONLY:PkgConfig::CRYPTO> \$<LINK_ONLY:PkgConfig::ICU> \$<LINK_ONLY:Qt6::Sensors>)
endif()
file(READ ${prefix}/${LIBDIR}/cmake/Murmora/MurmoraTargets.cmake targets)
string(REPLACE ";" "|" targets "${targets}")
string(REGEX MATCHALL "INTERFACE_LINK_LIBRARIES \"[^\"]*\"" link_props "${targets}")
if(NOT link_props)
  message(FATAL_ERROR "no INTERFACE_LINK_LIBRARIES in MurmoraTargets.cmake")
endif()
foreach(prop IN LISTS link_props)
  string(REGEX REPLACE "^INTERFACE_LINK_LIBRARIES \"(.*)\"$" "\\1" deps "${prop}")
  string(REPLACE "|" ";" deps "${deps}")
  foreach(dep IN LISTS deps)
    string(REPLACE "\\" "" dep "${dep}") # the file escapes the generator expressions' $
    if(NOT dep IN_LIST public_deps)
      message(FATAL_ERROR "unexpected dependency in the exported targets: ${dep}")
    endif()
  endforeach()
endforeach()

# 2. Build the consumer against the prefix only.
set(consumer_args)
if(CXX_COMPILER)
  list(APPEND consumer_args -DCMAKE_CXX_COMPILER=${CXX_COMPILER})
endif()
if(MURMORA_CONFIG)
  list(APPEND consumer_args -DCMAKE_BUILD_TYPE=${MURMORA_CONFIG})
endif()
if(SANITIZE)
  list(APPEND consumer_args
    "-DCMAKE_CXX_FLAGS=-fsanitize=${SANITIZE} -fno-omit-frame-pointer"
    "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=${SANITIZE}")
endif()
run("consumer configure" ${CMAKE_COMMAND}
  -S ${CONSUMER_SOURCE_DIR} -B ${consumer_build} -G ${GENERATOR}
  -DCMAKE_PREFIX_PATH=${prefix}
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
  ${consumer_args})
file(STRINGS ${consumer_build}/CMakeCache.txt murmora_dir REGEX "^Murmora_DIR:")
string(FIND "${murmora_dir}" "=${prefix}/" found)
if(found EQUAL -1)
  message(FATAL_ERROR "the consumer found Murmora outside the prefix: ${murmora_dir}")
endif()
run("consumer build" ${CMAKE_COMMAND} --build ${consumer_build})

# 3. Run it: its RPATH must find the installed libraries.
file(GLOB_RECURSE consumer_exe ${consumer_build}/murmora_consumer)
if(NOT consumer_exe)
  message(FATAL_ERROR "consumer executable not found in ${consumer_build}")
endif()
list(GET consumer_exe 0 consumer_exe)
run("consumer run" ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${consumer_exe} ${documents})
message(STATUS "consumer output:\n${run_output}")
expect_match("consumer run" "${run_output}" "item: hello from the consumer")
expect_match("consumer run" "${run_output}" "version: [0-9]+\\.[0-9]+")
expect_match("consumer run" "${run_output}" "shared instance: yes")
expect_match("consumer run" "${run_output}" "menu: shown")

# 4. The installed tool runs from the prefix and reads what the consumer wrote.
if(EXPECT_TOOLS)
  run("murmora-archive dump" ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH
    ${prefix}/${BINDIR}/murmora-archive dump ${documents}/qkfeedback.plist)
  expect_match("murmora-archive dump" "${run_output}" "hello from the consumer")
endif()

# 5. pkg-config (the shared build's: a static link needs the CMake package).
if(STATIC_SOURCE_DIR)
  message(STATUS "install_consumer: all checks passed (static)")
  return()
endif()
run("pkg-config" ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${prefix}/${LIBDIR}/pkgconfig
  ${PKG_CONFIG} --cflags --libs murmora)
message(STATUS "pkg-config murmora: ${run_output}")
foreach(flag "-lMurmora( |$)" "-lMurmoraData" "-I[^ ]*/include( |$)" "-lQt6Widgets")
  expect_match("pkg-config" "${run_output}" "${flag}")
endforeach()
# The include root is the one above Murmora/, so that only <Murmora/...> names resolve.
if(run_output MATCHES "-I[^ ]*/include/Murmora")
  message(FATAL_ERROR "pkg-config exposes include/Murmora itself: ${run_output}")
endif()
string(REGEX MATCH "-I([^ ]*)/include( |$)" _ "${run_output}")
get_filename_component(pc_include "${CMAKE_MATCH_1}/include" REALPATH)
get_filename_component(real_include "${prefix}/include" REALPATH)
if(NOT pc_include STREQUAL real_include)
  message(FATAL_ERROR "pkg-config include dir ${pc_include} is not ${real_include}")
endif()

message(STATUS "install_consumer: all checks passed")
