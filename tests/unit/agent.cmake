# Module sflow_agent alone: the other modules are doubles, the platform is the fake one, and libc functions that
# fail, block or make threads go through wrappers.
set(agent_wrapped
    calloc fcntl localtime_r pause pthread_attr_destroy pthread_attr_init pthread_attr_setdetachstate pthread_cancel
    pthread_cond_destroy pthread_cond_init pthread_cond_timedwait pthread_condattr_destroy pthread_condattr_init
    pthread_condattr_setclock pthread_create pthread_mutex_destroy pthread_mutex_init pthread_mutex_lock
    pthread_mutex_unlock pthread_rwlock_destroy
    pthread_rwlock_init pthread_rwlock_rdlock pthread_rwlock_unlock pthread_rwlock_wrlock pthread_rwlockattr_init
    pthread_rwlockattr_setkind_np pthread_rwlockattr_setpshared sched_setaffinity select signal sleep sysinfo)
list(TRANSFORM agent_wrapped PREPEND "-Wl,--wrap=" OUTPUT_VARIABLE agent_wrap_options)

add_library(agent_doubles STATIC agent_doubles.cpp agent_wraps.cpp)
target_link_libraries(agent_doubles PUBLIC fake_platform sflow_include GTest::gtest PRIVATE sflow_build_flags)

sflow_unit_test(agent_test
    SOURCES
        agent_doubles_poller.cpp
        agent_address_test.cpp
        agent_interface_test.cpp
        agent_msg_test.cpp
        agent_process_test.cpp
        agent_rdnd_test.cpp
        agent_record_test.cpp
        agent_timer_test.cpp
    LIBS sflow_agent agent_doubles
    LINK_OPTIONS ${agent_wrap_options})

# All of the module's threads at once.
sflow_unit_test(agent_threads_test
    SOURCES agent_doubles_poller.cpp agent_threads_test.cpp
    LIBS sflow_agent agent_doubles
    LINK_OPTIONS ${agent_wrap_options})

# The event queue with its real producer.
sflow_unit_test(agent_queue_test
    SOURCES agent_queue_test.cpp
    LIBS sflow_agent sflow_poller agent_doubles
    LINK_OPTIONS ${agent_wrap_options})
