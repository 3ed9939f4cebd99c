# The whole daemon on the platform's Linux edition, as in sflowd.
if(TARGET platform_linux)
    sflow_bench(counter_cache SOURCES counter_cache.cpp LIBS sflow_app platform_linux)
endif()
