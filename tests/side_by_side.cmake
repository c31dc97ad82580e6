# Read by ctest behind the lists of tests, which run side by side.
foreach(test IN LISTS unit_tests_TESTS process_tests_TESTS)
    if(test MATCHES "^Sysv")  # they count the machine's kernel sets where they may have no namespace of their own
        set_tests_properties(${test} PROPERTIES RESOURCE_LOCK kernel_sets)
    elseif(test MATCHES "^Semaphore.LosesNoValue|^OnSignalChain.NeitherLoses")  # two threads that must run at once
        set_tests_properties(${test} PROPERTIES PROCESSORS 2)
    endif()
endforeach()
