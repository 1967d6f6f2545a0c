# What another project needs to say find_package(TQLib) and link TQLib::TQLib.
include(CMakePackageConfigHelpers)
set(TQ_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TQLib)
if(WIN32)
    set(TQ_MODULE_DIR ${CMAKE_INSTALL_BINDIR})
else()
    # Message modules are found beside the library.
    set(TQ_MODULE_DIR ${CMAKE_INSTALL_LIBDIR})
endif()

install(TARGETS TQLib EXPORT TQLib
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS TQRes_en LIBRARY DESTINATION ${TQ_MODULE_DIR})
if(WIN32)
    install(FILES ${TQ_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
else()
    install(TARGETS tqmc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
if(TQ_BUILD_TOOLS)
    set(tools tq)
    if(NOT WIN32)
        list(APPEND tools tqscm)
        set_target_properties(${tools} PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    endif()
    install(TARGETS ${tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
# The notice must go with the tables that are in the library.
install(FILES ${PROJECT_SOURCE_DIR}/docs/unicode-license.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(EXPORT TQLib NAMESPACE TQLib:: FILE TQLibTargets.cmake DESTINATION ${TQ_CONFIG_DIR})
install(FILES ${PROJECT_SOURCE_DIR}/cmake/TQMessages.cmake DESTINATION ${TQ_CONFIG_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TQLibConfig.cmake.in ${PROJECT_BINARY_DIR}/TQLibConfig.cmake
    INSTALL_DESTINATION ${TQ_CONFIG_DIR} PATH_VARS CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TQLibConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TQLibConfig.cmake ${PROJECT_BINARY_DIR}/TQLibConfigVersion.cmake DESTINATION ${TQ_CONFIG_DIR})
