# Packets of the sampling service, through the server's walk and the real handlers.
sflow_fuzz_target(domain_fuzz
    SOURCES domain_fuzz.cpp
    LIBS sflow_app fake_platform
    LINK_OPTIONS
        -Wl,--wrap=socket
        -Wl,--wrap=_Z27sflow_create_depatch_threadPmPFPvS0_ES0_) # sflow_create_depatch_thread
