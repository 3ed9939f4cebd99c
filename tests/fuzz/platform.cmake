# The platform's settings file and its formatter.
sflow_fuzz_target(config_fuzz SOURCES config_fuzz.cpp LIBS platform_config)
sflow_fuzz_target(format_fuzz SOURCES format_fuzz.cpp LIBS platform_format)
