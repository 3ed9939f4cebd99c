# Unit tests of the sampling service. The test of the BPF programs skips itself without privileges.
foreach(topic IN ITEMS
        records probability sampler_table outbox connection service counters memory state keeper continuity kernel
        replay options loop hook_claim bpf acl_directory acl_matcher restart_pairs)
    sflow_unit_test(sampling_${topic}_test SOURCES sampling_${topic}_test.cpp LIBS sampling_core)
endforeach()

# The access-list matcher, alone in a program of its own.
include(BpfObject)
sflow_bpf_object(acl_probe_bpf SOURCE acl_probe.bpf.c INCLUDES ${PROJECT_SOURCE_DIR}/sampling)
add_library(acl_traffic STATIC acl_traffic.cpp)
target_link_libraries(acl_traffic PUBLIC platform_acl_list PRIVATE sflow_build_flags)
sflow_unit_test(sampling_bpf_acl_test SOURCES sampling_bpf_acl_test.cpp LIBS sampling_core acl_traffic)
sflow_unit_test(sampling_acl_kernel_test SOURCES sampling_acl_kernel_test.cpp
                LIBS sampling_core acl_traffic acl_probe_bpf)
