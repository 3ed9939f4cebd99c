# Writes the systemd units with the installation's paths. Run by `cmake --install`; set by its caller: unit_sources,
# sbin_dir.
set(SBINDIR ${CMAKE_INSTALL_PREFIX}/${sbin_dir})
set(unit_dir ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)
file(GLOB templates ${unit_sources}/*.service.in)
foreach(template IN LISTS templates)
    get_filename_component(unit ${template} NAME_WLE)
    configure_file(${template} $ENV{DESTDIR}${unit_dir}/${unit} @ONLY)
    file(CHMOD $ENV{DESTDIR}${unit_dir}/${unit}
         PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    message(STATUS "Installing: $ENV{DESTDIR}${unit_dir}/${unit}")
endforeach()
