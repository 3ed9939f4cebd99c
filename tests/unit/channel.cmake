# The sampling-service channel, interface events and access lists.
set(CHANNEL_WRAPS)
foreach(symbol IN ITEMS
        malloc calloc
        pthread_mutex_init pthread_mutex_destroy pthread_mutex_lock pthread_mutex_unlock
        pthread_rwlock_rdlock pthread_rwlock_wrlock pthread_rwlock_unlock
        pthread_condattr_init pthread_condattr_destroy pthread_condattr_setclock
        pthread_cond_init pthread_cond_destroy pthread_cond_timedwait
        socket bind listen accept4 poll sleep
        # sflow_create_depatch_thread, sflow_app_write_log, sflow_lib_server_send_msg, _cmd_register, _cmd_unregister
        _Z27sflow_create_depatch_threadPmPFPvS0_ES0_
        _Z19sflow_app_write_logiPKciS0_
        _Z25sflow_lib_server_send_msgPKci
        _Z29sflow_lib_server_cmd_registerjPFvPcE
        _Z31sflow_lib_server_cmd_unregisterj
        # sflow_cli_c2p_reform, sflow_sampler_set_cid, sflow_poller_set_cid
        _Z20sflow_cli_c2p_reformv
        _Z21sflow_sampler_set_cidjj
        _Z20sflow_poller_set_cidjj
        # sflow_pi_counter_msg_enqueue, sflow_pi_flow_sampling, sflow_add_intf_config
        _Z28sflow_pi_counter_msg_enqueuePK19sflow_counter_ret_ti
        _Z22sflow_pi_flow_samplingPKci17sflow_flow_info_t
        _Z21sflow_add_intf_configj
        # sflow_intf_del_notify, sflow_agent_del_intf_notify, sflow_source_del_intf_notify
        _Z21sflow_intf_del_notifyj
        _Z27sflow_agent_del_intf_notifyj
        _Z28sflow_source_del_intf_notifyj
        # sflow_receiver_vrf_no_exist_del_receiver, cli_add_command
        _Z40sflow_receiver_vrf_no_exist_del_receiverPK14intf_msg_vrf_t
        _Z15cli_add_command12cli_attach_tPK16struct_transtionPKc)
    list(APPEND CHANNEL_WRAPS -Wl,--wrap=${symbol})
endforeach()

add_library(channel_support OBJECT channel_support.cpp channel_libc.cpp)
target_link_libraries(channel_support PUBLIC fake_platform sflow_include GTest::gtest PRIVATE sflow_build_flags)

foreach(name IN ITEMS
        channel_table_test
        channel_diag_test
        channel_server_test
        channel_msg_test
        channel_handler_test
        channel_answer_test
        channel_lsm_test
        channel_lsm_address_test
        channel_acl_test)
    sflow_unit_test(${name}
        SOURCES ${name}.cpp
        LIBS channel_support sflow_app fake_platform
        LINK_OPTIONS ${CHANNEL_WRAPS})
endforeach()
