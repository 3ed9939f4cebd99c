# Export: collectors and their datagrams, the flow sampler, the counter poller with its cache.
sflow_module(sflow_receiver SOURCES
    sflow_receiver.cpp
    sflow_receiver_collector.cpp
    sflow_receiver_socket.cpp)
sflow_module(sflow_sampler SOURCES sflow_sampler.cpp)
sflow_module(sflow_poller SOURCES
    sflow_poller.cpp
    sflow_poller_cache.cpp
    sflow_poller_file.cpp
    sflow_poller_rdnd.cpp)
