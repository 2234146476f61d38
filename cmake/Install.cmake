# What `cmake --install` puts below a prefix: the programs, and the client's libraries and headers with a
# package that find_package(tolvar) finds. Layers that a host links; none that only our programs do.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tolvar)
set(header_dir ${CMAKE_INSTALL_INCLUDEDIR}/tolvar)

set(libraries tolvar_platform tolvar_records tolvar_log tolvar_remote tolvar_report tolvar_side_task
  tolvar_index tolvar_client)
install(DIRECTORY platform records log remote include report DESTINATION ${header_dir}
  FILES_MATCHING PATTERN "*.h")
if(TARGET tolvar_transport_grpc)
  list(APPEND libraries tolvar_wire tolvar_transport_grpc)
  install(FILES transport/grpc/grpc_communicator.h transport/grpc/grpc_log.h
    transport/grpc/grpc_options.h transport/grpc/wire_limits.h
    DESTINATION ${header_dir}/transport/grpc)
endif()
install(TARGETS ${libraries} EXPORT tolvar)
install(EXPORT tolvar NAMESPACE tolvar:: FILE tolvar-targets.cmake DESTINATION ${package_dir})

set(TOLVAR_WITH_GRPC OFF)
if(TARGET tolvar_transport_grpc)
  set(TOLVAR_WITH_GRPC ON)
endif()
configure_package_config_file(cmake/tolvar-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tolvar-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tolvar-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tolvar-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/tolvar-config-version.cmake DESTINATION ${package_dir})

foreach(program tolvar tolvard)
  if(TARGET ${program})
    install(TARGETS ${program})
  endif()
endforeach()
