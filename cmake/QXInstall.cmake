# cmake --install yields include/QXCommon/ (with the ATL subset and QXThread's
# lock where the interface needs them), the DLLs with the runtime DLLs they
# need, the import library, and a CMake package:
#   find_package(QXCommon CONFIG REQUIRED)
#   target_link_libraries(app PRIVATE QXCommon::QXCommon)
include(CMakePackageConfigHelpers)

install(TARGETS QXCommon QXDbgLog AtlCompat QXThread
    EXPORT QXCommonTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QXCommon)
install(FILES ${QX_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES Source/QXThread/SynchronousMultiRead.h Source/QXThread/QXPoolWorkerTLS.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QXThread)
if(NOT QX_HAVE_ATL)
    install(FILES Source/AtlCompat/atlbase.h Source/AtlCompat/atlsecurity.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QXCommon/AtlCompat)
endif()

install(EXPORT QXCommonTargets
    NAMESPACE QXCommon::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QXCommon)
configure_package_config_file(cmake/QXCommonConfig.cmake.in
    ${CMAKE_BINARY_DIR}/QXCommonConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QXCommon
    PATH_VARS CMAKE_INSTALL_BINDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/QXCommonConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/QXCommonConfig.cmake ${CMAKE_BINARY_DIR}/QXCommonConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QXCommon)
