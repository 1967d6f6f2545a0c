# What another project needs to say find_package(TQLib) and link TQLib::TQLib.
include(CMakePackageConfigHelpers)
set(TQ_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TQLib)
if(WIN32)
    set(TQ_MODULE_DIR ${CMAKE_INSTALL_BINDIR})
else()
    # Message modules are found beside the library.
    set(TQ_MODULE_DIR ${CMAKE_INSTALL_LIBDIR})
    set_target_properties(tq tqscm PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()

install(TARGETS TQLib EXPORT TQLib
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/TQLib)
install(TARGETS tq RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS TQRes_en LIBRARY DESTINATION ${TQ_MODULE_DIR})
if(WIN32)
    install(FILES ${TQ_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
else()
    install(TARGETS tqmc tqscm RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(EXPORT TQLib NAMESPACE TQLib:: FILE TQLibTargets.cmake DESTINATION ${TQ_CONFIG_DIR})
install(FILES ${CMAKE_SOURCE_DIR}/cmake/TQMessages.cmake DESTINATION ${TQ_CONFIG_DIR})

configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/TQLibConfig.cmake.in ${CMAKE_BINARY_DIR}/TQLibConfig.cmake
    INSTALL_DESTINATION ${TQ_CONFIG_DIR} PATH_VARS CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/TQLibConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/TQLibConfig.cmake ${CMAKE_BINARY_DIR}/TQLibConfigVersion.cmake DESTINATION ${TQ_CONFIG_DIR})
