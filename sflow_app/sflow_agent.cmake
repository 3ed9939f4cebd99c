sflow_module(sflow_agent SOURCES
    sflow_agent.cpp
    sflow_agent_address.cpp
    sflow_agent_interface.cpp
    sflow_agent_msg.cpp
    sflow_agent_process.cpp
    sflow_agent_rdnd.cpp
    sflow_agent_timer.cpp)
