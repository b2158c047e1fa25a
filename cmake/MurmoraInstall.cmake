# Installs the CMake package (Murmora::Data, Murmora::Murmora) and murmora.pc.
include(CMakePackageConfigHelpers)

set(MURMORA_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Murmora)
set(MURMORA_QT_MIN_VERSION 6.4)

install(EXPORT MurmoraTargets
  NAMESPACE Murmora::
  DESTINATION ${MURMORA_CMAKE_INSTALL_DIR})

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/MurmoraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/MurmoraConfig.cmake
  INSTALL_DESTINATION ${MURMORA_CMAKE_INSTALL_DIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/MurmoraConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/MurmoraConfig.cmake
  ${PROJECT_BINARY_DIR}/MurmoraConfigVersion.cmake
  DESTINATION ${MURMORA_CMAKE_INSTALL_DIR})

# The .pc file finds its prefix from its own location, so --prefix and DESTDIR work.
set(_murmora_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${_murmora_pc_dir}")
  set(MURMORA_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _murmora_up "/prefix/${_murmora_pc_dir}" "/prefix")
  set(MURMORA_PC_PREFIX "\${pcfiledir}/${_murmora_up}")
endif()
foreach(_kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_kind}}")
    set(MURMORA_PC_${_kind} "${CMAKE_INSTALL_${_kind}}")
  else()
    set(MURMORA_PC_${_kind} "\${prefix}/${CMAKE_INSTALL_${_kind}}")
  endif()
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/cmake/murmora.pc.in ${PROJECT_BINARY_DIR}/murmora.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/murmora.pc DESTINATION ${_murmora_pc_dir})
