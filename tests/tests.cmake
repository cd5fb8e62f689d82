# What single tests need beyond the rule of CMakeLists.txt: locks on shared resources, longer limits.
function(qel_test_properties name)
    if(TEST ${name})
        set_tests_properties(${name} PROPERTIES ${ARGN})
    endif()
endfunction()

# The project's own promises: headers, symbols, installation, the programs in the documents.
set(QEL_PROJECT_TESTS ${CMAKE_CURRENT_SOURCE_DIR}/project)
add_test(NAME project.headers COMMAND ${QEL_PROJECT_TESTS}/headers_test.sh ${PROJECT_SOURCE_DIR}/shared/include)
add_test(NAME project.symbols COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-symbols $<TARGET_FILE:qel>)
if(NOT QEL_SANITIZE)
    add_test(NAME project.install COMMAND ${QEL_PROJECT_TESTS}/install_test.sh ${PROJECT_BINARY_DIR})
    add_test(NAME project.documents COMMAND ${QEL_PROJECT_TESTS}/documents_test.sh ${PROJECT_SOURCE_DIR} $<TARGET_FILE:qel>)
endif()

# These write the machine's start-up parameter file.
qel_test_properties(core.ppm_test RESOURCE_LOCK ppm_file)

# Writes over what debug builds check.
qel_test_properties(ipc.scribble_failure_test ENVIRONMENT QEL_SELF_CHECK=off)

# Kills at any moment: many from either of two seeds where the build is fast.
if(TARGET chaos_failure_test)
    qel_test_properties(ipc.chaos_failure_test TIMEOUT 180)
    if(NOT QEL_SANITIZE)
        set_tests_properties(ipc.chaos_failure_test PROPERTIES ENVIRONMENT "QEL_CHAOS_KILLS=2000;QEL_CHAOS_SEED=1")
        add_test(NAME ipc.chaos_failure_test_2 COMMAND chaos_failure_test)
        set_tests_properties(ipc.chaos_failure_test_2 PROPERTIES TIMEOUT 180
                             ENVIRONMENT "QEL_CHAOS_KILLS=2000;QEL_CHAOS_SEED=2")
    endif()
endif()

# Protocols searched through all interleavings where spin is installed. The search is of the model, so one build's run
# is enough.
find_program(QEL_SPIN spin)
function(qel_model_test subsystem name)
    set(model ${CMAKE_CURRENT_SOURCE_DIR}/${subsystem}/model)
    add_test(NAME ${subsystem}.${name}_model COMMAND ${model}/check.sh ${model}/${name}.pml)
    set_tests_properties(${subsystem}.${name}_model PROPERTIES TIMEOUT 240)
endfunction()
if(QEL_SPIN AND NOT QEL_SANITIZE)
    qel_model_test(trace reserve)
    qel_model_test(dispatch wake)
    qel_model_test(ipc sep)
endif()

# The examples on this machine's own links. The churn needs the right to a network namespace.
if(TARGET linkwatch)
    set(QEL_DEMO ${PROJECT_SOURCE_DIR}/examples/demo.sh)
    add_test(NAME project.demo COMMAND ${QEL_DEMO} $<TARGET_FILE_DIR:linkwatch>)
    add_test(NAME project.demo_churn COMMAND ${QEL_DEMO} $<TARGET_FILE_DIR:linkwatch> --churn)
    set_tests_properties(project.demo project.demo_churn PROPERTIES TIMEOUT 180)
endif()
if(TARGET ipc_server AND TARGET qel_tool)
    add_test(NAME project.demo_messaging COMMAND ${PROJECT_SOURCE_DIR}/examples/ipc_demo.sh $<TARGET_FILE_DIR:ipc_server>
                                                 $<TARGET_FILE:qel_tool> 0.2)
    set_tests_properties(project.demo_messaging PROPERTIES TIMEOUT 180)
endif()
if(TARGET sessions)
    add_test(NAME project.sessions COMMAND ${QEL_PROJECT_TESTS}/sessions_test.sh $<TARGET_FILE:sessions>)
    set_tests_properties(project.sessions PROPERTIES TIMEOUT 120)
endif()

if(TARGET shim_loop)
    add_test(NAME project.shim_loop COMMAND ${QEL_PROJECT_TESTS}/shim_loop_test.sh $<TARGET_FILE:shim_loop>)
    set_tests_properties(project.shim_loop PROPERTIES TIMEOUT 60)
endif()
if(TARGET pakdump)
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(libpcap REQUIRED IMPORTED_TARGET libpcap)
    target_link_libraries(pakdump_test PRIVATE PkgConfig::libpcap)
    target_compile_definitions(pakdump_test PRIVATE QEL_PAKDUMP="$<TARGET_FILE:pakdump>")
    add_dependencies(pakdump_test pakdump)
endif()

# The tool is run as its users do; without it there is nothing to test.
if(TARGET qel_tool)
    foreach(name qel_err_test qel_if_test qel_ipc_test qel_trace_test)
        add_dependencies(${name} qel_tool)
        qel_test_properties(tools.${name} ENVIRONMENT QEL_TOOL=$<TARGET_FILE:qel_tool>)
    endforeach()
endif()
