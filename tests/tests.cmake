# What single tests need beyond the rule of CMakeLists.txt: locks on shared resources, longer limits.
function(qel_test_properties name)
    if(TEST ${name})
        set_tests_properties(${name} PROPERTIES ${ARGN})
    endif()
endfunction()

# The project's own promises: headers, symbols, installation.
set(QEL_PROJECT_TESTS ${CMAKE_CURRENT_SOURCE_DIR}/project)
add_test(NAME project.headers COMMAND ${QEL_PROJECT_TESTS}/headers_test.sh ${PROJECT_SOURCE_DIR}/shared/include)

# These write the machine's start-up parameter file.
qel_test_properties(core.ppm_test RESOURCE_LOCK ppm_file)

# The reservation of trace blocks, searched through all interleavings where spin is installed.
find_program(QEL_SPIN spin)
if(QEL_SPIN)
    add_test(NAME trace.reserve_model
             COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/trace/model/check.sh
                     ${CMAKE_CURRENT_SOURCE_DIR}/trace/model/reserve.pml)
    qel_test_properties(trace.reserve_model TIMEOUT 240)
endif()
