# The platform's settings file and its formatter.
sflow_fuzz_target(config_fuzz SOURCES config_fuzz.cpp LIBS platform_config)
sflow_fuzz_target(format_fuzz SOURCES format_fuzz.cpp LIBS platform_format)
# A unit of a pair, and what strangers in its group send.
sflow_fuzz_target(pair_fuzz SOURCES pair_fuzz.cpp LIBS platform_pair)
