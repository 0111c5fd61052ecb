# Installs libkr.so, every public header under its repository path, a CMake
# package (find_package(kr) gives kr::kr) and a pkg-config file kr.pc.
include(CMakePackageConfigHelpers)

install(TARGETS kr EXPORT krTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

foreach(h IN LISTS KR_PUBLIC_HEADERS ITEMS kr/kr.h)
  get_filename_component(dir ${h} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/${h} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir})
endforeach()

set(KR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kr)
install(EXPORT krTargets NAMESPACE kr:: DESTINATION ${KR_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/krConfig.cmake.in
  ${PROJECT_BINARY_DIR}/krConfig.cmake INSTALL_DESTINATION ${KR_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/krConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/krConfig.cmake ${PROJECT_BINARY_DIR}/krConfigVersion.cmake
  DESTINATION ${KR_CMAKE_DIR})

# kr.pc finds the prefix relative to its own directory (${pcfiledir}), so it
# stays right when the prefix is chosen at install time
# (cmake --install --prefix) or the installed tree is moved.
foreach(d LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${d}}")
    set(KR_PC_${d} "${CMAKE_INSTALL_${d}}")
  else()
    set(KR_PC_${d} "\${prefix}/${CMAKE_INSTALL_${d}}")
  endif()
endforeach()
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KR_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH KR_PC_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" KR_PC_PREFIX "\${pcfiledir}/${KR_PC_PREFIX}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/kr.pc.in ${PROJECT_BINARY_DIR}/kr.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kr.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
