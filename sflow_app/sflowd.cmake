# The daemon's executable: every module of `sflow_app` on the Linux edition of the platform. What it links is
# resolved when the build files are written, so the order of the .cmake files does not matter.
add_executable(sflowd sflow_main.cpp)
target_link_libraries(sflowd PRIVATE sflow_build_flags sflow_app platform_linux)
install(TARGETS sflowd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
