# cmake -P script: the test of the test machinery. Runs the probe through
# qx-wine as the suites are run and checks that only a run whose summary says
# it passed is a pass.
function(expect mode filter want)
    execute_process(COMMAND ${QX_WINE} ${mode} ${QX_PROBE} --gtest_filter=${filter}
        RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(want STREQUAL "pass" AND NOT status EQUAL 0)
        message(SEND_ERROR "${mode} ${filter}: expected a pass, got status ${status}\n${out}\n${err}")
    elseif(want STREQUAL "fail" AND status EQUAL 0)
        message(SEND_ERROR "${mode} ${filter}: expected a failure, got status 0\n${out}\n${err}")
    else()
        message(STATUS "${mode} ${filter}: status ${status} (${want}, as expected)")
    endif()
endfunction()

expect(gtest Probe.Passes pass)
expect(gtest Probe.Fails fail)
expect(gtest Probe.CrashesAfterAChild fail)
expect(gtest Probe.StopsBeforeItsSummary fail)
# Without the summary check the status alone still tells a crash.
expect(run Probe.CrashesAfterAChild fail)
expect(run Probe.StopsBeforeItsSummary pass)
