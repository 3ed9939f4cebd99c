# Compiles a BPF program and generates its libbpf skeleton at build time.
#
# sflow_bpf_object(NAME SOURCE x.bpf.c [INCLUDES folder …])
#   makes an interface library NAME whose users may include "<x>.skel.h" (x without its ".bpf") and link libbpf.
#   The program is compiled for the build machine's byte order; an error of the compiler or of bpftool stops the
#   build.
find_program(SFLOW_BPF_CLANG NAMES clang clang-14 REQUIRED)
find_program(SFLOW_BPFTOOL bpftool PATHS /usr/sbin /sbin REQUIRED)

function(sflow_bpf_object name)
    cmake_parse_arguments(ARG "" "SOURCE" "INCLUDES" ${ARGN})
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(LIBBPF REQUIRED IMPORTED_TARGET libbpf)

    get_filename_component(source ${ARG_SOURCE} ABSOLUTE)
    get_filename_component(stem ${ARG_SOURCE} NAME)
    string(REGEX REPLACE "\\.bpf\\.c$" "" stem ${stem})
    list(TRANSFORM ARG_INCLUDES PREPEND -I)
    set(out ${CMAKE_CURRENT_BINARY_DIR}/bpf)
    set(include_arch "")
    if(CMAKE_LIBRARY_ARCHITECTURE)
        # asm/types.h lives in the multiarch folder, which the bpf target does not search by itself
        set(include_arch -isystem /usr/include/${CMAKE_LIBRARY_ARCHITECTURE})
    endif()

    add_custom_command(
        OUTPUT ${out}/${stem}.bpf.o
        COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
        COMMAND ${SFLOW_BPF_CLANG} -target bpf -mcpu=v3 -O2 -g -std=gnu11 -Wall -Wextra -Werror ${include_arch}
                ${ARG_INCLUDES} -MD -MT ${out}/${stem}.bpf.o -MF ${out}/${stem}.d -c ${source} -o ${out}/${stem}.raw.o
        # links it with itself: leaves out the DWARF sections, keeps BTF
        COMMAND ${SFLOW_BPFTOOL} gen object ${out}/${stem}.bpf.o ${out}/${stem}.raw.o
        DEPENDS ${source}
        DEPFILE ${out}/${stem}.d
        COMMENT "Building BPF object ${stem}.bpf.o"
        VERBATIM)
    add_custom_command(
        OUTPUT ${out}/${stem}.skel.h
        COMMAND sh -c "\"$1\" gen skeleton \"$2\" name \"$3\" > \"$4\" || { rm -f \"$4\"; exit 1; }" skeleton
                ${SFLOW_BPFTOOL} ${out}/${stem}.bpf.o ${stem}_bpf ${out}/${stem}.skel.h
        DEPENDS ${out}/${stem}.bpf.o
        COMMENT "Generating BPF skeleton ${stem}.skel.h"
        VERBATIM)
    add_custom_target(${name}_skeleton DEPENDS ${out}/${stem}.skel.h)

    add_library(${name} INTERFACE)
    add_dependencies(${name} ${name}_skeleton)
    # generated code: our warning flags do not apply to it
    target_include_directories(${name} SYSTEM INTERFACE ${out})
    target_link_libraries(${name} INTERFACE PkgConfig::LIBBPF)
endfunction()
