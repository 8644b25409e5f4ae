# Signed-file fixtures (make-fixtures.sh lists them), made at build time without network by openssl
# and osslsigncode into bin/certs: a suite that uses them depends on qxcert_fixtures and reads them
# from <folder of the test program>\certs.
find_program(QX_OPENSSL openssl NO_CMAKE_FIND_ROOT_PATH)
find_program(QX_OSSLSIGNCODE osslsigncode NO_CMAKE_FIND_ROOT_PATH)
find_program(QX_SH sh NO_CMAKE_FIND_ROOT_PATH)
if(NOT QX_OPENSSL OR NOT QX_OSSLSIGNCODE OR NOT QX_SH)
    message(FATAL_ERROR "openssl and osslsigncode not found: run scripts/bootstrap.sh")
endif()

# The image that gets signed, built by the project's own compiler.
add_executable(qxcert_sample ${CMAKE_CURRENT_LIST_DIR}/Sample.c)
qx_target_defaults(qxcert_sample)
set_target_properties(qxcert_sample PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/certsample)

set(QX_CERT_FIXTURE_DIR ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/certs)
set(QX_CERT_FIXTURES root.cer other-root.cer signer.cer expired.cer untrusted.cer
    unsigned.exe signed.exe expired.exe untrusted.exe tampered.exe nested.exe twoentries.exe)
list(TRANSFORM QX_CERT_FIXTURES PREPEND ${QX_CERT_FIXTURE_DIR}/)
add_custom_command(OUTPUT ${QX_CERT_FIXTURES}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${QX_CERT_FIXTURE_DIR}
    COMMAND ${QX_SH} ${CMAKE_CURRENT_LIST_DIR}/make-fixtures.sh ${QX_CERT_FIXTURE_DIR}
            $<TARGET_FILE:qxcert_sample> ${QX_OPENSSL} ${QX_OSSLSIGNCODE}
    DEPENDS ${CMAKE_CURRENT_LIST_DIR}/make-fixtures.sh qxcert_sample
    COMMENT "Making the certificate and signed-file fixtures"
    VERBATIM)
add_custom_target(qxcert_fixtures ALL DEPENDS ${QX_CERT_FIXTURES})
if(TARGET qxtest_Certificates)
    add_dependencies(qxtest_Certificates qxcert_fixtures)
    target_link_libraries(qxtest_Certificates PRIVATE crypt32 psapi)
    # The suite changes the machine's certificate stores while it runs.
    set_tests_properties(Certificates PROPERTIES RESOURCE_LOCK qx_machine_cert_stores)
endif()
# The robustness suite crafts certificate tables from the signed images.
if(TARGET qxtest_Robustness)
    add_dependencies(qxtest_Robustness qxcert_fixtures)
endif()
