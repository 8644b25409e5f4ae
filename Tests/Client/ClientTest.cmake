# Installs this build into a folder of the build tree, builds a separate
# CMake project against the installed package (find_package(QXCommon)), and
# runs the client under Wine.
add_test(NAME Client
    COMMAND ${CMAKE_COMMAND}
        -DQX_BUILD_DIR=${CMAKE_BINARY_DIR}
        -DQX_CLIENT_SOURCE=${CMAKE_CURRENT_SOURCE_DIR}/Client/project
        -DQX_WORK_DIR=${CMAKE_BINARY_DIR}/client-test
        -DQX_TOOLCHAIN=${CMAKE_TOOLCHAIN_FILE}
        -DQX_WINE=${QX_WINE}
        -DQX_GENERATOR=${CMAKE_GENERATOR}
        -P ${CMAKE_CURRENT_SOURCE_DIR}/Client/RunClientTest.cmake)
set_tests_properties(Client PROPERTIES FIXTURES_REQUIRED wine TIMEOUT 600)
