sflow_module(sflow_cli SOURCES
    sflow_cli.cpp
    sflow_cli_collector.cpp
    sflow_cli_global.cpp
    sflow_cli_interface.cpp
    sflow_cli_interface_guard.cpp
    sflow_cli_show.cpp
    sflow_cli_tree_exec.cpp
    sflow_cli_tree_global.cpp
    sflow_cli_tree_interface.cpp
    sflow_cli_validity.cpp)
sflow_module(sflow_dbg SOURCES sflow_dbg.cpp)
sflow_module(sflow_tech_sup SOURCES sflow_tech_sup.cpp)
