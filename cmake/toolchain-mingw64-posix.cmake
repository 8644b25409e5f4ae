# Cross compilation for 64-bit Windows with MinGW-w64 (posix thread model).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(QX_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER   ${QX_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QX_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER  ${QX_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${QX_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Installed packages of our own (QXCommon's package config) live outside the
# MinGW sysroot.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
