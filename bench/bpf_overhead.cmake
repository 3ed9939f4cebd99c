include(BpfObject)
sflow_bpf_object(bpf_overhead_bpf SOURCE bpf_overhead.bpf.c)
sflow_bench(bpf_overhead SOURCES bpf_overhead.cpp LIBS sampling_core bpf_overhead_bpf)
