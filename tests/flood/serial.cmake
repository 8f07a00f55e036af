# Read by ctest: a flood takes all CPUs, so its tests run one at a time and with none beside them.
set_tests_properties(${linux_flood_test_TESTS} PROPERTIES RUN_SERIAL ON)
