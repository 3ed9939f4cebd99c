# The export modules among the doubles of their unit tests.
if(TARGET export_world)
    sflow_bench(flow_path SOURCES flow_path.cpp LIBS sflow_receiver sflow_sampler sflow_poller export_world)
endif()
