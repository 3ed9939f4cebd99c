# A pair of units without a cluster: roles, checkpoints, and random courses of events.
sflow_unit_test(pair_test
    SOURCES pair_world.cpp pair_chaos_test.cpp pair_roles_test.cpp pair_sync_test.cpp
    LIBS platform_pair)

# The redundancy commands in the real command line.
sflow_unit_test(rdnd_commands_test SOURCES rdnd_commands_test.cpp cli_platform_double.cpp
                LIBS $<LINK_GROUP:RESCAN,platform_cli,platform_redundancy>)
