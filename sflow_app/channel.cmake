# The sampling-service channel, and the platform events that change what is sampled.
sflow_module(sflow_lib_server SOURCES sflow_lib_server.cpp sflow_lib_server_cmd.cpp)
sflow_module(sflow_cli_msg SOURCES sflow_cli_msg.cpp sflow_cli_msg_config.cpp)
sflow_module(sflow_lsm SOURCES sflow_lsm.cpp sflow_lsm_address.cpp)
sflow_module(sflow_acl SOURCES sflow_acl.cpp)
