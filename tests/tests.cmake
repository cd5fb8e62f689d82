# What single tests need beyond the rule of CMakeLists.txt: locks on shared resources, longer limits.
function(qel_test_properties name)
    if(TEST ${name})
        set_tests_properties(${name} PROPERTIES ${ARGN})
    endif()
endfunction()
