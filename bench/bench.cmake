# Which peer libraries each benchmark program links.
function(qel_bench_peers name)
    if(NOT TARGET ${name})
        return()
    endif()
    foreach(peer IN LISTS ARGN)
        if(TARGET PkgConfig::${peer})
            target_link_libraries(${name} PRIVATE PkgConfig::${peer})
        endif()
    endforeach()
endfunction()

qel_bench_peers(idm_bench libqb)
