# cmake -P script: install, configure and build the client, run it.
function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}\n${err}")
    endif()
    set(RUN_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${QX_WORK_DIR})
set(prefix ${QX_WORK_DIR}/install)
run(${CMAKE_COMMAND} --install ${QX_BUILD_DIR} --prefix ${prefix})

foreach(required
        include/QXCommon/QXCommon.h include/QXCommon/QXCommonFunctions.h include/QXThread/SynchronousMultiRead.h
        bin/QXCommon.dll bin/QXDbgLog.dll bin/libstdc++-6.dll bin/libgcc_s_seh-1.dll bin/libwinpthread-1.dll
        lib/libQXCommon.dll.a lib/cmake/QXCommon/QXCommonConfig.cmake)
    if(NOT EXISTS ${prefix}/${required})
        message(FATAL_ERROR "installed tree lacks ${required}")
    endif()
endforeach()

run(${CMAKE_COMMAND} -S ${QX_CLIENT_SOURCE} -B ${QX_WORK_DIR}/build -G ${QX_GENERATOR}
    -DCMAKE_TOOLCHAIN_FILE=${QX_TOOLCHAIN} -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${QX_WORK_DIR}/build)
run(${QX_WINE} run ${QX_WORK_DIR}/build/qxclient.exe)
message(STATUS "client output:\n${RUN_OUTPUT}")
if(NOT RUN_OUTPUT MATCHES "client ok")
    message(FATAL_ERROR "client did not report success:\n${RUN_OUTPUT}")
endif()
