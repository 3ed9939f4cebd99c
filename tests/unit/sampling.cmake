# Unit tests of the sampling service. The test of the BPF programs skips itself without privileges.
foreach(topic IN ITEMS records probability sampler_table outbox connection service counters memory state keeper
        continuity kernel replay options loop bpf)
    sflow_unit_test(sampling_${topic}_test SOURCES sampling_${topic}_test.cpp LIBS sampling_core)
endforeach()
