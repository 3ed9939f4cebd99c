# Packets of the daemon, through the sampling service's walk and its real commands.
find_package(GTest REQUIRED)
sflow_fuzz_target(sampling_fuzz SOURCES sampling_fuzz.cpp LIBS sampling_core GTest::gtest)
target_include_directories(sampling_fuzz PRIVATE ${CMAKE_SOURCE_DIR}/tests/unit)
