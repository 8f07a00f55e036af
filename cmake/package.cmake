# What a daemon of somebody else's own is built with: the core, the OS layer, their headers, and the
# package by which find_package(cpuDefend) finds them, as cpuDefend::core and cpuDefend::zynosal.
include(CMakePackageConfigHelpers)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/cpuDefend)
set_target_properties(cpuDefend_core PROPERTIES EXPORT_NAME core)
install(TARGETS cpuDefend_core zynosal zyn_headers EXPORT cpuDefend
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(EXPORT cpuDefend NAMESPACE cpuDefend:: FILE cpuDefendConfig.cmake
  DESTINATION ${package} COMPONENT development)
install(DIRECTORY h/ platform/include/ DESTINATION ${CPUDEFEND_HEADERS} COMPONENT development)
install(FILES src/cpuDefend_nm/cpuDefend_nm_api.h
  DESTINATION ${CPUDEFEND_HEADERS} COMPONENT development)

write_basic_package_version_file(cpuDefendConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/cpuDefendConfigVersion.cmake
  DESTINATION ${package} COMPONENT development)
