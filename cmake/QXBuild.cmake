# Build conventions shared by every target of the project.

# Warnings and definitions for all project code.
function(qx_target_defaults target)
    target_compile_definitions(${target} PRIVATE
        UNICODE _UNICODE NOMINMAX _WIN32_WINNT=0x0601 WINVER=0x0601)
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wno-unknown-pragmas -Wno-missing-field-initializers
        # Log lines name their source as Source/QXCommon/<file>, not the build path.
        -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
endfunction()

# Wine in a private prefix inside the build tree; every Windows program that
# CTest starts goes through it.
function(qx_setup_wine)
    find_program(QX_WINE64 NAMES wine64 PATHS /usr/lib/wine /usr/lib64/wine NO_CMAKE_FIND_ROOT_PATH)
    find_program(QX_WINESERVER NAMES wineserver PATHS /usr/lib/wine /usr/lib64/wine NO_CMAKE_FIND_ROOT_PATH)
    if(NOT QX_WINE64 OR NOT QX_WINESERVER)
        message(FATAL_ERROR "wine64 not found: run scripts/bootstrap.sh")
    endif()
    set(QX_WINEPREFIX ${CMAKE_BINARY_DIR}/wineprefix)
    # Every program is started through qxrun.exe, which hands on its real status.
    set(QX_RUNNER ${CMAKE_BINARY_DIR}/bin/qxrun.exe)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/qx-wine.in ${CMAKE_BINARY_DIR}/qx-wine
        @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    set(QX_WINE ${CMAKE_BINARY_DIR}/qx-wine PARENT_SCOPE)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/qx-wine run PARENT_SCOPE)
endfunction()

# fmt is used header-only. Its include folder must hold fmt/ alone (never
# /usr/include, which would bring the host's C library headers into a Windows
# build), so a folder with just a link to it is made in the build tree.
function(qx_setup_fmt)
    find_path(QX_FMT_HOST_INCLUDE fmt/format.h PATHS /usr/include NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
    if(NOT QX_FMT_HOST_INCLUDE)
        message(FATAL_ERROR "fmt headers not found: run scripts/bootstrap.sh (libfmt-dev)")
    endif()
    set(dir ${CMAKE_BINARY_DIR}/fmt-include)
    file(MAKE_DIRECTORY ${dir})
    if(NOT EXISTS ${dir}/fmt)
        file(CREATE_LINK ${QX_FMT_HOST_INCLUDE}/fmt ${dir}/fmt SYMBOLIC)
    endif()
    add_library(qx_fmt INTERFACE)
    target_include_directories(qx_fmt SYSTEM INTERFACE ${dir})
    target_compile_definitions(qx_fmt INTERFACE FMT_HEADER_ONLY=1)
endfunction()

# The C++ runtime is shared by the DLL and every program that passes C++
# objects across its boundary, so the runtime DLLs are shipped beside them.
function(qx_copy_runtime_dlls destination)
    set(found)
    foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
            OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
        if(NOT IS_ABSOLUTE "${path}" OR NOT EXISTS "${path}")
            file(GLOB path /usr/${QX_MINGW_TRIPLE}/lib/${dll} /usr/lib/gcc/${QX_MINGW_TRIPLE}/*-posix/${dll})
            list(GET path 0 path)
        endif()
        if(NOT EXISTS "${path}")
            message(FATAL_ERROR "runtime DLL ${dll} not found")
        endif()
        file(COPY ${path} DESTINATION ${destination})
        list(APPEND found ${path})
    endforeach()
    set(QX_RUNTIME_DLLS ${found} CACHE INTERNAL "MinGW runtime DLLs shipped with the library")
endfunction()

# Programs of the project carry a manifest that declares the Windows
# versions they know (otherwise version queries stop at 6.2).
function(qx_add_app_manifest target)
    set(QX_APP_MANIFEST ${PROJECT_SOURCE_DIR}/cmake/qx-app.manifest)
    set(rc ${CMAKE_BINARY_DIR}/qx-app.rc)
    if(NOT EXISTS ${rc})
        configure_file(${PROJECT_SOURCE_DIR}/cmake/qx-app.rc.in ${rc} @ONLY)
    endif()
    target_sources(${target} PRIVATE ${rc})
endfunction()
